// Hot plug: the notifications of the device manager, and the observers that they call.

#include <fcntl.h>

#include <array>
#include <ios>
#include <string_view>

#include "DockhandClient.h"
#include "ModuleLog.h"

namespace Dockhand {

namespace {

/// The number of the Xrite device in callbacks; it has no record.
constexpr std::int16_t xriteDeviceNumber = -1;

/// The Xrite notifications call only this observer. The storage notifications skip it.
constexpr std::int8_t xriteObserverId = 7;

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

/// True if the first 1023 bytes of the kernel's list of partitions contain the name exactly once.
bool isListedOnce(Platform& platform, const std::string& usbDevice) {
  const int partitions = platform.open("/proc/partitions", O_RDONLY);
  if (partitions < 0) {
    return false;
  }
  std::array<char, 1023> text;
  const ssize_t size = platform.read(partitions, text.data(), text.size());
  platform.close(partitions);
  if (size < 0) {
    return false;
  }
  // A disk's name is the beginning of its partitions' names, so a partitioned disk is announced by its
  // partition only.
  return countOccurrences({text.data(), static_cast<std::size_t>(size)}, usbDevice) == 1;
}

}  // namespace

void DockhandClient::callObservers(ObserverTable observers, Audience audience,
                                   const CallObserver& callObserver) {
  for (const auto& [observerId, observer] : observers) {
    if ((observerId == xriteObserverId) == (audience == Audience::xrite)) {
      callObserver(observerId, observer);
    }
  }
  // Take the lock once more, so that we return only after the operations that observers started.
  const HandlerLock lock(handlerMutex);
  observers.clear();
}

void DockhandClient::NotifyUsbAdded(const std::string& usbDevice) {
  usbClientLog.trace(300, "NotifyUSB added ", usbDevice);
  if (isPvrPreparationRunning()) {
    return;
  }

  std::uint32_t deviceId = 0;
  ObserverTable observers;
  {
    const HandlerLock lock(handlerMutex);
    usbClientLog.writeStackTrace();
    CheckForAndUpdateNewDevices();
    const auto device = devices_.findByKernelName(usbDevice);
    if (!isListedOnce(platform_, usbDevice) || device == deviceMap.end() || device->first == 0) {
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

  callObservers(
      observers, Audience::storage, [this, deviceId](std::int8_t observerId, std::int32_t observer) {
        usbClientLog.trace(364, "Calling ADD callback function with usbDevice ", deviceId,
                           " and observerId is ", int{observerId}, " and observer is 0x", std::hex, observer);
        mediaClient->call([&](MediaServiceStub& mediaService) {
          mediaService.SendUsbAddedCallback(static_cast<std::int16_t>(deviceId), observerId, observer);
        });
      });
}

void DockhandClient::NotifyUsbRemoved(const std::string& usbDevice) {
  usbClientLog.trace(384, "NotifyUsbRemoved(", usbDevice, ")");
  if (isPvrPreparationRunning()) {
    return;
  }

  std::uint32_t deviceId = 0;
  ObserverTable observers;
  {
    const HandlerLock lock(handlerMutex);
    auto device = deviceMap.begin();
    for (; device != deviceMap.end(); ++device) {
      const std::string name = kernelName(device->second);
      usbClientLog.trace(397, "NotifyUsbRemoved: check device=", name);
      if (name == usbDevice) {
        break;
      }
    }
    if (device == deviceMap.end() || device->first == 0) {
      return;
    }
    UsbDeviceEntry& entry = device->second;
    if (entry.lastUsbOperation == UsbOperationRemoved) {
      usbClientLog.trace(408, "Already notified about removal");
      return;
    }
    entry.lastUsbOperation = UsbOperationRemoved;
    deviceId = device->first;
    if (entry.deviceOpen) {
      usbClientLog.warning(416, "NotifyUsbRemoved: Device was mounted, force unmount(", entry.deviceName,
                           ", ", entry.mountPoint, ")");
      // Ignore a failure, which is in the log: the hardware is gone in any case.
      releaseDevice(static_cast<std::int16_t>(deviceId), true);
    }
    usbClientLog.trace(424, "deviceMap.erase: deviceId=", deviceId);
    deviceMap.erase(device);
    observers = removedObservers;
  }

  callObservers(
      observers, Audience::storage, [this, deviceId](std::int8_t observerId, std::int32_t observer) {
        usbClientLog.trace(436, "SendUsbRemovedCallback: usbDevice=", deviceId,
                           " and observerId=", int{observerId}, " and observer=0x", std::hex, observer);
        mediaClient->call([&](MediaServiceStub& mediaService) {
          mediaService.SendUsbRemovedCallback(static_cast<std::int16_t>(deviceId), observerId, observer);
        });
      });
}

void DockhandClient::NotifyUsbXriteAdded() {
  usbClientLog.trace(452, "Xrite device inserted");
  ObserverTable observers;
  {
    const HandlerLock lock(handlerMutex);
    observers = addedObservers;
  }

  callObservers(observers, Audience::xrite, [this](std::int8_t observerId, std::int32_t observer) {
    usbClientLog.trace(462, "Calling ADDED callback function with usbDevice ", xriteDeviceNumber,
                       " and observerId is ", int{observerId}, " and observer is 0x", std::hex, observer);
    mediaClient->call([&](MediaServiceStub& mediaService) {
      mediaService.SendUsbAddedCallback(xriteDeviceNumber, observerId, observer);
    });
  });
}

void DockhandClient::NotifyUsbXriteRemoved() {
  usbClientLog.trace(478, "Xrite device removed");
  ObserverTable observers;
  {
    const HandlerLock lock(handlerMutex);
    observers = removedObservers;
  }

  callObservers(observers, Audience::xrite, [this](std::int8_t observerId, std::int32_t observer) {
    usbClientLog.trace(488, "Calling REMOVE callback function with usbDevice ", xriteDeviceNumber,
                       " and observerId is ", int{observerId}, " and observer is 0x", std::hex, observer);
    mediaClient->call([&](MediaServiceStub& mediaService) {
      mediaService.SendUsbRemovedCallback(xriteDeviceNumber, observerId, observer);
    });
  });
}

}  // namespace Dockhand
