#ifndef DOCKHANDCTL_DEVICE_H
#define DOCKHANDCTL_DEVICE_H

#include <cstdint>
#include <optional>
#include <string>

#include "Json.h"
#include "Mounts.h"
#include "UsbService.h"

namespace dockhandctl {

/// All that the daemon says about a device, and where the kernel has it mounted; texts as the disk has them.
struct Device {
  std::int16_t number = 0;
  std::string kernelName;
  std::string label;
  std::optional<std::string> uuid;
  std::string type;
  std::int32_t capacity = 0;  ///< MiB; 0: unknown
  std::optional<std::string> usbVersion;
  bool open = false;
  std::string mountPoint;  ///< Empty unless it is open.
  Mounted mounted;
};

/// The end of a complaint about what is still mounted.
constexpr auto unmountFirst = "; unmount it (umount) before it is pulled out";

/// Where the mount table says something else than the daemon, and what to do then; empty: nowhere.
std::string contradiction(const Device& device);

/// The whole disk that a device is on: sda for sda and sda1.
std::string diskName(const std::string& kernelName);

/// "device 5".
std::string nameOf(std::int16_t device);

/// The device's kernel name. Throws Failure (noSuchDevice), naming those that there are, when the daemon does
/// not know the device even after a rescan.
std::string requireDevice(UsbService& service, std::int16_t device);

/// Throws Failure (noSuchDevice) for an unknown device, and as readMounted().
Device readDevice(UsbService& service, std::int16_t number);

/// As readDevice(), but kernel name, openness and mounts only, which need no look at the disk. A device that
/// is not open has the directory of a failed opening.
Device readMountState(UsbService& service, std::int16_t number);

/// What the number of GetDeviceType means: "fixed", "removable" or "unknown".
std::string typeName(std::int32_t type);

/// "15267 MiB", or "unknown" for 0.
std::string capacityText(std::int32_t capacity);

Json toJson(const Device& device);

/// Complains of a contradiction. Returns the exit code of a command that shows this device.
int complainOfContradiction(const Device& device);

}  // namespace dockhandctl

#endif  // DOCKHANDCTL_DEVICE_H
