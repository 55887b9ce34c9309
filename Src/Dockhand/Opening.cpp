// Opening: unmounts what is in the way of a device, and mounts it.

#include <cerrno>
#include <string>

#include "DockhandClient.h"
#include "FailureJudges.h"
#include "ModuleLog.h"

namespace Dockhand {

namespace {

/// Anybody may have written a disk's label or UUID. A dot name, or a name with a slash, would lead out of the
/// directory that automounters use.
bool namesDirectoryUnderMedia(const std::string& name) {
  return name != "." && name != ".." && name.find('/') == std::string::npos;
}

}  // namespace

bool DockhandClient::OpenDevice(std::int16_t deviceId) {
  return OpenDeviceAt(deviceId, "/media/disk_" + std::to_string(deviceId), false);
}

bool DockhandClient::OpenDeviceAt(std::int16_t deviceId, const std::string& mountPoint, bool isPvrDevice) {
  usbClientLog.notice(640, "OpenDeviceAt(", deviceId, ", ", mountPoint, ", isPvrDevice=", isPvrDevice, ")");
  const HandlerLock lock(handlerMutex);
  if (isUnderRepair(deviceId)) {
    usbClientLog.error(646, "Disk repair is running, cannot open dev ", deviceId);
    return false;
  }

  CheckForAndUpdateNewDevices();
  usbClientLog.trace(652, "Number of devices in map ", deviceMap.size());
  for (const auto& [key, known] : deviceMap) {
    usbClientLog.notice(656, "OpenDeviceAt: found device[", key, "] deviceName=\"", known.deviceName,
                        "\" partitionCount=", known.partitionCount, ", deviceOpen=", known.deviceOpen,
                        ", lastUsbOperation=", known.lastUsbOperation);
  }
  UsbDeviceEntry* entry = devices_.find(deviceId);
  if (entry == nullptr || !isPluggedIn(*entry)) {
    usbClientLog.trace(669, "No such device available or device not plugged in");
    return false;
  }
  if (entry->safelyRemoved) {
    usbClientLog.warning(676, "USB device has been safely removed - remove/insert to enable further usage");
    return false;
  }

  const std::string node = GetUsbMountDevice(deviceId, false);
  usbClientLog.trace(684, "usb device to open is ", node);
  entry->deviceOpen = false;
  entry->mountPoint = mountPoint;
  entry->hidden = isPvrDevice;

  const Prober::NodeHold hold(prober_, node);
  clearAutomounts(deviceId);
  usbClientLog.trace(724, "mountPoint Name is ", mountPoint);
  CheckForAndRemoveMount(mountPoint, false);
  usbClientLog.trace(728, "mountPoint Name is ", mountPoint);

  const int mkdirStatus = platform_.mkdir(mountPoint, 0775);
  const int mkdirError = errno;
  // Says "ok" for any status, because log readers match this text. The next line has the status.
  usbClientLog.trace(733, "mkdir ok usbMountDevice.c_str() ", node);
  usbClientLog.trace(734, "mkdir status is ", mkdirStatus);

  bool mounted = false;
  if (mkdirStatus == 0 || acceptMkdirError(mkdirError)) {
    const std::string fsType = getBlkidLookupValue(static_cast<std::uint32_t>(deviceId), "TYPE");
    // A wrongly probed type, or one without a row, must not keep a mountable disk out. The judge reads the
    // errno that the last row left.
    mounted = mounts_.tryTable(node, mountPoint, fsType) || mounts_.tryTable(node, mountPoint, "") ||
              acceptMountError();
  }
  if (mounted) {
    usbClientLog.trace(770, "mount ok");
    entry->deviceOpen = true;
    return true;
  }
  usbClientLog.trace(778, "Performing rmdir for ", mountPoint);
  platform_.rmdir(mountPoint);
  return false;
}

void DockhandClient::clearAutomounts(std::int16_t deviceId) {
  ravel::rpc::ReturnValueWithString label;
  GetDeviceLabel(label, deviceId);
  if (label.success) {
    usbClientLog.trace(697, "automount - label is  ", label.text);
    if (namesDirectoryUnderMedia(label.text)) {
      CheckForAndRemoveMount("/media/" + label.text, false);
    } else {
      usbClientLog.warning(701, "automount - label names no directory under /media: ", label.text);
    }
  }

  usbClientLog.trace(706, "will do a get device UUID  ");
  ravel::rpc::ReturnValueWithString uuid;
  GetDeviceUuid(uuid, deviceId);
  if (uuid.success) {
    usbClientLog.trace(711, "automount - uuid is  ", uuid.text);
    if (namesDirectoryUnderMedia(uuid.text)) {
      CheckForAndRemoveMount("/media/" + uuid.text, false);
    } else {
      usbClientLog.warning(715, "automount - uuid names no directory under /media: ", uuid.text);
    }
  }

  CheckForAndRemoveMount("/media/disk", false);
}

}  // namespace Dockhand
