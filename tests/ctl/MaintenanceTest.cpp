// Preparing and repairing disks.

#include <chrono>
#include <fstream>
#include <thread>

#include "CtlTest.h"

namespace ctltest {
namespace {

RunOptions terminal() {
  RunOptions options;
  options.terminal = true;
  return options;
}

const RunOptions onTerminal = terminal();

class Maintenance : public CtlTest {
 protected:
  static void expectPrepared(bool yes) {
    const auto commands = journal().eventsBeginning("system dd if=/dev/zero of=/dev/usb_storage_sda ");
    EXPECT_EQ(commands.size(), yes ? 1U : 0U);
  }

  /// Plugs in a disk that can be repaired.
  static void plugInRecordingDisk() {
    plugInStick();
    platform().disks["/dev/usb_storage_sda1"].values["TYPE"] = "xfs";
  }
};

TEST_F(Maintenance, PrepareRefusesWithoutATerminal) {
  plugInStick();
  RunOptions yesFromAFile;
  yesFromAFile.inputFile = service().sockets.path() / "yes";
  std::ofstream(yesFromAFile.inputFile) << "yes\n";
  EXPECT_THAT(run({"prepare", "1"}, yesFromAFile),
              Ends(8, "", AllOf(HasSubstr("the whole disk sda:"), HasSubstr("device 1: nothing was done"))));
  expectPrepared(false);
}

TEST_F(Maintenance, PrepareDoesNotAskWithTheOptionYes) {
  plugInStick();
  EXPECT_THAT(run({"prepare", "1", "--yes"}), Ends(0, "device 1 is a recording disk now\n", ""));
  expectPrepared(true);
}

TEST_F(Maintenance, PrepareShowsTheDiskAndAsksOnATerminal) {
  plugInStick("BAD\x1B[2J");
  Program program({"prepare", "1"}, onTerminal);
  const std::string question = program.readUntil("Type yes to go on: ");
  EXPECT_THAT(question, HasSubstr("wipes the whole disk sda"));
  EXPECT_THAT(question, HasSubstr("1 (sda1)"));
  EXPECT_THAT(question, HasSubstr(R"(BAD\x1B[2J)"));
  EXPECT_THAT(question, HasSubstr("15267 MiB"));
  expectPrepared(false);
  program.type("yes\n");
  const Outcome outcome = program.wait();
  EXPECT_EQ(outcome.exitCode, 0);
  EXPECT_THAT(outcome.out, HasSubstr("\rPreparing device 1 (sda1): 0 s"));
  EXPECT_THAT(outcome.out, HasSubstr("device 1 is a recording disk now"));
  expectPrepared(true);
}

TEST_F(Maintenance, PrepareAcceptsOnlyAYes) {
  plugInStick();
  for (const std::string answer : {"no\n", "y\n", "YES\n", "\n", "\x04"}) {
    Program program({"prepare", "1"}, onTerminal);
    program.readUntil("Type yes to go on: ");
    program.type(answer);
    EXPECT_THAT(program.wait(), Ends(8, HasSubstr("device 1: nothing was done"), "")) << answer;
  }
  expectPrepared(false);
}

TEST_F(Maintenance, PrepareLeavesADiskAloneThatReplacedTheOneShown) {
  plugInStick();
  Program program({"prepare", "1"}, onTerminal);
  program.readUntil("Type yes to go on: ");
  plugInStick("PRECIOUS");
  program.type("yes\n");
  EXPECT_THAT(program.wait(), Ends(8, HasSubstr("another disk"), ""));
  expectPrepared(false);
}

TEST_F(Maintenance, PrepareHoldsNoConnectionWhileItAsks) {
  plugInStick();
  std::vector<std::unique_ptr<Program>> asking;
  for (int i = 0; i < 10; ++i) {
    asking.push_back(std::make_unique<Program>(Arguments{"prepare", "1"}, onTerminal));
    asking.back()->readUntil("Type yes to go on: ");
  }
  EXPECT_THAT(run({"list"}), Ends(0, "1\n", ""));
}

TEST_F(Maintenance, PrepareOfAnUnknownDeviceNeverReachesTheDaemon) {
  plugInStick();
  EXPECT_THAT(run({"prepare", "5", "--yes"}), Ends(3, "", HasSubstr("device 5: no such device; there is 1")));
  EXPECT_THAT(run({"prepare", "5"}), Ends(3, "", HasSubstr("device 5: no such device; there is 1")));
  EXPECT_THAT(journal().logs(), Not(Contains(HasSubstr("PrepareDeviceForPvr"))));
}

TEST_F(Maintenance, PrepareReportsAFailure) {
  plugInStick();
  platform().systemStatus = [](const std::string& command) {
    return command.find("fdisk") != std::string::npos;
  };
  EXPECT_THAT(run({"prepare", "1", "--yes"}),
              Ends(1, "", HasSubstr("device 1 (sda1): partitioning or formatting failed")));
}

TEST_F(Maintenance, RepairRepairs) {
  plugInRecordingDisk();
  EXPECT_THAT(run({"repair", "1"}), Ends(0, "device 1 is repaired\n", ""));
  EXPECT_THAT(journal().calls(), Contains(HasSubstr("system xfs_repair /dev/usb_storage_sda1")));
}

TEST_F(Maintenance, RepairReportsWhyItFails) {
  EXPECT_THAT(run({"repair", "1"}), Ends(3, "", HasSubstr("device 1: no such device")));
  plugInStick();
  EXPECT_THAT(run({"repair", "1"}),
              Ends(1, "", HasSubstr("device 1: not repaired: its file system is not XFS")));
  run({"open", "1"});
  EXPECT_THAT(run({"repair", "1"}),
              Ends(1, "", "dockhandctl: device 1: not repaired: it is open; close it first\n"));
}

TEST_F(Maintenance, RepairWaitsLongerThanTheTimeoutOfOtherCalls) {
  plugInRecordingDisk();
  // The connection is being served during the slow call, and ends after it.
  bool slow = true;
  platform().systemStatus = [&slow](const std::string& command) {
    if (slow && command.rfind("xfs_repair ", 0) == 0) {
      slow = false;
      std::this_thread::sleep_for(std::chrono::seconds(3));
    }
    return 0;
  };
  EXPECT_THAT(run({"--timeout", "2", "repair", "1"}), Ends(0, "device 1 is repaired\n", ""));
  EXPECT_FALSE(slow);
}

}  // namespace
}  // namespace ctltest
