#ifndef TESTS_UNIT_HANDLERTEST_H
#define TESTS_UNIT_HANDLERTEST_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "FakePlatform.h"
#include "Journal.h"
#include "ModuleLog.h"
#include "TestableHandler.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::Not;
using ::testing::Pair;
using ::testing::SizeIs;

inline bool begins(const std::string& text, const std::string& beginning) {
  return text.rfind(beginning, 0) == 0;
}

/// Numbers that no device has in these tests.
constexpr std::int16_t unknownIds[] = {-1, std::numeric_limits<std::int16_t>::min(), 0, 9,
                                       std::numeric_limits<std::int16_t>::max()};

/// A handler over a fake system, with all log lines on. The journal is empty when a test begins, and after
/// each plugIn.
class HandlerTest : public ::testing::Test {
 protected:
  HandlerTest();
  ~HandlerTest() override;

  /// Makes a record as the daemon does: the nodes appear in /dev and a scan finds them. `nodes` are kernel
  /// names ("sdb", "sdb1"). Behind each node is a disk with the given type, which libblkid can open. Returns
  /// the number of the new device.
  std::int16_t plugIn(const std::vector<std::string>& nodes, const std::string& fsType = "");
  /// Removes the nodes, without a scan.
  void pullOut(const std::vector<std::string>& nodes);

  /// Adds copies of record 1 that a negative number would find if it lost its sign.
  void addRecordsUnderUnsignedNumbers();

  Dockhand::UsbDeviceEntry& entry(std::int16_t deviceId) {
    return handler->deviceMap.at(static_cast<std::uint32_t>(deviceId));
  }
  /// Commands that begin so end with this status, all others with 0. The last matching row counts.
  void setStatuses(const std::vector<std::pair<std::string, int>>& statuses);
  /// Logs only lines of this level and above.
  static void setThreshold(std::int32_t level) { Dockhand::usbClientLog.context->setThreshold(level); }
  /// True if some thread holds the handler's lock. In a call to the platform: whether the operation holds it.
  bool lockIsHeld();
  /// True if the operation does not end while another thread holds the handler's lock. The operation has
  /// ended when this returns.
  bool waitsForTheLock(const std::function<void()>& operation);
  /// From now on `unlocked` records the calls and log lines that happen without the lock.
  void watchLock();

  FakePlatform platform;
  std::unique_ptr<TestableHandler> handler;
  std::vector<std::string> unlocked;

 private:
  TlogContext* const context_;
};

#endif  // TESTS_UNIT_HANDLERTEST_H
