#ifndef DOCKHAND_DOCKHANDCLIENT_H
#define DOCKHAND_DOCKHANDCLIENT_H

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Devices.h"
#include "HandlerMutex.h"
#include "Mounts.h"
#include "Platform.h"
#include "Prober.h"
#include "Shell.h"
#include "TUnixSocket.h"
#include "corvane_rpc_gen_.h"
#include "thrift_client.h"
#include "usb_rpc_gen_.h"

namespace Dockhand {

/// The handler: one object performs the 25 operations of the USB service and owns its state.
/// rpc/usb_rpc.thrift describes each operation to its callers.
///
/// Threads: any. Each operation holds handlerMutex for its whole run, system calls and shell commands
/// included, so operations exclude one another. Exceptions:
/// - OpenDevice leaves the locking to OpenDeviceAt.
/// - RunDiskRepair locks only to look the device up, so that other calls are served during a long repair.
/// - The four notifications hold no lock while they call observers, so that an observer may call back.
/// The lock is recursive, because operations call one another through the virtual table while they hold it.
class DockhandClient : public ravel::rpc::usb_rpc_gen_If {
 public:
  /// Scans for devices that are already plugged in. Does not connect to the media service. `platform` must
  /// outlive the handler.
  explicit DockhandClient(Platform& platform);
  DockhandClient(const DockhandClient&) = delete;
  DockhandClient& operator=(const DockhandClient&) = delete;
  ~DockhandClient() override;

  // HotPlug.cpp
  void NotifyUsbAdded(const std::string& usbDevice) override EXCLUDES(handlerMutex);
  void NotifyUsbRemoved(const std::string& usbDevice) override EXCLUDES(handlerMutex);
  void NotifyUsbXriteAdded() override EXCLUDES(handlerMutex);
  void NotifyUsbXriteRemoved() override EXCLUDES(handlerMutex);
  // ObserverTables.cpp
  void RegisterUsbAddedCallBack(std::int8_t observerId, std::int32_t observer) override;
  void RegisterUsbRemovedCallBack(std::int8_t observerId, std::int32_t observer) override;
  void DeregisterUsbAddedCallBack(std::int8_t observerId, std::int32_t observer) override;
  void DeregisterUsbRemovedCallBack(std::int8_t observerId, std::int32_t observer) override;
  // Discovery.cpp
  void CheckForAndUpdateNewDevices() override;
  // Opening.cpp
  bool OpenDevice(std::int16_t deviceId) override;
  bool OpenDeviceAt(std::int16_t deviceId, const std::string& mountPoint, bool isPvrDevice) override;
  // Closing.cpp
  bool CloseDevice(std::int16_t deviceId) override;
  bool CloseDeviceSafeRemoval(std::int16_t deviceId) override;
  // Queries.cpp
  void GetListOfInsertedDevices(std::vector<std::int16_t>& _return, bool includeHidden) override;
  bool IsDeviceOpen(std::int16_t deviceId) override;
  void GetDeviceLabel(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId) override;
  void GetDeviceUuid(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId) override;
  void GetDeviceUsbVersion(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId) override;
  std::int32_t GetDeviceType(std::int16_t deviceId) override;
  std::int32_t GetDeviceCapacity(std::int16_t deviceId) override;
  void GetUsbMountPoint(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId) override;
  void GetUsbPhysicalDevice(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId) override;
  // FileSearch.cpp
  void GetFilesByExtension(std::vector<std::string>& _return, std::int16_t deviceId,
                           const std::string& directory, const std::string& extension) override;
  // PvrPreparation.cpp
  bool PrepareDeviceForPvr(std::int16_t deviceId) override;
  // DiskRepair.cpp
  bool RunDiskRepair(std::int16_t deviceId) override EXCLUDES(handlerMutex);

 protected:
  using MediaServiceStub = ravel::rpc::corvane_rpc_gen_Client;
  using MediaClient = ravel::rpc::thrift_client<MediaServiceStub, 9014, ravel::rpc::TUnixSocket>;
  /// From observer number to observer. Notifications call observers in the order of their signed numbers.
  using ObserverTable = std::map<std::int8_t, std::int32_t>;

  // Closing.cpp
  /// Unmounts a device and marks it as not open, with `safeRemoval` also as safely removed. False, with
  /// nothing changed, if the device is unknown, is not mounted or cannot be unmounted.
  bool releaseDevice(std::int16_t deviceId, bool safeRemoval) REQUIRES(handlerMutex);
  /// See Mounts::clear.
  bool CheckForAndRemoveMount(const std::string& mountPath, bool lazy) REQUIRES(handlerMutex);
  // Queries.cpp
  /// The node of a device: its first partition, or the disk itself if it has none or `wholeDisk` is set.
  /// Empty for an unknown device. Takes the lock.
  std::string GetUsbMountDevice(std::int16_t deviceId, bool wholeDisk);
  /// See Prober::lookUp. Also empty for an unknown device.
  std::string getBlkidLookupValue(std::uint32_t deviceId, const char* key) REQUIRES(handlerMutex);
  // Opening.cpp
  /// Clears the directories under /media where this device may still be mounted: by an automounter, or from
  /// before it was last plugged in.
  void clearAutomounts(std::int16_t deviceId) REQUIRES(handlerMutex);
  // HotPlug.cpp
  enum class Audience { storage, xrite };
  using CallObserver = std::function<void(std::int8_t observerId, std::int32_t observer)>;
  /// Calls each observer of an audience, then takes the lock once. Throws what a call throws.
  void callObservers(ObserverTable observers, Audience audience, const CallObserver& callObserver)
      EXCLUDES(handlerMutex);
  // PvrPreparation.cpp
  /// See Shell::run.
  int executeShellCommand(const std::string& command, int sourceLine, bool passLogAlways,
                          bool* wasRun = nullptr);
  /// Partitions and formats the disk of a known device. True if both succeed.
  bool prepareDisk(std::int16_t deviceId, const UsbDeviceEntry& entry) REQUIRES(handlerMutex);
  /// The label for the recording disk, escaped for the shell command.
  std::string pvrLabel(std::int16_t deviceId, bool deviceOpen) REQUIRES(handlerMutex);
  void setPvrPreparationRunning(bool running) REQUIRES(handlerMutex);
  bool isPvrPreparationRunning() const;
  // DiskRepair.cpp
  /// False, and `info` untouched, for an unknown device. Takes the lock.
  bool GetPartitionInfo(std::int16_t deviceId, PartitionInfo& info);
  /// Repairs an XFS file system. True if it is sound now.
  bool repair(const std::string& mountDevice);
  /// Advertises a repair. False if one is already running.
  bool beginRepair(std::int16_t deviceId);
  void endRepair();
  bool isUnderRepair(std::int16_t deviceId) const;

  ObserverTable addedObservers GUARDED_BY(handlerMutex);
  ObserverTable removedObservers GUARDED_BY(handlerMutex);
  HandlerMutex handlerMutex;
  DeviceMap deviceMap GUARDED_BY(handlerMutex);
  /// Shared by all threads without the lock.
  boost::shared_ptr<MediaClient> mediaClient;
  /// Set under the lock, and read without it by the notifications, which must not wait for a preparation.
  bool pvrPreparationRunning = false;
  /// Set and read without the lock: they advertise a repair, they exclude nobody.
  bool diskRepairRunning = false;
  std::int16_t diskRepairDeviceId = 0;

 private:
  Platform& platform_;
  const Shell shell_;
  Devices devices_ GUARDED_BY(handlerMutex);
  Prober prober_ GUARDED_BY(handlerMutex);
  Mounts mounts_ GUARDED_BY(handlerMutex);
};

}  // namespace Dockhand

#endif  // DOCKHAND_DOCKHANDCLIENT_H
