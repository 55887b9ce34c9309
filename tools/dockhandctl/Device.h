#ifndef DOCKHANDCTL_DEVICE_H
#define DOCKHANDCTL_DEVICE_H

#include <cstdint>
#include <optional>
#include <string>

#include "Json.h"
#include "Mounts.h"
#include "UsbService.h"

namespace dockhandctl {

/// What the daemon says about a device, and where the kernel has it mounted. Texts are bytes as on the disk.
struct Device {
  std::int16_t number = 0;
  std::string kernelName;
  std::string label;
  std::optional<std::string> uuid;
  std::string type;
  std::int32_t capacity = 0;  ///< MiB; 0 if unknown.
  std::optional<std::string> usbVersion;
  bool open = false;
  std::string mountPoint;  ///< Empty unless it is open.
  Mounted mounted;
};

/// The end of a message about a remaining mount.
constexpr auto unmountFirst = "; unmount it (umount) before it is pulled out";

/// How the mount table differs from what the daemon says, and what to do then. Empty if it does not differ.
std::string contradiction(const Device& device);

/// The whole disk of a device: sda for sda and sda1.
std::string diskName(const std::string& kernelName);

/// "device 5".
std::string nameOf(std::int16_t device);

/// The device's kernel name. Rescans if the daemon does not know the device. If it still does not, throws
/// Failure (noSuchDevice), which names the known devices.
std::string requireDevice(UsbService& service, std::int16_t device);

/// Throws Failure: noSuchDevice for an unknown device, and like readMounted().
Device readDevice(UsbService& service, std::int16_t number);

/// Like readDevice(), but only with the kernel name, whether it is open, and its mounts. None of these reads
/// the disk. The mount point of a device that is not open is that of its failed opening.
Device readMountState(UsbService& service, std::int16_t number);

/// The result of GetDeviceType as a word: "fixed", "removable" or "unknown".
std::string typeName(std::int32_t type);

/// "15267 MiB", or "unknown" for 0.
std::string capacityText(std::int32_t capacity);

Json toJson(const Device& device);

/// Complains about a contradiction, if any. Returns the exit code of a command that shows this device.
int complainOfContradiction(const Device& device);

}  // namespace dockhandctl

#endif  // DOCKHANDCTL_DEVICE_H
