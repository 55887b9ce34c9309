#ifndef DOCKHAND_DOCKHANDCLIENT_H
#define DOCKHAND_DOCKHANDCLIENT_H

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <boost/thread/lock_types.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <cstdint>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "Platform.h"
#include "TUnixSocket.h"
#include "UsbDeviceEntry.h"
#include "corvane_rpc_gen_.h"
#include "thrift_client.h"
#include "usb_rpc_gen_.h"

namespace Dockhand {

/// The handler: the one object that answers the 25 operations of the USB service and owns all that the
/// service knows. What each operation means to a caller is said in rpc/usb_rpc.thrift.
///
/// Threads: the operations may be called by any number of threads at once. Each takes handlerMutex for its
/// whole run, system calls and shell commands included, so that they exclude one another; the exceptions are
/// - OpenDevice, which leaves the locking to OpenDeviceAt;
/// - RunDiskRepair, which locks only to look the device up, so that others are served during a long repair;
/// - the four Notify operations, which hold no lock while they call observers, so that an observer may call
/// back.
///
/// Operations call one another on the same object, through the virtual table and with the lock held;
/// therefore the lock is recursive.
class DockhandClient : public ravel::rpc::usb_rpc_gen_If {
 public:
  /// Scans for the devices that are plugged in already. Does not connect to the media service. `platform`
  /// must outlive the handler.
  explicit DockhandClient(Platform& platform);
  DockhandClient(const DockhandClient&) = delete;
  DockhandClient& operator=(const DockhandClient&) = delete;
  ~DockhandClient() override;

  // The operations, in the order of the interface.

  void NotifyUsbAdded(const std::string& usbDevice) override;
  void NotifyUsbRemoved(const std::string& usbDevice) override;
  void NotifyUsbXriteAdded() override;
  void NotifyUsbXriteRemoved() override;
  void GetListOfInsertedDevices(std::vector<std::int16_t>& _return, bool includeHidden) override;
  bool OpenDevice(std::int16_t deviceId) override;
  bool OpenDeviceAt(std::int16_t deviceId, const std::string& mountPoint, bool isPvrDevice) override;
  bool CloseDevice(std::int16_t deviceId) override;
  bool CloseDeviceSafeRemoval(std::int16_t deviceId) override;
  bool IsDeviceOpen(std::int16_t deviceId) override;
  void GetDeviceLabel(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId) override;
  void GetDeviceUuid(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId) override;
  void GetDeviceUsbVersion(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId) override;
  std::int32_t GetDeviceType(std::int16_t deviceId) override;
  std::int32_t GetDeviceCapacity(std::int16_t deviceId) override;
  bool RunDiskRepair(std::int16_t deviceId) override;
  void GetUsbMountPoint(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId) override;
  void GetUsbPhysicalDevice(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId) override;
  void GetFilesByExtension(std::vector<std::string>& _return, std::int16_t deviceId,
                           const std::string& directory, const std::string& extension) override;
  void RegisterUsbAddedCallBack(std::int8_t observerId, std::int32_t observer) override;
  void RegisterUsbRemovedCallBack(std::int8_t observerId, std::int32_t observer) override;
  void DeregisterUsbAddedCallBack(std::int8_t observerId, std::int32_t observer) override;
  void DeregisterUsbRemovedCallBack(std::int8_t observerId, std::int32_t observer) override;
  void CheckForAndUpdateNewDevices() override;
  bool PrepareDeviceForPvr(std::int16_t deviceId) override;

 protected:
  using MediaServiceStub = ravel::rpc::corvane_rpc_gen_Client;
  using MediaClient = ravel::rpc::thrift_client<MediaServiceStub, 9014, ravel::rpc::TUnixSocket>;
  /// One of the media service's two operations.
  using Callback = void (MediaServiceStub::*)(std::int16_t deviceId, std::int8_t observerId,
                                              std::int32_t observer);
  /// Observer number to observer. The numbers are ordered as signed values, and observers are called in this
  /// order.
  using ObserverTable = std::map<std::int8_t, std::int32_t>;

  /// The one observer that the Xrite notifications call, and that the storage notifications leave out.
  static constexpr std::int8_t xriteObserverId = 7;

  /// Holds handlerMutex while it lives, and keeps note of the owner for requireLock.
  class Lock {
   public:
    explicit Lock(DockhandClient& client);
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    ~Lock();

   private:
    DockhandClient& client_;
    boost::unique_lock<boost::recursive_mutex> lock_;
  };

  /// What a repair needs to know of a device.
  struct PartitionInfo {
    /// File-system type as libblkid names it; empty when unknown.
    std::string fsType;
    /// The node that is mounted.
    std::string mountDevice;
    bool deviceOpen = false;
  };

  // Below, "lock held" means that the caller holds handlerMutex; a debug build checks it.

  /// Stops a debug build whose calling thread does not hold handlerMutex.
  void requireLock() const;

  /// The record of a device number, or null. A negative number is widened to a key that no record has. Lock
  /// held.
  UsbDeviceEntry* findDevice(std::int16_t deviceId);

  // Discovery.cpp

  /// Gives the record of a newly seen device the smallest free number of 1 or more. Lock held.
  void insertDevice(const std::string& deviceName, const std::string& deviceNumber);
  /// Erases records whose node the scan did not see. Lock held.
  void eraseVanishedDevices();

  // Closing.cpp

  /// Unmounts a device and marks it as not open, and with `safeRemoval` as safely removed. False, and nothing
  /// changed, for an unknown device, one that is not mounted and one that cannot be unmounted. Lock held.
  bool releaseDevice(std::int16_t deviceId, bool safeRemoval);
  /// Unmounts what is mounted at `mountPath` (with `lazy`: detaches it, files in use or not) and removes the
  /// directory. False only when unmounting failed. Sees no further than the first 1024 bytes of the mount
  /// table: what is mounted beyond them counts as not mounted. Lock held.
  bool CheckForAndRemoveMount(const std::string& mountPath, bool lazy);
  /// Path of a device's node: its first partition, or the disk itself where it has none or `wholeDisk` is
  /// set. Empty for an unknown device. Takes the lock.
  std::string GetUsbMountDevice(std::int16_t deviceId, bool wholeDisk);

  // Opening.cpp

  /// Keeps the node of the device that is being opened open while it lives, or until letNodeGo: the kernel
  /// forgets what it has read of a disk when the last descriptor goes, and each of the three probes of an
  /// opening would read the stick anew. Whether the node can be opened is the probes' affair. Lock held.
  class NodeHold {
   public:
    NodeHold(DockhandClient& client, const std::string& node);
    NodeHold(const NodeHold&) = delete;
    NodeHold& operator=(const NodeHold&) = delete;
    ~NodeHold() { client_.letNodeGo(); }

   private:
    DockhandClient& client_;
  };
  /// Closes the node of a NodeHold, if one is open. Lock held.
  void letNodeGo();
  /// Clears the directories under /media at which an automounter, or an earlier life of a device, may have
  /// left this device mounted. Lock held.
  void clearAutomounts(std::int16_t deviceId);
  /// Mounts with the first row of the mount table that works; an empty `fsType` tries them all. On failure
  /// errno is that of the last row tried. Lock held.
  bool mountByTable(const std::string& node, const std::string& mountPoint, const std::string& fsType);

  // Probing.cpp

  /// What libblkid reads from a device's file system for "LABEL", "UUID" or "TYPE". Empty when the device is
  /// unknown, cannot be read, or has no such value of two characters or more. Lock held.
  std::string getBlkidLookupValue(std::uint32_t deviceId, const char* key);
  /// Takes over a probe whose read failed, in place of the one before it. Lock held.
  void keepFailedProbe(blkid_probe probe);
  /// Fills `info` for a known device; false, and `info` untouched, for an unknown one. Takes the lock.
  bool GetPartitionInfo(std::int16_t deviceId, PartitionInfo& info);

  // HotPlug.cpp

  /// The device that the kernel calls `usbDevice`, or deviceMap.end(). Lock held.
  std::map<std::uint32_t, UsbDeviceEntry>::iterator findByKernelName(const std::string& usbDevice);
  /// True when the beginning of the kernel's list of partitions holds the name exactly once. Lock held.
  bool isListedOnce(const std::string& usbDevice);
  /// Has the media service call one observer, and waits for its answer. Throws what the RPC library throws
  /// when the service cannot be reached or answers with a failure. Lock NOT held: the observer may call back.
  void callObserver(Callback callback, std::int16_t deviceId, std::int8_t observerId, std::int32_t observer);

  // ShellRunner.cpp

  /// Runs a command line (without redirections) in the shell, with its output in /tmp/Dockhand.log, and
  /// passes that file to the system log when the command fails, with `passLogAlways` also when it succeeds.
  /// `sourceLine` tells readers of the log which step ran it. Returns the raw status of system(): 0 is
  /// success. Where that file is not ours to write, the command is not run: the status is -1 then, as for a
  /// failed fork, and `*wasRun` (if not null) false. Takes no lock and needs none.
  int executeShellCommand(const std::string& command, int sourceLine, bool passLogAlways,
                          bool* wasRun = nullptr);
  /// Before the shell writes to a file in /tmp: sees to it that the file is ours and no user's. False, and
  /// logged, where that cannot be had: the command must not be run. Takes no lock and needs none.
  bool claimForShell(const std::string& file);
  /// Unmounts a node by force, up to ten times, to peel off stacked mounts. Each success is logged with the
  /// text and the line number given. Takes no lock and needs none.
  void forceUnmount(const std::string& node, int sourceLine, const char* occasion);

  // PvrPreparation.cpp

  /// Partitions and formats the disk of a known device. True when both have succeeded. Lock held.
  bool prepareDisk(std::int16_t deviceId, const UsbDeviceEntry& entry);
  /// The label that the recording disk is to have, as it stands in the shell command. Lock held.
  std::string pvrLabel(std::int16_t deviceId, bool deviceOpen);
  /// Lock held.
  void setPvrPreparationRunning(bool running);
  /// Needs no lock.
  bool isPvrPreparationRunning() const;

  // DiskRepair.cpp

  /// Repairs an XFS file system. True when it is sound now. Needs no lock.
  bool repair(const std::string& mountDevice);
  /// Mounts and unmounts an XFS file system once, so that the kernel replays its journal. Needs no lock.
  void replayJournal(const std::string& mountDevice);
  /// Announces a repair; false when one is running already. Needs no lock.
  bool beginRepair(std::int16_t deviceId);
  void endRepair();
  /// Needs no lock.
  bool isUnderRepair(std::int16_t deviceId) const;

  ObserverTable addedObservers;
  ObserverTable removedObservers;
  /// Guards the members above and deviceMap.
  boost::recursive_mutex handlerMutex;
  /// All known devices by device number.
  std::map<std::uint32_t, UsbDeviceEntry> deviceMap;
  /// Shared by all threads without the lock.
  boost::shared_ptr<MediaClient> mediaClient;
  /// Set under the lock; read without it by the notifications, which must not wait for the preparation to
  /// end.
  bool pvrPreparationRunning = false;
  /// These two are set and read without the lock: a repair is announced to others, not kept from them.
  bool diskRepairRunning = false;
  std::int16_t diskRepairDeviceId = 0;

 private:
  Platform& platform_;
  /// The last probe whose read failed. It is left alone until the next one fails, then freed.
  blkid_probe failedProbe_ = nullptr;
  /// The open node of a NodeHold; -1 while there is none.
  int heldNode_ = -1;
  /// Who holds handlerMutex, and how often.
  std::atomic<std::thread::id> lockOwner_{std::thread::id()};
  int lockDepth_ = 0;
};

}  // namespace Dockhand

#endif  // DOCKHAND_DOCKHANDCLIENT_H
