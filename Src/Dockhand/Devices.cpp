#include "Devices.h"

#include <iterator>

#include "ModuleLog.h"

namespace Dockhand {

UsbDeviceEntry* Devices::findKey(std::uint32_t key) {
  const auto found = map_.find(key);
  return found != map_.end() ? &found->second : nullptr;
}

DeviceMap::iterator Devices::findByKernelName(const std::string& name) {
  auto device = map_.begin();
  while (device != map_.end() && kernelName(device->second) != name) {
    ++device;
  }
  return device;
}

void Devices::beginScan() {
  for (auto& [key, entry] : map_) {
    entry.partitionCount = 0;
    entry.foundInScan = false;
  }
}

bool Devices::markSeen(const std::string& deviceName, bool isPartition) {
  bool matchFound = false;
  for (auto& [key, entry] : map_) {
    if (entry.deviceName != deviceName) {
      continue;
    }
    if (isPartition) {
      entry.partitionCount = 1;
    }
    entry.foundInScan = true;
    matchFound = true;
  }
  return matchFound;
}

void Devices::insert(const std::string& deviceName, const std::string& deviceNumber) {
  UsbDeviceEntry entry;
  entry.deviceName = deviceName;
  entry.foundInScan = true;
  if (deviceNumber.empty()) {
    usbClientLog.trace(203, "deviceNumber is empty");
  } else {
    usbClientLog.trace(208, "deviceNumber NOT empty - settings part count to 1");
    entry.partitionCount = 1;
  }

  std::uint32_t key = 1;
  while (map_.count(key) != 0) {
    ++key;
  }
  map_.emplace(key, entry);
  usbClientLog.trace(226, "deviceMap.insert(", key, ", [", entry.deviceName, ",", entry.partitionCount, ",",
                     entry.deviceOpen, ",", entry.mountPoint, ",", entry.lastUsbOperation, ",", entry.hidden,
                     "], mapSize=", map_.size());
}

void Devices::eraseUnseen() {
  auto device = map_.begin();
  while (device != map_.end()) {
    if (device->second.foundInScan) {
      ++device;
      continue;
    }
    map_.erase(device);
    if (map_.empty()) {
      return;
    }
    // Restart at the second record: a vanished record that is now first survives until the next scan. This is
    // deliberate: services see which scan frees a device number.
    device = std::next(map_.begin());
  }
}

}  // namespace Dockhand
