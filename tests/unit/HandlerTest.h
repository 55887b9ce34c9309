#ifndef TESTS_UNIT_HANDLERTEST_H
#define TESTS_UNIT_HANDLERTEST_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "FakePlatform.h"
#include "Journal.h"
#include "ModuleLog.h"
#include "TestableHandler.h"

/// A handler over a fake system, with every log line let through. The journal is empty when a test begins,
/// and again after each plugIn.
class HandlerTest : public ::testing::Test {
 protected:
  HandlerTest();
  ~HandlerTest() override;

  /// Makes a record by the way that a real one is made: the nodes appear in /dev and a scan finds them.
  /// `nodes` are kernel names ("sdb", "sdb1"). Returns the new device's number. A disk that libblkid can
  /// open, with the given type, stands behind each node.
  std::int16_t plugIn(const std::vector<std::string>& nodes, const std::string& fsType = "");
  /// Takes the nodes away; no scan is made.
  void pullOut(const std::vector<std::string>& nodes);

  Dockhand::UsbDeviceEntry& entry(std::int16_t deviceId) {
    return handler->deviceMap.at(static_cast<std::uint32_t>(deviceId));
  }
  /// Lets only lines of this level and above through.
  static void setThreshold(std::int32_t level) { Dockhand::usbClientLog.context->setThreshold(level); }
  /// True when some thread holds the handler's lock. Asked from inside a call to the platform: whether the
  /// operation holds it.
  bool lockIsHeld();
  /// True when the operation does not end while another thread holds the handler's lock; it has ended when
  /// this returns.
  bool waitsForTheLock(const std::function<void()>& operation);
  /// From now on notes in `unlocked` which calls and log lines happen while nobody holds the lock.
  void watchLock();

  FakePlatform platform;
  std::unique_ptr<TestableHandler> handler;
  std::vector<std::string> unlocked;

 private:
  TlogContext* const context_;
};

#endif  // TESTS_UNIT_HANDLERTEST_H
