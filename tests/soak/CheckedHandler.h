#ifndef DOCKHAND_TESTS_SOAK_CHECKEDHANDLER_H
#define DOCKHAND_TESTS_SOAK_CHECKEDHANDLER_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "DockhandClient.h"
#include "FaultyPlatform.h"
#include "Model.h"
#include "World.h"

namespace soak {

/// A handler that compares each of its operations with the model, while calls to the system fail at random.
///
/// An operation is one step of the model. Its turn begins with its first call to the system, which it makes
/// under the handler's lock. Its turn ends after the comparison. So the steps of the model have the order of
/// the operations under the lock, and no lock is held longer than the handler itself holds it. A removal may
/// make no call at all: its turn begins with the log line that it writes under the lock. The beginning of a
/// turn compares the whole table of devices. The end of a turn compares the calls, the mounts, the
/// directories and the reply.
///
/// An operation that makes no call has no turn. It queries a device that only its own client changes, so its
/// reply can be compared later.
class CheckedHandler : public Dockhand::DockhandClient {
 public:
  CheckedHandler(World& world, FaultyPlatform& platform, std::uint64_t seed);

  /// Called by the platform: records the call in the running operation, and returns its errno or 0.
  static int decide(const std::string& call);

  // These change the world and the model together.

  void plug(const Stick& stick);
  void unplug(const Stick& stick);
  /// Mounts a stick where an automounter would.
  void automount(const Stick& stick, const std::string& directory);
  /// Fills the mount table with other lines. Nothing may be mounted under /media.
  void fillMountTable(std::size_t size);

  // These read the model.

  /// The number and record of a stick, if it has one.
  std::optional<std::pair<std::int16_t, Record>> recordOf(const Stick& stick);
  /// The mounts and directories under /media.
  std::vector<std::string> placesInUse();

  /// Sets whether calls fail from now on.
  void setFaults(bool wanted) { faultsWanted_ = wanted; }
  /// Compares the whole state. Nobody else may call the handler meanwhile.
  void compareAtRest(const std::string& occasion);
  /// The callbacks that observers must have got since the last call, sorted.
  std::vector<std::string> takeCallbacks();
  /// Sets the observers of the model.
  void setObservers(const std::map<int, int>& observers);
  /// Keeps the first failure, with the seed and the last steps.
  void fail(const std::string& what);
  bool hasFailed() const { return failed_; }
  std::string failure();

  /// The number of failures of each call with each errno, by the name of the call.
  std::map<std::string, std::map<int, std::size_t>> faults();
  std::size_t steps();

  bool OpenDevice(std::int16_t deviceId) override;
  bool OpenDeviceAt(std::int16_t deviceId, const std::string& mountPoint, bool isPvrDevice) override;
  bool CloseDevice(std::int16_t deviceId) override;
  bool CloseDeviceSafeRemoval(std::int16_t deviceId) override;
  bool IsDeviceOpen(std::int16_t deviceId) override;
  void CheckForAndUpdateNewDevices() override;
  void GetListOfInsertedDevices(std::vector<std::int16_t>& _return, bool includeHidden) override;
  void NotifyUsbAdded(const std::string& usbDevice) override;
  void NotifyUsbRemoved(const std::string& usbDevice) override;
  void GetDeviceLabel(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId) override;
  void GetDeviceUuid(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId) override;
  void GetDeviceUsbVersion(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId) override;
  std::int32_t GetDeviceType(std::int16_t deviceId) override;
  std::int32_t GetDeviceCapacity(std::int16_t deviceId) override;
  void GetUsbMountPoint(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId) override;
  void GetUsbPhysicalDevice(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId) override;
  void GetFilesByExtension(std::vector<std::string>& _return, std::int16_t deviceId,
                           const std::string& directory, const std::string& extension) override;
  bool RunDiskRepair(std::int16_t deviceId) override;

 private:
  class Step;

  /// Runs an operation as a step. `operation` returns its reply as text, `expected` the model's reply. An
  /// operation that another one calls is part of the outer step.
  using Expected = std::function<std::string(Model& model, Calls& calls)>;
  void check(const std::string& name, const std::function<std::string()>& operation,
             const Expected& expected);
  /// The same for an operation that returns its reply.
  template <typename Operation, typename ExpectedAnswer>
  auto checked(const std::string& name, const Operation& operation, const ExpectedAnswer& expected);
  static void onLogLine(int sourceLine);
  /// The same as `fail`; the caller has the turn.
  void failInTurn(const std::string& what);
  /// Keeps a step for a failure message. The caller has the turn.
  void remember(const std::string& step);
  void compareMap(bool withPartitions, const std::string& occasion);
  Faults drawFaults(const std::string& operation);

  World& world_;
  const std::uint64_t seed_;
  std::atomic<bool> faultsWanted_{false};
  std::atomic<bool> failed_{false};
  std::atomic<std::uint64_t> drawn_{0};
  std::atomic<std::size_t> scans_{0};

  /// The turn: guards the model, and the world against concurrent steps. Lock order: the handler's lock, then
  /// this one.
  std::mutex turn_;
  Model model_;
  std::string failure_;
  std::deque<std::string> lastSteps_;
  std::size_t steps_ = 0;
  std::map<std::string, std::map<int, std::size_t>> faults_;
};

}  // namespace soak

#endif  // DOCKHAND_TESTS_SOAK_CHECKEDHANDLER_H
