// Plugging in and out: the notifications of the device manager, and the observers that are called on them.

#include <fcntl.h>

#include <array>
#include <ios>
#include <string_view>

#include "DockhandClient.h"
#include "ModuleLog.h"

namespace Dockhand {

namespace {

/// Stands for the Xrite device, which has no device number.
constexpr std::int16_t xriteDeviceNumber = -1;

int countOccurrences(std::string_view text, std::string_view name) {
  if (name.empty()) {
    return 0;
  }
  int count = 0;
  for (auto at = text.find(name); at != std::string_view::npos; at = text.find(name, at + name.size())) {
    ++count;
  }
  return count;
}

}  // namespace

std::map<std::uint32_t, UsbDeviceEntry>::iterator DockhandClient::findByKernelName(
    const std::string& usbDevice) {
  requireLock();
  auto device = deviceMap.begin();
  while (device != deviceMap.end() && kernelName(device->second) != usbDevice) {
    ++device;
  }
  return device;
}

bool DockhandClient::isListedOnce(const std::string& usbDevice) {
  requireLock();
  const int partitions = platform_.open("/proc/partitions", O_RDONLY);
  if (partitions < 0) {
    return false;
  }
  std::array<char, 1023> text;
  const ssize_t size = platform_.read(partitions, text.data(), text.size());
  platform_.close(partitions);
  if (size < 0) {
    return false;
  }
  // A whole disk's name also begins the names of its partitions, so a partitioned disk is announced by its
  // partition only.
  return countOccurrences({text.data(), static_cast<std::size_t>(size)}, usbDevice) == 1;
}

void DockhandClient::callObserver(Callback callback, std::int16_t deviceId, std::int8_t observerId,
                                  std::int32_t observer) {
  mediaClient->call(
      [&](MediaServiceStub& mediaService) { (mediaService.*callback)(deviceId, observerId, observer); });
}

void DockhandClient::NotifyUsbAdded(const std::string& usbDevice) {
  usbClientLog.write(2, 300, "NotifyUSB added ", usbDevice);
  if (isPvrPreparationRunning()) {
    return;
  }

  std::uint32_t deviceId = 0;
  ObserverTable observers;
  {
    const Lock lock(*this);
    usbClientLog.writeStackTrace();
    CheckForAndUpdateNewDevices();
    const auto device = findByKernelName(usbDevice);
    if (!isListedOnce(usbDevice) || device == deviceMap.end() || device->first == 0) {
      return;
    }
    UsbDeviceEntry& entry = device->second;
    if (entry.lastUsbOperation == UsbOperationAdded) {
      return;
    }
    entry.lastUsbOperation = UsbOperationAdded;
    entry.safelyRemoved = false;
    deviceId = device->first;
    observers = addedObservers;
  }

  for (const auto& [observerId, observer] : observers) {
    if (observerId == xriteObserverId) {
      continue;
    }
    usbClientLog.write(2, 364, "Calling ADD callback function with usbDevice ", deviceId,
                       " and observerId is ", int{observerId}, " and observer is 0x", std::hex, observer);
    callObserver(&MediaServiceStub::SendUsbAddedCallback, static_cast<std::int16_t>(deviceId), observerId,
                 observer);
  }

  // Not before whatever the observers have set off: the notification waits for the lock once more.
  const Lock lock(*this);
  observers.clear();
}

void DockhandClient::NotifyUsbRemoved(const std::string& usbDevice) {
  usbClientLog.write(2, 384, "NotifyUsbRemoved(", usbDevice, ")");
  if (isPvrPreparationRunning()) {
    return;
  }

  std::uint32_t deviceId = 0;
  ObserverTable observers;
  {
    const Lock lock(*this);
    auto device = deviceMap.begin();
    for (; device != deviceMap.end(); ++device) {
      const std::string name = kernelName(device->second);
      usbClientLog.write(2, 397, "NotifyUsbRemoved: check device=", name);
      if (name == usbDevice) {
        break;
      }
    }
    if (device == deviceMap.end() || device->first == 0) {
      return;
    }
    UsbDeviceEntry& entry = device->second;
    if (entry.lastUsbOperation == UsbOperationRemoved) {
      usbClientLog.write(2, 408, "Already notified about removal");
      return;
    }
    entry.lastUsbOperation = UsbOperationRemoved;
    deviceId = device->first;
    if (entry.deviceOpen) {
      usbClientLog.write(4, 416, "NotifyUsbRemoved: Device was mounted, force unmount(", entry.deviceName,
                         ", ", entry.mountPoint, ")");
      // The hardware is gone whether or not this succeeds, and the failure is in the log.
      releaseDevice(static_cast<std::int16_t>(deviceId), true);
    }
    usbClientLog.write(2, 424, "deviceMap.erase: deviceId=", deviceId);
    deviceMap.erase(device);
    observers = removedObservers;
  }

  for (const auto& [observerId, observer] : observers) {
    if (observerId == xriteObserverId) {
      continue;
    }
    usbClientLog.write(2, 436, "SendUsbRemovedCallback: usbDevice=", deviceId,
                       " and observerId=", int{observerId}, " and observer=0x", std::hex, observer);
    callObserver(&MediaServiceStub::SendUsbRemovedCallback, static_cast<std::int16_t>(deviceId), observerId,
                 observer);
  }

  // Not before whatever the observers have set off: the notification waits for the lock once more.
  const Lock lock(*this);
  observers.clear();
}

void DockhandClient::NotifyUsbXriteAdded() {
  usbClientLog.write(2, 452, "Xrite device inserted");
  ObserverTable observers;
  {
    const Lock lock(*this);
    observers = addedObservers;
  }

  for (const auto& [observerId, observer] : observers) {
    if (observerId != xriteObserverId) {
      continue;
    }
    usbClientLog.write(2, 462, "Calling ADDED callback function with usbDevice ", xriteDeviceNumber,
                       " and observerId is ", int{observerId}, " and observer is 0x", std::hex, observer);
    callObserver(&MediaServiceStub::SendUsbAddedCallback, xriteDeviceNumber, observerId, observer);
  }

  // Not before whatever the observers have set off: the notification waits for the lock once more.
  const Lock lock(*this);
  observers.clear();
}

void DockhandClient::NotifyUsbXriteRemoved() {
  usbClientLog.write(2, 478, "Xrite device removed");
  ObserverTable observers;
  {
    const Lock lock(*this);
    observers = removedObservers;
  }

  for (const auto& [observerId, observer] : observers) {
    if (observerId != xriteObserverId) {
      continue;
    }
    usbClientLog.write(2, 488, "Calling REMOVE callback function with usbDevice ", xriteDeviceNumber,
                       " and observerId is ", int{observerId}, " and observer is 0x", std::hex, observer);
    callObserver(&MediaServiceStub::SendUsbRemovedCallback, xriteDeviceNumber, observerId, observer);
  }

  // Not before whatever the observers have set off: the notification waits for the lock once more.
  const Lock lock(*this);
  observers.clear();
}

}  // namespace Dockhand
