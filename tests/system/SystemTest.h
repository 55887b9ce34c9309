#ifndef DOCKHAND_TESTS_SYSTEM_SYSTEMTEST_H
#define DOCKHAND_TESTS_SYSTEM_SYSTEMTEST_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

// IWYU pragma: begin_exports
#include "Daemon.h"
#include "Stick.h"
#include "World.h"
// IWYU pragma: end_exports

namespace systest {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

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

/// A stick that is plugged in, a daemon, and its client.
struct Served {
  Stick stick;
  Daemon daemon;
  UsbClient client;
};

inline Served serve(const StickOptions& options = {}, const Environment& environment = {}) {
  return {Stick(options), Daemon(environment), UsbClient()};
}

/// The name of a row of a parameterized suite.
template <typename Row>
std::string nameOf(const testing::TestParamInfo<Row>& row) {
  return row.param.name;
}

/// Shows a row by its name in messages.
template <typename Row, typename = typename Row::IsRow>
void PrintTo(const Row& row, std::ostream* out) {
  *out << row.name;
}

}  // namespace systest

#endif  // DOCKHAND_TESTS_SYSTEM_SYSTEMTEST_H
