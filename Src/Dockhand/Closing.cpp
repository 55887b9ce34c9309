// Closing: unmounts devices, and clears mounts that nobody answers for any more.

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "DockhandClient.h"
#include "ModuleLog.h"

namespace Dockhand {

namespace {

/// The field of the kernel's mount table that a path makes there, with the blank that ends it, lest a path be
/// found in a longer one.
std::string mountTableField(const std::string& path) {
  std::string field;
  for (const char c : path) {
    if (c == ' ') {
      field += "\\040";
    } else {
      field += c;
    }
  }
  return field + ' ';
}

}  // namespace

bool DockhandClient::IsDeviceOpen(std::int16_t deviceId) {
  const Lock lock(*this);
  usbClientLog.write(2, 792, "IsDeviceOpen(", deviceId, ")");
  const UsbDeviceEntry* entry = findDevice(deviceId);
  if (entry == nullptr) {
    usbClientLog.write(2, 797, "No such device available!");
    return false;
  }
  return entry->deviceOpen;
}

bool DockhandClient::CloseDevice(std::int16_t deviceId) {
  usbClientLog.write(2, 806, "CloseDevice(", deviceId, ")");
  const Lock lock(*this);
  return releaseDevice(deviceId, false);
}

bool DockhandClient::CloseDeviceSafeRemoval(std::int16_t deviceId) {
  usbClientLog.write(2, 816, "CloseDeviceSafeRemoval(", deviceId, ")");
  const Lock lock(*this);
  return releaseDevice(deviceId, true);
}

bool DockhandClient::releaseDevice(std::int16_t deviceId, bool safeRemoval) {
  requireLock();
  UsbDeviceEntry* entry = findDevice(deviceId);
  if (entry == nullptr) {
    usbClientLog.write(2, 834, "No such device available!");
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
  requireLock();
  const std::string field = mountTableField(mountPath);
  usbClientLog.write(2, 506, "CheckForAndRemoveMount: ", field);

  const int mountTable = platform_.open("/proc/mounts", O_RDONLY);
  if (mountTable >= 0) {
    std::array<char, 1024> text;
    const ssize_t size = platform_.read(mountTable, text.data(), text.size());
    const std::string_view mounts(text.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
    bool unmounted = true;
    if (mounts.find(field) != std::string_view::npos) {
      usbClientLog.write(2, 521, "Performing unmount for ", mountPath);
      // A file system may write past what the kernel keeps for a descriptor of ours: probe anew after it.
      letNodeGo();
      if (platform_.umount2(mountPath, lazy ? MNT_DETACH : 0) != 0) {
        const int error = errno;
        usbClientLog.write(4, 528, "umount2(", mountPath, ") failed, errno=", error, "=",
                           std::strerror(error));
        unmounted = false;
      }
    }
    platform_.close(mountTable);
    if (!unmounted) {
      return false;
    }
  }

  if (platform_.access(mountPath, F_OK) == 0) {
    usbClientLog.write(2, 541, "Performing rmdir for ", mountPath);
    if (platform_.rmdir(mountPath) != 0) {
      const int error = errno;
      usbClientLog.write(4, 545, "Ignored rmdir(", mountPath, ") failed, errno=", error, "=",
                         std::strerror(error));
    }
  }
  return true;
}

std::string DockhandClient::GetUsbMountDevice(std::int16_t deviceId, bool wholeDisk) {
  usbClientLog.write(2, 1152, "GetUsbMountDevice");
  const Lock lock(*this);
  const UsbDeviceEntry* entry = findDevice(deviceId);
  if (entry == nullptr) {
    return {};
  }
  return "/dev/usb_storage_" + (wholeDisk ? entry->deviceName : kernelName(*entry));
}

}  // namespace Dockhand
