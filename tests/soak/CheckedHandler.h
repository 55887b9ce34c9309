#ifndef DOCKHAND_TESTS_SOAK_CHECKEDHANDLER_H
#define DOCKHAND_TESTS_SOAK_CHECKEDHANDLER_H

#include <atomic>
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

/// The handler, each of whose operations is compared with the model, while calls to the system fail by
/// chance.
///
/// An operation is one step of the model. Its turn begins with its first call to the system, which it makes
/// under the handler's lock, and ends when it has been compared; so the steps of the model have the order
/// that the lock gave the operations, and no lock is held longer than the handler itself holds it. (A removal
/// may make no call at all: its turn begins with the log line that it writes under the lock.) At the
/// beginning of a turn the whole table of devices is compared, at its end the calls that were made, the
/// mounts, the directories and the answer.
///
/// An operation that makes no call has no turn. It asks about a device of the client that calls it, which
/// only that client changes; so its answer can be compared afterwards.
class CheckedHandler : public Dockhand::DockhandClient {
 public:
  CheckedHandler(World& world, FaultyPlatform& platform, std::uint64_t seed);

  /// The platform's part of this: notes the call in the running operation and says whether it fails.
  static int decide(const std::string& call);

  // What happens to the machine, told to the world and to the model at once.

  void plug(const Stick& stick);
  void unplug(const Stick& stick);
  /// Mounts a stick where an automounter would.
  void automount(const Stick& stick, const std::string& directory);
  /// Fills the mount table with other lines. Nothing may be mounted under /media.
  void fillMountTable(std::size_t size);

  // What the model says.

  /// The number and record of a stick, if it has one.
  std::optional<std::pair<std::int16_t, Record>> recordOf(const Stick& stick);
  /// What is mounted or left under /media.
  std::vector<std::string> placesInUse();

  /// Whether calls fail from now on.
  void setFaults(bool wanted) { faultsWanted_ = wanted; }
  /// Compares all that can be compared. Nobody else may call the handler meanwhile.
  void compareAtRest(const std::string& occasion);
  /// The callbacks that observers must have had since the last time, sorted.
  std::vector<std::string> takeCallbacks();
  /// From now on the model has these observers.
  void setObservers(const std::map<int, int>& observers);
  /// Notes the first failure, with the seed and the last steps.
  void fail(const std::string& what);
  bool hasFailed() const { return failed_; }
  std::string failure();

  /// How often each call has failed with each errno, by the name of the call.
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

  /// Runs an operation as a step. `operation` gives its answer in words, `expected` the model's. An operation
  /// that another one calls is part of that one's step.
  using Expected = std::function<std::string(Model& model, Calls& calls)>;
  void check(const std::string& name, const std::function<std::string()>& operation,
             const Expected& expected);
  /// The same for an operation that returns its answer.
  template <typename Operation, typename ExpectedAnswer>
  auto checked(const std::string& name, const Operation& operation, const ExpectedAnswer& expected);
  static void onLogLine(int sourceLine);
  /// As fail; the caller has the turn.
  void failInTurn(const std::string& what);
  /// Keeps a step for the message of a failure. The caller has the turn.
  void remember(const std::string& step);
  void compareMap(bool withPartitions, const std::string& occasion);
  Faults drawFaults(const std::string& operation);

  World& world_;
  const std::uint64_t seed_;
  std::atomic<bool> faultsWanted_{false};
  std::atomic<bool> failed_{false};
  std::atomic<std::uint64_t> drawn_{0};
  std::atomic<std::size_t> scans_{0};

  /// The turn: guards the model, and the world against two steps at once. Taken while the handler's lock is
  /// held, never the other way round.
  std::mutex turn_;
  Model model_;
  std::string failure_;
  std::deque<std::string> lastSteps_;
  std::size_t steps_ = 0;
  std::map<std::string, std::map<int, std::size_t>> faults_;
};

}  // namespace soak

#endif  // DOCKHAND_TESTS_SOAK_CHECKEDHANDLER_H
