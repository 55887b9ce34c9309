// Concurrent clients plug, open, list, close and unplug, over a simulated system whose calls fail at random.
// DOCKHAND_SOAK_ROUNDS and DOCKHAND_SOAK_SEED set the rounds and the seed.

#include <gtest/gtest.h>

#include "Emulator.h"
#include "SimulatedSystem.h"
#include "Soak.h"
#include "SocketDirectory.h"

namespace soak {
namespace {

Stick stickOf(char letter) {
  static const std::vector<Disk> kinds = {
      {"vfat", "HOLIDAY", "", "vfat", false, "nosuid", 0, {}},
      {"ext3", "My Disk", "", "ext3", false, "nosuid", 0, {}},
      {"ntfs", "", "", "ntfs", false, "nosuid", 0, {}},
      {"xfs", "PVR_DISK", "", "xfs", false, "nosuid", 0, {}},
      {"hfsplus", "disk", "", "hfsplus", false, "nosuid", 0, {}},
      {"xfs", "", "", "xfs", false, "nosuid", 0, {}},
      {"vfat", "A", "", "vfat", true, "nosuid", 0, {}},
      {"ext4", "HOLIDAY", "", "ext3", false, "nosuid", 0, {}},
      {"", "", "", "", false, "nosuid", 0, {}},
      {"xfs", "disk", "", "xfs", false, "nosuid", 0, {}},
  };
  const auto number = static_cast<std::size_t>(letter - 'a');
  Stick stick;
  stick.name = std::string("sd") + letter;
  stick.partitioned = number % 3 == 1;
  stick.removable = number % 2 == 0;
  stick.disk = kinds[number % kinds.size()];
  stick.disk.bytes = static_cast<std::int64_t>(number + 1) << 30;
  if (!stick.disk.type.empty()) {
    stick.disk.uuid = "1234-00" + std::to_string(10 + number);
    stick.disk.files = {{"", {"readme.TXT", "music"}}, {"music", {"one.mp3", "TWO.MP3", "three.Mp3", "mp3"}}};
  }
  return stick;
}

class SoakTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    std::vector<std::vector<Stick>> sticksOfClients;
    for (char letter = 'a'; letter < 'q'; letter = static_cast<char>(letter + 2)) {
      sticksOfClients.push_back({stickOf(letter), stickOf(static_cast<char>(letter + 1))});
    }
    static const auto* const sockets = new SocketDirectory();
    static auto* const system = simulatedSystem().release();
    run_ = new Soak(*system, sticksOfClients, settingsFor(400));
    run_->run();
    run_->print();
    static_cast<void>(sockets);
  }

  static Soak* run_;
};

Soak* SoakTest::run_ = nullptr;

TEST_F(SoakTest, TableCallsMountsAndRepliesMatchTheModelAtEveryStep) {
  EXPECT_EQ(run_->handler().failure(), "");
  EXPECT_GT(run_->handler().steps(), 0U);
}

TEST_F(SoakTest, NothingIsLeftUnderMediaAfterTheFaults) {
  ASSERT_FALSE(run_->handler().hasFailed()) << "the run ended early";
  EXPECT_EQ(run_->leftAtRest(), "");
}

TEST_F(SoakTest, NumberOfDescriptorsIsTheSameAtTheStartInTheMiddleAndAtTheEnd) {
  ASSERT_FALSE(run_->handler().hasFailed()) << "the run ended early";
  EXPECT_EQ(run_->middle().descriptors, run_->start().descriptors);
  EXPECT_EQ(run_->end().descriptors, run_->start().descriptors);
}

TEST_F(SoakTest, EveryCallThatCanFailHasFailed) {
  ASSERT_FALSE(run_->handler().hasFailed()) << "the run ended early";
  const auto faults = run_->handler().faults();
  for (const std::string& call : Faults::calls()) {
    ASSERT_EQ(faults.count(call), 1U) << call;
    // Enough rounds to draw each errno, even for the rarest call.
    if (run_->settings().rounds >= 10000) {
      EXPECT_EQ(faults.at(call).size(), Faults::errors().size()) << call;
    }
  }
}

// The allocators of the sanitizers keep freed memory.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(SoakTest, MemoryDoesNotGrowFromTheMiddleToTheEnd) {
  if (isEmulated()) {
    GTEST_SKIP() << "the resident memory is the emulator's";
  }
  ASSERT_FALSE(run_->handler().hasFailed()) << "the run ended early";
  EXPECT_EQ(run_->growth(), "");
}
#endif

}  // namespace
}  // namespace soak
