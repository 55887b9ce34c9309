// Running shell commands and logging their output.

#include "HandlerTest.h"

namespace {

const std::string passLog = "system logger -s -t Dockhand </tmp/Dockhand.log";

class ShellRunner : public HandlerTest {
 protected:
  /// Every command but the logger ends with this status.
  void commandsEndWith(int status) {
    platform.systemStatus = [status](const std::string& command) {
      return command.rfind("logger ", 0) == 0 ? 0 : status;
    };
  }
};

TEST_F(ShellRunner, RunsACommandWithItsOutputInTheLogFile) {
  EXPECT_EQ(handler->executeShellCommand("sfdisk -l /dev/usb_storage_3", 908, false), 0);
  EXPECT_THAT(journal().events(),
              ElementsAre("log 3 @124 Executing: sfdisk -l /dev/usb_storage_3 # from Line=908",
                          "system sfdisk -l /dev/usb_storage_3 1>/tmp/Dockhand.log 2>&1"));
}

TEST_F(ShellRunner, PassesTheLogFileToTheLoggerAfterSuccessOnRequest) {
  EXPECT_EQ(handler->executeShellCommand("tool", 917, true), 0);
  EXPECT_THAT(journal().events(), ElementsAre("log 3 @124 Executing: tool # from Line=917",
                                              "system tool 1>/tmp/Dockhand.log 2>&1", passLog));
}

TEST_F(ShellRunner, PassesTheLogFileToTheLoggerBeforeItWarnsOfAFailure) {
  commandsEndWith(256);
  for (const bool passLogAlways : {false, true}) {
    journal().clear();
    EXPECT_EQ(handler->executeShellCommand("tool -x", 7, passLogAlways), 256);
    EXPECT_THAT(journal().events(), ElementsAre("log 3 @124 Executing: tool -x # from Line=7",
                                                "system tool -x 1>/tmp/Dockhand.log 2>&1", passLog,
                                                "log 4 @129 Warning: tool -x returned 256 # from Line=7"));
  }
}

TEST_F(ShellRunner, ReturnsTheRawStatus) {
  for (const int status : {-1, 1, 9, 139, 32512, 65280}) {
    journal().clear();
    commandsEndWith(status);
    EXPECT_EQ(handler->executeShellCommand("tool", 1, false), status);
    EXPECT_THAT(journal().events(), ElementsAre("log 3 @124 Executing: tool # from Line=1",
                                                "system tool 1>/tmp/Dockhand.log 2>&1", passLog,
                                                "log 4 @129 Warning: tool returned " +
                                                    std::to_string(status) + " # from Line=1"));
  }
}

TEST_F(ShellRunner, IgnoresAFailureOfTheLogger) {
  platform.systemStatus = [](const std::string& command) {
    return command.rfind("logger ", 0) == 0 ? 512 : 0;
  };
  EXPECT_EQ(handler->executeShellCommand("tool", 1, true), 0);
  EXPECT_THAT(journal().logs(), ElementsAre("log 3 @124 Executing: tool # from Line=1"));

  platform.systemStatus = [](const std::string& command) {
    return command.rfind("logger ", 0) == 0 ? 512 : 256;
  };
  EXPECT_EQ(handler->executeShellCommand("tool", 1, true), 256);
}

TEST_F(ShellRunner, WritesTheSourceLineAsASignedNumber) {
  commandsEndWith(256);
  handler->executeShellCommand("tool", -2147483647, false);
  EXPECT_THAT(journal().logs(), ElementsAre("log 3 @124 Executing: tool # from Line=-2147483647",
                                            "log 4 @129 Warning: tool returned 256 # from Line=-2147483647"));
}

TEST_F(ShellRunner, LogsCommandsVerbatim) {
  for (const std::string& command :
       {std::string(), std::string("echo %s %n 100%"), std::string(65536, 'c'), std::string("a\nb\t\"'\\")}) {
    journal().clear();
    handler->executeShellCommand(command, 5, false);
    EXPECT_THAT(journal().events(), ElementsAre("log 3 @124 Executing: " + command + " # from Line=5",
                                                "system " + command + " 1>/tmp/Dockhand.log 2>&1"));
  }
}

TEST_F(ShellRunner, LogsThroughTheContextOfTheHandler) {
  handler->executeShellCommand("tool", 1, false);
  ASSERT_EQ(journal().lines().size(), 1U);
  EXPECT_EQ(journal().lines()[0].context, "Dockhand.UsbClient");
  EXPECT_EQ(journal().lines()[0].sourceFile, "Src/Dockhand/DockhandClient");
}

TEST_F(ShellRunner, LogsLinesFromTheThresholdUpAndRunsTheLoggerAnyway) {
  commandsEndWith(256);
  const std::string run = "system tool 1>/tmp/Dockhand.log 2>&1";
  const std::string notice = "log 3 @124 Executing: tool # from Line=1";
  const std::string warning = "log 4 @129 Warning: tool returned 256 # from Line=1";
  const auto eventsAt = [this](int threshold) {
    setThreshold(threshold);
    journal().clear();
    handler->executeShellCommand("tool", 1, false);
    return journal().events();
  };
  EXPECT_THAT(eventsAt(3), ElementsAre(notice, run, passLog, warning));
  EXPECT_THAT(eventsAt(4), ElementsAre(run, passLog, warning));
  EXPECT_THAT(eventsAt(5), ElementsAre(run, passLog));
}

TEST_F(ShellRunner, LogsEverythingWithoutAContext) {
  commandsEndWith(256);
  Dockhand::usbClientLog.context = nullptr;
  handler->executeShellCommand("tool", 1, false);
  EXPECT_THAT(journal().logs(), ElementsAre("log 3 @124 Executing: tool # from Line=1",
                                            "log 4 @129 Warning: tool returned 256 # from Line=1"));
}

TEST_F(ShellRunner, ClaimsTheLogFileBeforeItRunsACommandAndTellsWhatWasInTheWay) {
  platform.claims["/tmp/Dockhand.log"] = Dockhand::Claim::movedAside;
  EXPECT_EQ(handler->executeShellCommand("tool", 1, false), 0);
  EXPECT_THAT(journal().events(),
              ElementsAre("log 3 @124 Executing: tool # from Line=1", "claimFile /tmp/Dockhand.log",
                          "log 4 @136 /tmp/Dockhand.log was not ours and has been moved aside, to "
                          "/tmp/Dockhand.log.moved-*",
                          "system tool 1>/tmp/Dockhand.log 2>&1"));
}

TEST_F(ShellRunner, RunsNothingWhileTheLogFileIsNotOurs) {
  platform.claims["/tmp/Dockhand.log"] = Dockhand::Claim::refused;
  EXPECT_EQ(handler->executeShellCommand("tool", 1, true), -1);
  EXPECT_THAT(journal().events(),
              ElementsAre("log 3 @124 Executing: tool # from Line=1", "claimFile /tmp/Dockhand.log",
                          "log 5 @138 Not executed, since /tmp/Dockhand.log is not ours and cannot be moved",
                          "log 4 @129 Warning: tool returned -1 # from Line=1"));
}

TEST_F(ShellRunner, RunsNothingOnceTooMuchHasBeenMovedAsideAndSaysWhatToDo) {
  platform.claims["/tmp/Dockhand.log"] = Dockhand::Claim::tooManyMoved;
  EXPECT_EQ(handler->executeShellCommand("tool", 1, true), -1);
  EXPECT_THAT(journal().events(),
              ElementsAre("log 3 @124 Executing: tool # from Line=1", "claimFile /tmp/Dockhand.log",
                          "log 5 @140 Not executed, since /tmp/Dockhand.log is not ours, and there are 16 "
                          "directories /tmp/Dockhand.log.moved-*: remove them",
                          "log 4 @129 Warning: tool returned -1 # from Line=1"));
}

TEST_F(ShellRunner, TakesNoLock) {
  commandsEndWith(256);
  watchLock();
  handler->executeShellCommand("tool", 1, true);
  EXPECT_EQ(unlocked.size(), 4U);
  EXPECT_EQ(journal().events().size(), 4U);
}

}  // namespace
