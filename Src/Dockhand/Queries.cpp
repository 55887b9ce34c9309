// Queries: which devices there are, and the properties of each.

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "DockhandClient.h"
#include "ModuleLog.h"

namespace Dockhand {

namespace {

/// The first line of a file, without its newline. Empty if the file cannot be read.
std::string readFirstLine(Platform& platform, const std::string& path) {
  std::string line;
  const int file = platform.open(path, O_RDONLY);
  if (file < 0) {
    return line;
  }
  std::array<char, 256> block;
  ssize_t size = 0;
  bool complete = false;
  while (!complete && (size = platform.read(file, block.data(), block.size())) > 0) {
    const auto end = block.begin() + size;
    const auto newline = std::find(block.begin(), end, '\n');
    line.append(block.begin(), newline);
    complete = newline != end;
  }
  platform.close(file);
  return line;
}

}  // namespace

void DockhandClient::GetListOfInsertedDevices(std::vector<std::int16_t>& _return, bool includeHidden) {
  _return.clear();
  usbClientLog.trace(262, "GetListOfInsertedDevices");
  const HandlerLock lock(handlerMutex);

  usbClientLog.trace(265, "map count before is ", deviceMap.size());
  CheckForAndUpdateNewDevices();
  usbClientLog.trace(267, "map count after is ", deviceMap.size());

  for (const auto& [key, entry] : deviceMap) {
    usbClientLog.trace(272, "Found a device in the map - last op is ", entry.lastUsbOperation);
    if (!isPluggedIn(entry)) {
      continue;
    }
    if (entry.safelyRemoved) {
      usbClientLog.warning(277, "USB deviceId=", key,
                           " has been safely removed (hide until removed/reinserted)");
      continue;
    }
    if (entry.hidden && !includeHidden) {
      continue;
    }
    _return.push_back(static_cast<std::int16_t>(key));
    usbClientLog.trace(284, "Added device id of ", key);
  }
}

bool DockhandClient::IsDeviceOpen(std::int16_t deviceId) {
  const HandlerLock lock(handlerMutex);
  usbClientLog.trace(792, "IsDeviceOpen(", deviceId, ")");
  const UsbDeviceEntry* entry = devices_.find(deviceId);
  if (entry == nullptr) {
    usbClientLog.trace(797, "No such device available!");
    return false;
  }
  return entry->deviceOpen;
}

std::string DockhandClient::getBlkidLookupValue(std::uint32_t deviceId, const char* key) {
  const UsbDeviceEntry* entry = devices_.findKey(deviceId);
  if (entry == nullptr) {
    return {};
  }
  const std::string node = mountNode(*entry);
  std::string result = prober_.lookUp(node, key);
  usbClientLog.trace(1015, "getBlkidLookupValue(", deviceId, ",", key, "; device=", node, ")=", result);
  return result;
}

void DockhandClient::GetDeviceUuid(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId) {
  usbClientLog.trace(1024, "GetDeviceUuid");
  const HandlerLock lock(handlerMutex);
  _return.text = getBlkidLookupValue(static_cast<std::uint32_t>(deviceId), "UUID");
  _return.success = !_return.text.empty();
  if (_return.text.empty()) {
    _return.text = "0000-0000";
  }
  usbClientLog.trace(1036, "GetDeviceUUID(", deviceId, ")=", _return.text);
}

void DockhandClient::GetDeviceLabel(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId) {
  usbClientLog.trace(1046, "GetDeviceLabel");
  const HandlerLock lock(handlerMutex);
  _return.success = devices_.find(deviceId) != nullptr;
  _return.text.clear();
  if (_return.success) {
    _return.text = getBlkidLookupValue(static_cast<std::uint32_t>(deviceId), "LABEL");
  }
  if (_return.text.empty()) {
    _return.text = "NONAME";
  }
  usbClientLog.trace(1060, "GetDeviceLabel(", deviceId, ")=", _return.text);
}

std::int32_t DockhandClient::GetDeviceType(std::int16_t deviceId) {
  usbClientLog.trace(1068, "GetDeviceType");
  const HandlerLock lock(handlerMutex);
  std::int32_t type = 0;
  const UsbDeviceEntry* entry = devices_.find(deviceId);
  if (entry == nullptr) {
    usbClientLog.error(1072, "GetDeviceType(", deviceId, ") - Unknown device!");
  } else {
    const std::string path = "/sys/block/" + entry->deviceName + "/removable";
    const int file = platform_.open(path, O_RDONLY);
    if (file < 0) {
      usbClientLog.error(1078, "Failed to read file: ", path);
    } else {
      char removable = 0;
      if (platform_.read(file, &removable, 1) != 1) {
        usbClientLog.error(1083, "Failed to read file: ", path);
      } else {
        type = removable == '0' ? 1 : 2;
      }
      platform_.close(file);
    }
  }
  // The text has the name of another operation, because log readers match it.
  usbClientLog.trace(1090, "GetDeviceUsbVersion(", deviceId, ")=", type);
  return type;
}

void DockhandClient::GetUsbMountPoint(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId) {
  usbClientLog.trace(1103, "GetUsbMountPoint");
  const HandlerLock lock(handlerMutex);
  for (const auto& [key, entry] : deviceMap) {
    usbClientLog.trace(1117, "GetUsbMountPoint(", deviceId, "): deviceMap[", key,
                       "]:", " name=", entry.deviceName, " partCnt=", entry.partitionCount,
                       " deviceOpen=", entry.deviceOpen, " mountPoint=", entry.mountPoint,
                       " lastOpr=", entry.lastUsbOperation);
  }
  const UsbDeviceEntry* device = devices_.find(deviceId);
  _return.text.clear();
  if (device != nullptr) {
    _return.text = device->mountPoint;
  }
  if (_return.text.empty()) {
    usbClientLog.warning(1126, "GetUsbMountPoint(deviceId=", deviceId, ") failed, found=", device != nullptr);
  }
  // True also for an unknown device: callers recognise a failure by the empty text.
  _return.success = true;
}

void DockhandClient::GetUsbPhysicalDevice(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId) {
  usbClientLog.trace(1136, "GetUsbPhysicalDevice");
  const HandlerLock lock(handlerMutex);
  const UsbDeviceEntry* entry = devices_.find(deviceId);
  _return.success = entry != nullptr;
  _return.text = entry != nullptr ? kernelName(*entry) : std::string();
}

std::string DockhandClient::GetUsbMountDevice(std::int16_t deviceId, bool wholeDisk) {
  usbClientLog.trace(1152, "GetUsbMountDevice");
  const HandlerLock lock(handlerMutex);
  const UsbDeviceEntry* entry = devices_.find(deviceId);
  if (entry == nullptr) {
    return {};
  }
  return wholeDisk ? diskNode(*entry) : mountNode(*entry);
}

void DockhandClient::GetDeviceUsbVersion(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId) {
  usbClientLog.trace(1276, "GetDeviceUsbVersion");
  const HandlerLock lock(handlerMutex);
  _return.success = false;
  _return.text.clear();
  const UsbDeviceEntry* entry = devices_.find(deviceId);
  if (entry == nullptr) {
    usbClientLog.error(1282, "GetDeviceUsbVersion(", deviceId, ") - Unknown device!");
  } else if (const std::string versionFile = "/tmp/" + entry->deviceName + "_bcdUSB.txt";
             shell_.claim(versionFile)) {
    const std::string readVersion = "readUsbVersion.sh " + entry->deviceName + " > " + versionFile;
    const int readStatus = platform_.system(readVersion);
    if (readStatus != 0) {
      usbClientLog.error(1290, "system(", readVersion, ") failed with: ", readStatus);
    } else {
      _return.text = readFirstLine(platform_, versionFile);
      _return.success = true;
    }
    const std::string removeFile = "rm " + versionFile;
    const int removeStatus = platform_.system(removeFile);
    if (removeStatus != 0) {
      usbClientLog.error(1303, "system(", removeFile, ") failed with: ", removeStatus);
    }
  }
  usbClientLog.trace(1309, "GetDeviceUsbVersion(", deviceId, ")=", _return.text);
}

std::int32_t DockhandClient::GetDeviceCapacity(std::int16_t deviceId) {
  usbClientLog.trace(1318, "GetDeviceCapacity");
  const HandlerLock lock(handlerMutex);
  const std::string path = GetUsbMountDevice(deviceId, true);
  std::int32_t capacity = 0;
  const int disk = platform_.open(path, O_RDONLY);
  if (disk < 0) {
    const int error = errno;
    usbClientLog.error(1325, "open(", path, ") failed! errno=", error);
  } else {
    constexpr blkid_loff_t bytesPerMebibyte = 1 << 20;
    capacity = static_cast<std::int32_t>(platform_.blkid_get_dev_size(disk) / bytesPerMebibyte);
  }
  // Close even after a failed open, because log readers expect both lines.
  if (platform_.close(disk) != 0) {
    const int error = errno;
    usbClientLog.error(1334, "close(", disk, ") failed! errno=", error);
  }
  usbClientLog.trace(1339, "GetDeviceCapacity(", deviceId, ")=", capacity);
  return capacity;
}

}  // namespace Dockhand
