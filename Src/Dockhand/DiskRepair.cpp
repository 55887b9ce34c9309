// Repair of a recording disk: XFS only, and only while it is not open.

#include "DockhandClient.h"
#include "ModuleLog.h"

namespace Dockhand {

bool DockhandClient::RunDiskRepair(std::int16_t deviceId) {
  usbClientLog.trace(1187, "RunDiskRepair(", deviceId, ")");
  PartitionInfo partition;
  bool repaired = false;
  if (!GetPartitionInfo(deviceId, partition)) {
    usbClientLog.error(1194, "RunDiskRepair(", deviceId, ") - Unknown device!");
  } else if (partition.deviceOpen) {
    usbClientLog.error(1260, "RunDiskRepair(", deviceId, ") - device open!");
  } else if (partition.fsType != "xfs") {
    usbClientLog.warning(1255, "repair not supported for: ", partition.fsType);
  } else if (!beginRepair(deviceId)) {
    usbClientLog.error(1201, "RunDiskRepair(", deviceId, ") - repair already running!");
  } else {
    // Ends the repair even if a step throws. Otherwise no repair could ever start again.
    struct EndOfRepair {
      DockhandClient& client;
      ~EndOfRepair() { client.endRepair(); }
    };
    const EndOfRepair endOfRepair{*this};
    repaired = repair(partition.mountDevice);
  }
  usbClientLog.notice(1263, "xfs_repair ", repaired ? "PASSED" : "FAILED");
  return repaired;
}

bool DockhandClient::GetPartitionInfo(std::int16_t deviceId, PartitionInfo& info) {
  usbClientLog.trace(952, "GetPartitionInfo(", deviceId, ")");
  const HandlerLock lock(handlerMutex);
  const UsbDeviceEntry* entry = devices_.find(deviceId);
  if (entry == nullptr) {
    usbClientLog.error(965, "GetPartitionInfo(", deviceId, ") - Unknown device!");
    return false;
  }
  info.fsType = getBlkidLookupValue(static_cast<std::uint32_t>(deviceId), "TYPE");
  info.mountDevice = GetUsbMountDevice(deviceId, false);
  info.deviceOpen = entry->deviceOpen;
  return true;
}

bool DockhandClient::repair(const std::string& mountDevice) {
  replayJournal(platform_, mountDevice);
  shell_.forceUnmount(mountDevice, 1237, "");
  bool wasRun = false;
  if (executeShellCommand("xfs_repair " + mountDevice, 1241, true, &wasRun) == 0) {
    return true;
  }
  // -L discards the journal. So run it only after a repair that ran and failed, not after one that did not
  // run.
  return wasRun && executeShellCommand("xfs_repair -L " + mountDevice, 1248, true) == 0;
}

// Set and read without the handler's lock: opening checks them, and nothing waits for them. The exchange
// admits one repair only: two would share the mount point, and the first to end would clear the other's flag.

bool DockhandClient::beginRepair(std::int16_t deviceId) {
  if (__atomic_exchange_n(&diskRepairRunning, true, __ATOMIC_ACQ_REL)) {
    return false;
  }
  __atomic_store_n(&diskRepairDeviceId, deviceId, __ATOMIC_RELEASE);
  return true;
}

void DockhandClient::endRepair() {
  __atomic_store_n(&diskRepairDeviceId, std::int16_t{0}, __ATOMIC_RELEASE);
  __atomic_store_n(&diskRepairRunning, false, __ATOMIC_RELEASE);
}

bool DockhandClient::isUnderRepair(std::int16_t deviceId) const {
  return __atomic_load_n(&diskRepairRunning, __ATOMIC_ACQUIRE) &&
         __atomic_load_n(&diskRepairDeviceId, __ATOMIC_ACQUIRE) == deviceId;
}

}  // namespace Dockhand
