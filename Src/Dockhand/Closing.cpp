// Closing: unmounts devices.

#include "DockhandClient.h"
#include "ModuleLog.h"

namespace Dockhand {

bool DockhandClient::CloseDevice(std::int16_t deviceId) {
  usbClientLog.trace(806, "CloseDevice(", deviceId, ")");
  const HandlerLock lock(handlerMutex);
  return releaseDevice(deviceId, false);
}

bool DockhandClient::CloseDeviceSafeRemoval(std::int16_t deviceId) {
  usbClientLog.trace(816, "CloseDeviceSafeRemoval(", deviceId, ")");
  const HandlerLock lock(handlerMutex);
  return releaseDevice(deviceId, true);
}

bool DockhandClient::releaseDevice(std::int16_t deviceId, bool safeRemoval) {
  UsbDeviceEntry* entry = devices_.find(deviceId);
  if (entry == nullptr) {
    usbClientLog.trace(834, "No such device available!");
    return false;
  }
  if (entry->mountPoint.empty()) {
    return false;
  }
  const bool hardwareIsGone = entry->lastUsbOperation == UsbOperationRemoved;
  if (!CheckForAndRemoveMount(entry->mountPoint, hardwareIsGone)) {
    return false;
  }
  entry->deviceOpen = false;
  entry->mountPoint.clear();
  entry->safelyRemoved = entry->safelyRemoved || safeRemoval;
  return true;
}

bool DockhandClient::CheckForAndRemoveMount(const std::string& mountPath, bool lazy) {
  return mounts_.clear(mountPath, lazy);
}

}  // namespace Dockhand
