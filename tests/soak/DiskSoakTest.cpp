// The same clients over the real system: sticks on loop devices, the kernel, libblkid and the shell. Calls
// fail at random before they reach the system. DOCKHAND_SOAK_ROUNDS and DOCKHAND_SOAK_SEED set the rounds and
// the seed.

#include <gtest/gtest.h>

#include "../system/World.h"
#include "DiskWorld.h"
#include "Soak.h"

namespace soak {
namespace {

class DiskSoakTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!systest::reasonForNoWorld().empty()) {
      return;
    }
    auto* const world = new DiskWorld();
    const std::vector<std::vector<Stick>> sticksOfClients = {
        {world->makeStick({"sda", "ext3", "HOLIDAY", false}),
         world->makeStick({"sdb", "ext3", "My Disk", true})},
        {world->makeStick({"sdc", "xfs", "PVR_DISK", true}),
         world->makeStick({"sdd", "ext4", "disk", false})},
        {world->makeStick({"sde", "ext3", "A", true}), world->makeStick({"sdf", "", "", false})},
    };
    before_ = state();
    run_ = new Soak(*world, sticksOfClients, settingsFor(60));
    run_->run();
    world->fillMountTable(0);
    run_->print();
  }

  void SetUp() override {
    if (!systest::reasonForNoWorld().empty()) {
      GTEST_SKIP() << systest::reasonForNoWorld();
    }
  }

  /// Everything that opening a device changes.
  static std::string state() {
    std::string text = systest::readFile("/proc/mounts");
    for (const std::string& name : systest::namesIn("/media")) {
      text += name + '\n';
    }
    return text;
  }

  static Soak* run_;
  static std::string before_;
};

Soak* DiskSoakTest::run_ = nullptr;
std::string DiskSoakTest::before_;

TEST_F(DiskSoakTest, TableCallsMountsAndRepliesMatchTheModelAtEveryStep) {
  EXPECT_EQ(run_->handler().failure(), "");
  EXPECT_GT(run_->handler().steps(), 0U);
}

TEST_F(DiskSoakTest, MountsAndDirectoriesAreRestoredAfterTheFaults) {
  ASSERT_FALSE(run_->handler().hasFailed()) << "the run ended early";
  EXPECT_EQ(run_->leftAtRest(), "");
  EXPECT_EQ(state(), before_);
}

TEST_F(DiskSoakTest, NumberOfDescriptorsIsTheSameAtTheStartInTheMiddleAndAtTheEnd) {
  ASSERT_FALSE(run_->handler().hasFailed()) << "the run ended early";
  // The handler keeps the last failed probe, with its descriptor, until another probe fails.
  const std::size_t start = run_->start().descriptors;
  EXPECT_LE(run_->middle().descriptors, start + 1);
  EXPECT_LE(run_->end().descriptors, start + 1);
}

TEST_F(DiskSoakTest, MemoryDoesNotGrowFromTheMiddleToTheEnd) {
  ASSERT_FALSE(run_->handler().hasFailed()) << "the run ended early";
  EXPECT_EQ(run_->growth(), "");
}

}  // namespace
}  // namespace soak
