#ifndef DOCKHAND_DEVICES_H
#define DOCKHAND_DEVICES_H

#include <cstdint>
#include <map>
#include <string>

#include "UsbDeviceEntry.h"

namespace Dockhand {

/// All known devices by device number.
using DeviceMap = std::map<std::uint32_t, UsbDeviceEntry>;

/// Keeps the device map: finds records, numbers new ones, and follows a scan of the nodes.
///
/// Threads: one at a time; the handler's lock guards the map.
class Devices {
 public:
  /// `map` must outlive this object.
  explicit Devices(DeviceMap& map) : map_(map) {}

  /// The record of a device number, or null. A negative number is widened to a key that no record has.
  UsbDeviceEntry* find(std::int16_t deviceId) { return findKey(static_cast<std::uint32_t>(deviceId)); }
  /// The record of a key, or null.
  UsbDeviceEntry* findKey(std::uint32_t key);
  /// The first device that the kernel calls `name`, or the end of the map.
  DeviceMap::iterator findByKernelName(const std::string& name);

  /// Marks every record as not seen and without a partition. A scan begins with it.
  void beginScan();
  /// Marks the records of a device as seen, and with `isPartition` as partitioned. False if there is none.
  bool markSeen(const std::string& deviceName, bool isPartition);
  /// Gives the record of a new device the smallest free number of 1 or more. `deviceNumber` holds the digits
  /// of its node; without digits the device counts as not partitioned.
  void insert(const std::string& deviceName, const std::string& deviceNumber);
  /// Erases records that the scan did not see. What is mounted stays mounted.
  void eraseUnseen();

 private:
  DeviceMap& map_;
};

}  // namespace Dockhand

#endif  // DOCKHAND_DEVICES_H
