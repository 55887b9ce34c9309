// Probing: what a device's file system says of itself, read with libblkid.

#include <cerrno>
#include <cstring>

#include "DockhandClient.h"
#include "ModuleLog.h"

namespace Dockhand {

bool DockhandClient::GetPartitionInfo(std::int16_t deviceId, PartitionInfo& info) {
  usbClientLog.write(2, 952, "GetPartitionInfo(", deviceId, ")");
  const Lock lock(*this);
  const UsbDeviceEntry* entry = findDevice(deviceId);
  if (entry == nullptr) {
    usbClientLog.write(5, 965, "GetPartitionInfo(", deviceId, ") - Unknown device!");
    return false;
  }
  info.fsType = getBlkidLookupValue(static_cast<std::uint32_t>(deviceId), "TYPE");
  info.mountDevice = GetUsbMountDevice(deviceId, false);
  info.deviceOpen = entry->deviceOpen;
  return true;
}

std::string DockhandClient::getBlkidLookupValue(std::uint32_t deviceId, const char* key) {
  requireLock();
  const auto device = deviceMap.find(deviceId);
  if (device == deviceMap.end()) {
    return {};
  }
  const std::string path = "/dev/usb_storage_" + kernelName(device->second);
  std::string result;

  const blkid_probe probe = platform_.blkid_new_probe_from_filename(path);
  if (probe == nullptr) {
    usbClientLog.write(4, 986, "blkid_new_probe_from_filename(", path, ") failed!");
  } else {
    // libblkid does not always set errno: an older error must not be taken for its own.
    errno = 0;
    if (platform_.blkid_do_probe(probe) == -1) {
      const int error = errno;
      usbClientLog.write(4, 993, "blkid_do_probe() failed. error=", error);
      keepFailedProbe(probe);
    } else {
      const char* value = "";
      errno = 0;
      if (platform_.blkid_probe_lookup_value(probe, key, &value) == -1) {
        const int error = errno;
        usbClientLog.write(4, 1001, "blkid_probe_lookup_value(", key, ") failed. error=", error);
      }
      // A single character is no name that anybody chose.
      if (value != nullptr && std::strlen(value) > 1) {
        result = value;
      } else {
        usbClientLog.write(4, 1008, "No ", key, " found for ", path);
      }
      platform_.blkid_free_probe(probe);
    }
  }
  usbClientLog.write(2, 1015, "getBlkidLookupValue(", deviceId, ",", key, "; device=", path, ")=", result);
  return result;
}

void DockhandClient::keepFailedProbe(blkid_probe probe) {
  requireLock();
  if (failedProbe_ != nullptr) {
    platform_.blkid_free_probe(failedProbe_);
  }
  failedProbe_ = probe;
}

void DockhandClient::GetDeviceUuid(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId) {
  usbClientLog.write(2, 1024, "GetDeviceUuid");
  const Lock lock(*this);
  _return.text = getBlkidLookupValue(static_cast<std::uint32_t>(deviceId), "UUID");
  _return.success = !_return.text.empty();
  if (_return.text.empty()) {
    _return.text = "0000-0000";
  }
  usbClientLog.write(2, 1036, "GetDeviceUUID(", deviceId, ")=", _return.text);
}

void DockhandClient::GetDeviceLabel(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId) {
  usbClientLog.write(2, 1046, "GetDeviceLabel");
  const Lock lock(*this);
  _return.success = findDevice(deviceId) != nullptr;
  _return.text.clear();
  if (_return.success) {
    _return.text = getBlkidLookupValue(static_cast<std::uint32_t>(deviceId), "LABEL");
  }
  if (_return.text.empty()) {
    _return.text = "NONAME";
  }
  usbClientLog.write(2, 1060, "GetDeviceLabel(", deviceId, ")=", _return.text);
}

}  // namespace Dockhand
