#ifndef DOCKHAND_TESTS_SYSTEM_SYSTEMTEST_H
#define DOCKHAND_TESTS_SYSTEM_SYSTEMTEST_H

#include <gtest/gtest.h>

#include "World.h"

namespace systest {

/// A test that begins without devices, mounts and daemons. Declare sticks, services and daemons in this order
/// in the test, so that the daemon ends first.
class SystemTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!reasonForNoWorld().empty()) {
      GTEST_SKIP() << reasonForNoWorld();
    }
    clearWorld();
  }

  void TearDown() override {
    if (reasonForNoWorld().empty()) {
      clearWorld();
    }
  }
};

}  // namespace systest

#endif  // DOCKHAND_TESTS_SYSTEM_SYSTEMTEST_H
