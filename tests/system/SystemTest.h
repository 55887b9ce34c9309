#ifndef DOCKHAND_TESTS_SYSTEM_SYSTEMTEST_H
#define DOCKHAND_TESTS_SYSTEM_SYSTEMTEST_H

#include <gtest/gtest.h>

#include "World.h"

namespace systest {

/// A test in a world without devices, mounts and daemons. Sticks, services and daemons are variables of the
/// test, in this order, so that the daemon ends first.
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
