#ifndef DOCKHAND_USBDEVICEENTRY_H
#define DOCKHAND_USBDEVICEENTRY_H

#include <cstdint>
#include <string>

namespace Dockhand {

/// The last hot-plug notification about a device.
enum UsbOperation : std::int32_t {
  UsbOperationNone = 0,     ///< none since the record was made
  UsbOperationAdded = 1,    ///< announced as added
  UsbOperationRemoved = 2,  ///< announced as removed: the hardware is gone, so a later unmount is forced
};

/// What Dockhand knows of one USB mass-storage device: the value of the device map, under its device number.
///
/// The life of a record, and who moves it:
///
///     found      a scan of /dev sees a node of a device that no record has           (Discovery.cpp)
///     announced  lastUsbOperation becomes Added; its observers are called            (HotPlug.cpp)
///     open       deviceOpen and mountPoint are set: mounted, any number of times     (Opening.cpp)
///     released   deviceOpen and mountPoint are cleared together: unmounted           (Closing.cpp)
///     hidden     safelyRemoved is set with a release on the user's behalf: neither
///                listed nor opened until it is pulled out and plugged in             (Closing.cpp)
///     removed    lastUsbOperation becomes Removed; unmounted by force, then erased   (HotPlug.cpp)
///     erased     a scan no longer sees its node; whatever is mounted stays mounted   (Discovery.cpp)
///
/// Erasing a record frees its device number. A new device gets the smallest free number.
struct UsbDeviceEntry {
  /// Kernel name of the whole disk: its letters only (sdb for the node usb_storage_sdb1).
  std::string deviceName;
  /// 1 if the last scan saw a node with digits after the letters, else 0. Never a real count.
  std::uint32_t partitionCount = 0;
  /// The last opening counted as done, with or without a mount, and no closing did after it.
  bool deviceOpen = false;
  /// The scan that is running, or else the last one, saw a node of this device.
  bool foundInScan = false;
  /// Closed for safe removal. Stays until the record is erased or first announced; a repeated announcement is
  /// ignored.
  bool safelyRemoved = false;
  /// Where it is mounted, or where a failed opening was to mount it. Empty: nowhere.
  std::string mountPoint;
  UsbOperation lastUsbOperation = UsbOperationNone;
  /// Last opened as a recording disk, and so listed only on request.
  bool hidden = false;
};

/// The kernel's name of the block device that is mounted and announced: the first partition (sdb1) where
/// there is one, else the whole disk (sdb).
inline std::string kernelName(const UsbDeviceEntry& entry) {
  return entry.partitionCount != 0 ? entry.deviceName + '1' : entry.deviceName;
}

/// The node of the whole disk.
inline std::string diskNode(const UsbDeviceEntry& entry) {
  return "/dev/usb_storage_" + entry.deviceName;
}

/// The node that is probed and mounted: the first partition, or the whole disk if it has none.
inline std::string mountNode(const UsbDeviceEntry& entry) {
  return "/dev/usb_storage_" + kernelName(entry);
}

/// A device that was not announced as removed may be listed and opened.
inline bool isPluggedIn(const UsbDeviceEntry& entry) {
  return entry.lastUsbOperation == UsbOperationNone || entry.lastUsbOperation == UsbOperationAdded;
}

/// What a repair needs to know of a device.
struct PartitionInfo {
  /// File-system type as libblkid names it; empty if unknown.
  std::string fsType;
  /// The node that is mounted.
  std::string mountDevice;
  bool deviceOpen = false;
};

}  // namespace Dockhand

#endif  // DOCKHAND_USBDEVICEENTRY_H
