// Running shell commands and logging their output.

#include "HandlerTest.h"
#include "Shell.h"

namespace {

const std::string passLog = "system logger -s -t Dockhand </tmp/Dockhand.log";

class ShellTest : public HandlerTest {
 protected:
  /// Every command but the logger ends with this status.
  void commandsEndWith(int status) { setStatuses({{"", status}, {"logger ", 0}}); }

  const Dockhand::Shell shell{platform};
};

TEST_F(ShellTest, RunsACommandWithItsOutputInTheLogFile) {
  EXPECT_EQ(shell.run("sfdisk -l /dev/usb_storage_3", 908, false), 0);
  EXPECT_THAT(journal().events(),
              ElementsAre("log 3 @124 Executing: sfdisk -l /dev/usb_storage_3 # from Line=908",
                          "system sfdisk -l /dev/usb_storage_3 1>/tmp/Dockhand.log 2>&1"));
}

TEST_F(ShellTest, PassesTheLogFileToTheLoggerAfterSuccessOnRequest) {
  EXPECT_EQ(shell.run("tool", 917, true), 0);
  EXPECT_THAT(journal().events(), ElementsAre("log 3 @124 Executing: tool # from Line=917",
                                              "system tool 1>/tmp/Dockhand.log 2>&1", passLog));
}

TEST_F(ShellTest, PassesTheLogFileToTheLoggerBeforeItWarnsOfAFailure) {
  commandsEndWith(256);
  for (const bool passLogAlways : {false, true}) {
    journal().clear();
    EXPECT_EQ(shell.run("tool -x", 7, passLogAlways), 256);
    EXPECT_THAT(journal().events(), ElementsAre("log 3 @124 Executing: tool -x # from Line=7",
                                                "system tool -x 1>/tmp/Dockhand.log 2>&1", passLog,
                                                "log 4 @129 Warning: tool -x returned 256 # from Line=7"));
  }
}

TEST_F(ShellTest, ReturnsTheRawStatus) {
  for (const int status : {-1, 1, 9, 139, 32512, 65280}) {
    journal().clear();
    commandsEndWith(status);
    EXPECT_EQ(shell.run("tool", 1, false), status);
    EXPECT_THAT(journal().events(), ElementsAre("log 3 @124 Executing: tool # from Line=1",
                                                "system tool 1>/tmp/Dockhand.log 2>&1", passLog,
                                                "log 4 @129 Warning: tool returned " +
                                                    std::to_string(status) + " # from Line=1"));
  }
}

TEST_F(ShellTest, IgnoresAFailureOfTheLogger) {
  setStatuses({{"logger ", 512}});
  EXPECT_EQ(shell.run("tool", 1, true), 0);
  EXPECT_THAT(journal().logs(), ElementsAre("log 3 @124 Executing: tool # from Line=1"));

  setStatuses({{"", 256}, {"logger ", 512}});
  EXPECT_EQ(shell.run("tool", 1, true), 256);
}

TEST_F(ShellTest, WritesTheSourceLineAsASignedNumber) {
  commandsEndWith(256);
  shell.run("tool", -2147483647, false);
  EXPECT_THAT(journal().logs(), ElementsAre("log 3 @124 Executing: tool # from Line=-2147483647",
                                            "log 4 @129 Warning: tool returned 256 # from Line=-2147483647"));
}

TEST_F(ShellTest, LogsCommandsVerbatim) {
  for (const std::string& command :
       {std::string(), std::string("echo %s %n 100%"), std::string(65536, 'c'), std::string("a\nb\t\"'\\")}) {
    journal().clear();
    shell.run(command, 5, false);
    EXPECT_THAT(journal().events(), ElementsAre("log 3 @124 Executing: " + command + " # from Line=5",
                                                "system " + command + " 1>/tmp/Dockhand.log 2>&1"));
  }
}

TEST_F(ShellTest, LogsThroughTheContextOfTheHandler) {
  shell.run("tool", 1, false);
  ASSERT_EQ(journal().lines().size(), 1U);
  EXPECT_EQ(journal().lines()[0].context, "Dockhand.UsbClient");
  EXPECT_EQ(journal().lines()[0].sourceFile, "Src/Dockhand/DockhandClient");
}

TEST_F(ShellTest, LogsLinesFromTheThresholdUpAndRunsTheLoggerAnyway) {
  commandsEndWith(256);
  const std::string run = "system tool 1>/tmp/Dockhand.log 2>&1";
  const std::string notice = "log 3 @124 Executing: tool # from Line=1";
  const std::string warning = "log 4 @129 Warning: tool returned 256 # from Line=1";
  const auto eventsAt = [this](int threshold) {
    setThreshold(threshold);
    journal().clear();
    shell.run("tool", 1, false);
    return journal().events();
  };
  EXPECT_THAT(eventsAt(3), ElementsAre(notice, run, passLog, warning));
  EXPECT_THAT(eventsAt(4), ElementsAre(run, passLog, warning));
  EXPECT_THAT(eventsAt(5), ElementsAre(run, passLog));
}

TEST_F(ShellTest, LogsEverythingWithoutAContext) {
  commandsEndWith(256);
  Dockhand::usbClientLog.context = nullptr;
  shell.run("tool", 1, false);
  EXPECT_THAT(journal().logs(), ElementsAre("log 3 @124 Executing: tool # from Line=1",
                                            "log 4 @129 Warning: tool returned 256 # from Line=1"));
}

TEST_F(ShellTest, ClaimsTheLogFileBeforeItRunsACommandAndLogsWhatItMovedAside) {
  platform.claims["/tmp/Dockhand.log"] = Dockhand::Claim::movedAside;
  EXPECT_EQ(shell.run("tool", 1, false), 0);
  EXPECT_THAT(journal().events(),
              ElementsAre("log 3 @124 Executing: tool # from Line=1", "statx /tmp/Dockhand.log",
                          "opendir /tmp/", "closedir /tmp/", "mkdtemp /tmp/Dockhand.log.moved-XXXXXX",
                          "rename /tmp/Dockhand.log /tmp/Dockhand.log.moved-XXXXXX/Dockhand.log",
                          "statx /tmp/Dockhand.log", "mknod /tmp/Dockhand.log 100644",
                          "log 4 @136 /tmp/Dockhand.log was not ours and has been moved aside, to "
                          "/tmp/Dockhand.log.moved-*",
                          "system tool 1>/tmp/Dockhand.log 2>&1"));
}

TEST_F(ShellTest, RunsNothingWhileTheLogFileIsNotOurs) {
  platform.claims["/tmp/Dockhand.log"] = Dockhand::Claim::refused;
  EXPECT_EQ(shell.run("tool", 1, true), -1);
  EXPECT_THAT(journal().events(),
              ElementsAre("log 3 @124 Executing: tool # from Line=1", "statx /tmp/Dockhand.log",
                          "log 5 @138 Not executed, since /tmp/Dockhand.log is not ours and cannot be moved",
                          "log 4 @129 Warning: tool returned -1 # from Line=1"));
}

TEST_F(ShellTest, RunsNothingOnceTooMuchWasMovedAsideAndLogsWhatToDo) {
  platform.claims["/tmp/Dockhand.log"] = Dockhand::Claim::tooManyMoved;
  EXPECT_EQ(shell.run("tool", 1, true), -1);
  EXPECT_THAT(journal().events(),
              ElementsAre("log 3 @124 Executing: tool # from Line=1", "statx /tmp/Dockhand.log",
                          "opendir /tmp/", "closedir /tmp/",
                          "log 5 @140 Not executed, since /tmp/Dockhand.log is not ours, and there are 16 "
                          "directories /tmp/Dockhand.log.moved-*: remove them",
                          "log 4 @129 Warning: tool returned -1 # from Line=1"));
}

TEST_F(ShellTest, TakesNoLock) {
  commandsEndWith(256);
  watchLock();
  shell.run("tool", 1, true);
  EXPECT_EQ(unlocked.size(), 4U);
  EXPECT_EQ(journal().events().size(), 4U);
}

TEST_F(ShellTest, UnmountsByForceAtMostTenTimes) {
  shell.forceUnmount("/dev/usb_storage_sdb", 903, " (again)");
  EXPECT_EQ(journal().eventsBeginning("system umount -f /dev/usb_storage_sdb 1>/dev/null 2>&1").size(), 10U);
  EXPECT_EQ(journal().eventsBeginning("log 3 @903 unmounted: /dev/usb_storage_sdb (again)").size(), 10U);
}

}  // namespace
