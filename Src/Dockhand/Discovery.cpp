// Finding the devices: keeps the device map in step with the nodes under /dev, and lists what a client may
// use.

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string_view>

#include "DockhandClient.h"
#include "ModuleLog.h"

namespace Dockhand {

namespace {

constexpr std::string_view nodePrefix = "usb_storage_";

int isStorageNode(const dirent* entry) {
  return std::strstr(entry->d_name, nodePrefix.data()) != nullptr ? 1 : 0;
}

/// The entries of a scandir, freed with it.
struct ScannedEntries {
  dirent** entries = nullptr;
  int count = 0;

  ScannedEntries() = default;
  ScannedEntries(const ScannedEntries&) = delete;
  ScannedEntries& operator=(const ScannedEntries&) = delete;
  ~ScannedEntries() {
    for (int i = 0; i < count; ++i) {
      std::free(entries[i]);
    }
    std::free(entries);
  }
};

std::string charactersBetween(const std::string& text, char first, char last) {
  std::string picked;
  for (const char c : text) {
    if (c >= first && c <= last) {
      picked += c;
    }
  }
  return picked;
}

}  // namespace

void DockhandClient::CheckForAndUpdateNewDevices() {
  usbClientLog.write(2, 142, "CheckForAndUpdateNewDevices");
  const Lock lock(*this);

  for (auto& [key, entry] : deviceMap) {
    entry.partitionCount = 0;
  }
  for (auto& [key, entry] : deviceMap) {
    entry.foundInScan = false;
  }

  ScannedEntries nodes;
  nodes.count = platform_.scandir("/dev", &nodes.entries, isStorageNode, alphasort);
  if (nodes.count < 0) {
    const int error = errno;
    usbClientLog.write(4, 162, "scandir failed, errno=", error);
    return;
  }

  for (int i = 0; i < nodes.count; ++i) {
    const std::string node = nodes.entries[i]->d_name;
    const std::string text = node.substr(nodePrefix.size());
    const std::string deviceName = charactersBetween(text, 'a', 'z');
    const std::string deviceNumber = charactersBetween(text, '0', '9');

    bool matchFound = false;
    for (auto& [key, entry] : deviceMap) {
      if (entry.deviceName != deviceName) {
        continue;
      }
      if (!deviceNumber.empty()) {
        entry.partitionCount = 1;
      }
      entry.foundInScan = true;
      matchFound = true;
    }
    usbClientLog.write(2, 196, "entry: name=", text, " number=", deviceNumber, " matchFound=", matchFound);

    if (!matchFound) {
      insertDevice(deviceName, deviceNumber);
    }
  }

  eraseVanishedDevices();
}

void DockhandClient::insertDevice(const std::string& deviceName, const std::string& deviceNumber) {
  requireLock();
  UsbDeviceEntry entry;
  entry.deviceName = deviceName;
  entry.foundInScan = true;
  if (deviceNumber.empty()) {
    usbClientLog.write(2, 203, "deviceNumber is empty");
  } else {
    usbClientLog.write(2, 208, "deviceNumber NOT empty - settings part count to 1");
    entry.partitionCount = 1;
  }

  std::uint32_t key = 1;
  while (deviceMap.count(key) != 0) {
    ++key;
  }
  deviceMap.emplace(key, entry);
  usbClientLog.write(2, 226, "deviceMap.insert(", key, ", [", entry.deviceName, ",", entry.partitionCount,
                     ",", entry.deviceOpen, ",", entry.mountPoint, ",", entry.lastUsbOperation, ",",
                     entry.hidden, "], mapSize=", deviceMap.size());
}

void DockhandClient::eraseVanishedDevices() {
  requireLock();
  auto device = deviceMap.begin();
  while (device != deviceMap.end()) {
    if (device->second.foundInScan) {
      ++device;
      continue;
    }
    deviceMap.erase(device);
    if (deviceMap.empty()) {
      return;
    }
    // Starts over behind the first record, not at it, so that a vanished device in first place now outlives
    // this scan. Deliberate: services see which scan frees a device number.
    device = std::next(deviceMap.begin());
  }
}

void DockhandClient::GetListOfInsertedDevices(std::vector<std::int16_t>& _return, bool includeHidden) {
  _return.clear();
  usbClientLog.write(2, 262, "GetListOfInsertedDevices");
  const Lock lock(*this);

  usbClientLog.write(2, 265, "map count before is ", deviceMap.size());
  CheckForAndUpdateNewDevices();
  usbClientLog.write(2, 267, "map count after is ", deviceMap.size());

  for (const auto& [key, entry] : deviceMap) {
    usbClientLog.write(2, 272, "Found a device in the map - last op is ", entry.lastUsbOperation);
    if (!isPluggedIn(entry)) {
      continue;
    }
    if (entry.safelyRemoved) {
      usbClientLog.write(4, 277, "USB deviceId=", key,
                         " has been safely removed (hide until removed/reinserted)");
      continue;
    }
    if (entry.hidden && !includeHidden) {
      continue;
    }
    _return.push_back(static_cast<std::int16_t>(key));
    usbClientLog.write(2, 284, "Added device id of ", key);
  }
}

}  // namespace Dockhand
