// Preparing a recording disk. Its label is also passed through a real shell.

#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <new>
#include <stdexcept>
#include <tuple>

#include "HandlerTest.h"

namespace {

const std::string toLogFile = " 1>/tmp/Dockhand.log 2>&1";
const std::string forceUnmount = "umount -f /dev/usb_storage_sdb1 1>/dev/null 2>&1";
const std::string listTable = "sfdisk -l /dev/usb_storage_sdb";
const std::string wipeTable = "dd if=/dev/zero of=/dev/usb_storage_sdb bs=512 count=1";
const std::string makePartition = R"(echo -e 'n\np\n1\n\n\nw' | fdisk /dev/usb_storage_sdb)";
const std::string passLog = "system logger -s -t Dockhand </tmp/Dockhand.log";

std::string makeFileSystem(const std::string& labelInShell) {
  return "mkfs.xfs -f -l lazy-count=0 -L \"" + labelInShell + "\" /dev/usb_storage_sdb1";
}

class PvrPreparation : public HandlerTest {
 protected:
  PvrPreparation() {
    plugIn({"sdb", "sdb1"});
    setLabel("MyDisk");
    // Nothing is mounted.
    setStatuses({{"umount", 256}});
  }

  void setLabel(const std::string& label) { platform.disks["/dev/usb_storage_sdb1"].values["LABEL"] = label; }
  /// The command with this beginning ends with `status`. The forced unmounts fail, all others succeed.
  void makeFail(const std::string& beginning, int status) {
    setStatuses({{"umount", 256}, {beginning, status}});
  }
  /// The number of forced unmounts that succeed before and after partitioning.
  void stackMounts(int before, int after) {
    platform.systemStatus = [before, after, partitioned = false](const std::string& command) mutable {
      if (begins(command, "echo")) {
        partitioned = true;
      }
      int& left = partitioned ? after : before;
      return begins(command, "umount") && left-- <= 0 ? 256 : 0;
    };
  }
  /// Prepares a disk with this label. Returns the command that makes the file system.
  std::string fileSystemCommand(const std::string& label) {
    setLabel(label);
    journal().clear();
    handler->PrepareDeviceForPvr(1);
    const auto commands = journal().eventsBeginning("system mkfs.xfs");
    if (commands.size() != 1) {
      ADD_FAILURE() << commands.size() << " commands";
      return {};
    }
    const std::string command = commands[0].substr(std::string("system ").size());
    const std::size_t end = command.size() - toLogFile.size();
    EXPECT_EQ(command.substr(end), toLogFile);
    return command.substr(0, end);
  }
};

TEST_F(PvrPreparation, PreparesADiskStepByStep) {
  EXPECT_TRUE(handler->PrepareDeviceForPvr(1));
  EXPECT_THAT(journal().events(),
              ElementsAre("log 2 @860 PrepareDeviceForPvr(1)", "log 2 @1046 GetDeviceLabel",
                          "new_probe /dev/usb_storage_sdb1", "do_probe /dev/usb_storage_sdb1",
                          "lookup /dev/usb_storage_sdb1 LABEL", "free_probe /dev/usb_storage_sdb1",
                          "log 2 @1015 getBlkidLookupValue(1,LABEL; device=/dev/usb_storage_sdb1)=MyDisk",
                          "log 2 @1060 GetDeviceLabel(1)=MyDisk", "system " + forceUnmount,
                          "log 3 @124 Executing: " + listTable + " # from Line=908",
                          "system " + listTable + toLogFile, passLog,
                          "log 3 @124 Executing: " + wipeTable + " # from Line=913",
                          "system " + wipeTable + toLogFile,
                          "log 3 @124 Executing: " + makePartition + " # from Line=917",
                          "system " + makePartition + toLogFile, passLog, "sleep 4", "system " + forceUnmount,
                          "log 3 @124 Executing: " + makeFileSystem("MyDisk") + " # from Line=934",
                          "system " + makeFileSystem("MyDisk") + toLogFile, "sleep 2",
                          "log 2 @142 CheckForAndUpdateNewDevices", "scandir /dev",
                          "log 2 @196 entry: name=sdb number= matchFound=1",
                          "log 2 @196 entry: name=sdb1 number=1 matchFound=1"));
}

TEST_F(PvrPreparation, PartitionsTheDiskOfARecordWithoutAPartition) {
  pullOut({"sdb1"});
  handler->CheckForAndUpdateNewDevices();
  platform.disks["/dev/usb_storage_sdb"].values["LABEL"] = "Whole";
  journal().clear();
  EXPECT_TRUE(handler->PrepareDeviceForPvr(1));
  EXPECT_THAT(journal().eventsBeginning("system"),
              ElementsAre("system " + forceUnmount, "system " + listTable + toLogFile, passLog,
                          "system " + wipeTable + toLogFile, "system " + makePartition + toLogFile, passLog,
                          "system " + forceUnmount, "system " + makeFileSystem("Whole") + toLogFile));
}

TEST_F(PvrPreparation, IsAnnouncedFromTheLookUpToTheRescan) {
  std::vector<std::string> announced;
  std::vector<std::string> unannounced;
  platform.onCall = [&](const std::string& event) {
    (handler->pvrPreparationRunning ? announced : unannounced).push_back(event);
  };
  handler->PrepareDeviceForPvr(1);
  EXPECT_THAT(unannounced, ElementsAre("scandir /dev"));
  ASSERT_FALSE(announced.empty());
  EXPECT_EQ(announced.front(), "new_probe /dev/usb_storage_sdb1");
  EXPECT_EQ(announced.back(), "sleep 2");
  EXPECT_FALSE(handler->pvrPreparationRunning);
}

TEST_F(PvrPreparation, IgnoresPlugEventsAfterAnUnknownDeviceUntilAKnownOneIsPrepared) {
  handler->PrepareDeviceForPvr(9);
  journal().clear();
  handler->NotifyUsbAdded("sdb1");
  handler->NotifyUsbRemoved("sdb1");
  EXPECT_THAT(journal().events(),
              ElementsAre("log 2 @300 NotifyUSB added sdb1", "log 2 @384 NotifyUsbRemoved(sdb1)"));

  EXPECT_TRUE(handler->PrepareDeviceForPvr(1));
  journal().clear();
  handler->NotifyUsbAdded("sdb1");
  EXPECT_THAT(journal().eventsBeginning("scandir"), ElementsAre("scandir /dev"));
}

TEST_F(PvrPreparation, WarnsAndFormatsAnOpenDeviceWithTheDefaultLabel) {
  entry(1).deviceOpen = true;
  entry(1).mountPoint = "/media/disk_1";
  EXPECT_TRUE(handler->PrepareDeviceForPvr(1));
  const auto events = journal().events();
  ASSERT_GT(events.size(), 3U);
  EXPECT_EQ(events[0], "log 2 @860 PrepareDeviceForPvr(1)");
  EXPECT_EQ(events[1], "log 4 @872 PrepareDeviceForPvr() - Device is Open!");
  EXPECT_EQ(events[2], "system " + forceUnmount);
  EXPECT_THAT(journal().eventsBeginning("system mkfs.xfs"),
              ElementsAre("system " + makeFileSystem("PVR_DISK") + toLogFile));
  EXPECT_TRUE(entry(1).deviceOpen);
  EXPECT_EQ(entry(1).mountPoint, "/media/disk_1");
}

// The two loops of forced unmounts

TEST_F(PvrPreparation, UnmountsUntilNothingIsMounted) {
  stackMounts(2, 1);
  EXPECT_TRUE(handler->PrepareDeviceForPvr(1));
  std::vector<std::string> steps;
  for (const std::string& event : journal().events()) {
    if (begins(event, "system umount") || begins(event, "log 3 @9") || begins(event, "system sfdisk") ||
        begins(event, "sleep") || begins(event, "system mkfs")) {
      steps.push_back(event);
    }
  }
  EXPECT_THAT(steps, ElementsAre("system " + forceUnmount, "log 3 @903 unmounted: /dev/usb_storage_sdb1",
                                 "system " + forceUnmount, "log 3 @903 unmounted: /dev/usb_storage_sdb1",
                                 "system " + forceUnmount, "system " + listTable + toLogFile, "sleep 4",
                                 "system " + forceUnmount,
                                 "log 3 @930 unmounted: /dev/usb_storage_sdb1 (after partition (re)created)",
                                 "system " + forceUnmount, "system " + makeFileSystem("MyDisk") + toLogFile,
                                 "sleep 2"));
}

TEST_F(PvrPreparation, UnmountsAtMostTenTimesInEachLoop) {
  stackMounts(1000, 1000);
  EXPECT_TRUE(handler->PrepareDeviceForPvr(1));
  EXPECT_EQ(journal().eventsBeginning("system umount").size(), 20U);
  EXPECT_EQ(journal().eventsBeginning("log 3 @903 ").size(), 10U);
  EXPECT_EQ(journal().eventsBeginning("log 3 @930 ").size(), 10U);
}

TEST_F(PvrPreparation, ContinuesWithoutALogLineIfUnmountingCannotBeTried) {
  makeFail("umount", -1);
  EXPECT_TRUE(handler->PrepareDeviceForPvr(1));
  EXPECT_EQ(journal().eventsBeginning("system umount").size(), 2U);
  EXPECT_THAT(journal().eventsBeginning("log 4"), IsEmpty());
}

// Failing tools

TEST_F(PvrPreparation, ContinuesIfTheOldTableCannotBeListedOrWiped) {
  for (const auto& [tool, command, line] :
       {std::tuple{"sfdisk", listTable, "908"}, std::tuple{"dd", wipeTable, "913"}}) {
    makeFail(tool, 256);
    journal().clear();
    EXPECT_TRUE(handler->PrepareDeviceForPvr(1));
    EXPECT_THAT(journal().eventsBeginning("log 4"),
                ElementsAre("log 4 @129 Warning: " + command + " returned 256 # from Line=" + line));
    EXPECT_EQ(journal().eventsBeginning("system mkfs.xfs").size(), 1U);
  }
}

TEST_F(PvrPreparation, StopsBeforeThePauseWhenTheDiskCannotBePartitioned) {
  for (const int status : {256, -1}) {
    makeFail("echo", status);
    journal().clear();
    EXPECT_FALSE(handler->PrepareDeviceForPvr(1));
    EXPECT_FALSE(handler->pvrPreparationRunning);
    EXPECT_THAT(journal().calls(),
                ElementsAre("new_probe /dev/usb_storage_sdb1", "do_probe /dev/usb_storage_sdb1",
                            "lookup /dev/usb_storage_sdb1 LABEL", "free_probe /dev/usb_storage_sdb1",
                            "system " + forceUnmount, "system " + listTable + toLogFile, passLog,
                            "system " + wipeTable + toLogFile, "system " + makePartition + toLogFile, passLog,
                            "scandir /dev"));
    EXPECT_THAT(journal().eventsBeginning("log 4"),
                ElementsAre("log 4 @129 Warning: " + makePartition + " returned " + std::to_string(status) +
                            " # from Line=917"));
  }
}

TEST_F(PvrPreparation, PartitionsNothingWhenWipingTheOldTableWasNotRun) {
  const std::string notExecuted =
      "log 5 @138 Not executed, since /tmp/Dockhand.log is not ours and cannot be moved";
  platform.claims["/tmp/Dockhand.log"] = Dockhand::Claim::refused;
  EXPECT_FALSE(handler->PrepareDeviceForPvr(1));
  EXPECT_FALSE(handler->pvrPreparationRunning);
  const auto events = journal().events();
  const auto begin = std::find(events.begin(), events.end(), "system " + forceUnmount);
  EXPECT_THAT(
      std::vector<std::string>(begin, events.end()),
      ElementsAre("system " + forceUnmount, "log 3 @124 Executing: " + listTable + " # from Line=908",
                  "statx /tmp/Dockhand.log", notExecuted,
                  "log 4 @129 Warning: " + listTable + " returned -1 # from Line=908",
                  "log 3 @124 Executing: " + wipeTable + " # from Line=913", "statx /tmp/Dockhand.log",
                  notExecuted, "log 4 @129 Warning: " + wipeTable + " returned -1 # from Line=913",
                  "log 2 @142 CheckForAndUpdateNewDevices", "scandir /dev",
                  "log 2 @196 entry: name=sdb number= matchFound=1",
                  "log 2 @196 entry: name=sdb1 number=1 matchFound=1"));
}

TEST_F(PvrPreparation, PartitionsADiskWhoseOldTableTheShellCouldNotStartToWipe) {
  for (const int status : {-1, 127 * 256}) {
    makeFail("dd", status);
    EXPECT_TRUE(handler->PrepareDeviceForPvr(1)) << status;
  }
}

TEST_F(PvrPreparation, IsNoLongerAnnouncedAfterAnException) {
  platform.systemStatus = [](const std::string&) -> int { throw std::bad_alloc(); };
  EXPECT_THROW(handler->PrepareDeviceForPvr(1), std::bad_alloc);
  EXPECT_FALSE(handler->pvrPreparationRunning);
  EXPECT_FALSE(lockIsHeld());
}

TEST_F(PvrPreparation, FailsAfterThePauseWhenTheFileSystemCannotBeMade) {
  makeFail("mkfs.xfs", 256);
  EXPECT_FALSE(handler->PrepareDeviceForPvr(1));
  EXPECT_FALSE(handler->pvrPreparationRunning);
  const auto calls = journal().calls();
  ASSERT_GT(calls.size(), 4U);
  EXPECT_THAT(
      std::vector<std::string>(calls.end() - 4, calls.end()),
      ElementsAre("system " + makeFileSystem("MyDisk") + toLogFile, passLog, "sleep 2", "scandir /dev"));
  EXPECT_THAT(
      journal().eventsBeginning("log 4"),
      ElementsAre("log 4 @129 Warning: " + makeFileSystem("MyDisk") + " returned 256 # from Line=934"));
}

TEST_F(PvrPreparation, PassesTheToolsOutputToTheLoggerAfterAFailure) {
  makeFail("sfdisk", 256);
  handler->PrepareDeviceForPvr(1);
  EXPECT_EQ(journal().eventsBeginning(passLog).size(), 2U);
  journal().clear();
  makeFail("dd", 256);
  handler->PrepareDeviceForPvr(1);
  EXPECT_EQ(journal().eventsBeginning(passLog).size(), 3U);
}

TEST_F(PvrPreparation, SeesWhatTheRescanFinds) {
  platform.systemStatus = [this](const std::string& command) {
    if (begins(command, "mkfs.xfs")) {
      platform.deviceNodes.emplace_back("usb_storage_sdc");
    }
    return 0;
  };
  handler->PrepareDeviceForPvr(1);
  EXPECT_EQ(entry(2).deviceName, "sdc");
}

TEST_F(PvrPreparation, GetsLabelAndRescanThroughVirtualCalls) {
  class Overriding : public TestableHandler {
   public:
    using TestableHandler::TestableHandler;
    void GetDeviceLabel(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId) override {
      EXPECT_EQ(deviceId, 1);
      _return.success = success;
      _return.text = "Overridden";
    }
    void CheckForAndUpdateNewDevices() override { ++rescans; }
    bool success = true;
    int rescans = 0;
  };
  Overriding overriding(platform);
  overriding.PrepareDeviceForPvr(1);
  EXPECT_EQ(overriding.rescans, 1);
  EXPECT_THAT(journal().eventsBeginning("system mkfs.xfs"),
              ElementsAre("system " + makeFileSystem("Overridden") + toLogFile));

  journal().clear();
  overriding.success = false;
  overriding.PrepareDeviceForPvr(1);
  EXPECT_THAT(journal().eventsBeginning("system mkfs.xfs"),
              ElementsAre("system " + makeFileSystem("PVR_DISK") + toLogFile));
}

TEST_F(PvrPreparation, LogsOnlyLinesFromTheThresholdUp) {
  stackMounts(1, 1);
  setThreshold(3);
  handler->PrepareDeviceForPvr(1);
  EXPECT_THAT(journal().logs(),
              ElementsAre("log 3 @903 unmounted: /dev/usb_storage_sdb1",
                          "log 3 @124 Executing: " + listTable + " # from Line=908",
                          "log 3 @124 Executing: " + wipeTable + " # from Line=913",
                          "log 3 @124 Executing: " + makePartition + " # from Line=917",
                          "log 3 @930 unmounted: /dev/usb_storage_sdb1 (after partition (re)created)",
                          "log 3 @124 Executing: " + makeFileSystem("MyDisk") + " # from Line=934"));
  journal().clear();
  setThreshold(4);
  entry(1).deviceOpen = true;
  handler->PrepareDeviceForPvr(1);
  handler->PrepareDeviceForPvr(9);
  EXPECT_THAT(journal().logs(), ElementsAre("log 4 @872 PrepareDeviceForPvr() - Device is Open!",
                                            "log 4 @866 PrepareDeviceForPvr() - Unknown device: 9"));
  journal().clear();
  setThreshold(5);
  handler->PrepareDeviceForPvr(1);
  handler->PrepareDeviceForPvr(9);
  EXPECT_THAT(journal().logs(), IsEmpty());
}

// The label

TEST_F(PvrPreparation, DoesNotKeepDefaultLabels) {
  for (const char* label : {"NONAME", "New Volume", "KRX_LOGS"}) {
    EXPECT_EQ(fileSystemCommand(label), makeFileSystem("PVR_DISK")) << label;
  }
}

TEST_F(PvrPreparation, KeepsLabelsThatOnlyResembleDefaultOnes) {
  for (const char* label : {"noname", "NONAME ", "NONAMES", "new volume", "New Volume2", "NewVolume",
                            "krx_logs", "KRX_LOG", "PVR_DISK", "a b", "''", "-L"}) {
    EXPECT_EQ(fileSystemCommand(label), makeFileSystem(label)) << label;
  }
  // Cutting must not produce an excluded text; all of them have fewer than 11 characters.
  EXPECT_EQ(fileSystemCommand("New Volume 12"), makeFileSystem("New Volume "));
}

TEST_F(PvrPreparation, NamesADiskWithoutALabelByTheDefault) {
  EXPECT_EQ(fileSystemCommand(""), makeFileSystem("PVR_DISK"));
  EXPECT_EQ(fileSystemCommand("A"), makeFileSystem("PVR_DISK"));
  platform.disks["/dev/usb_storage_sdb1"].opens = false;
  EXPECT_EQ(fileSystemCommand("Unreadable"), makeFileSystem("PVR_DISK"));
}

TEST_F(PvrPreparation, CutsALabelToElevenCharacters) {
  EXPECT_EQ(fileSystemCommand("1234567890"), makeFileSystem("1234567890"));
  EXPECT_EQ(fileSystemCommand("12345678901"), makeFileSystem("12345678901"));
  EXPECT_EQ(fileSystemCommand("123456789012"), makeFileSystem("12345678901"));
  EXPECT_EQ(fileSystemCommand("1234567890123456"), makeFileSystem("12345678901"));
  EXPECT_EQ(fileSystemCommand(std::string(65536, 'x')), makeFileSystem(std::string(11, 'x')));
}

TEST_F(PvrPreparation, CutsNoCharacterInTwo) {
  for (const std::string& character :
       {std::string("\xC3\xA4"), std::string("\xE2\x82\xAC"), std::string("\xF0\x9F\x8E\xA5"),
        // The first and the last of each length.
        std::string("\xC2\x80"), std::string("\xDF\xBF"), std::string("\xE0\xA0\x80"),
        std::string("\xEF\xBF\xBF"), std::string("\xF0\x90\x80\x80"), std::string("\xF4\x8F\xBF\xBF")}) {
    for (std::size_t before = 0; before <= 12; ++before) {
      std::string label(before, 'a');
      std::string kept = label.substr(0, 11);
      while (label.size() < 16) {
        if (label.size() == kept.size() && label.size() + character.size() <= 11) {
          kept += character;
        }
        label += character;
      }
      EXPECT_EQ(fileSystemCommand(label), makeFileSystem(kept)) << label;
    }
  }
}

TEST_F(PvrPreparation, CutsBytesThatAreNoCharactersAtElevenBytes) {
  for (const char byte : {'\x80', '\xBF', '\xC0', '\xE9', '\xF5', '\xFF'}) {
    EXPECT_EQ(fileSystemCommand(std::string(16, byte)), makeFileSystem(std::string(11, byte)));
    EXPECT_EQ(fileSystemCommand("abc" + std::string(16, byte)), makeFileSystem("abc" + std::string(8, byte)));
    EXPECT_EQ(fileSystemCommand(std::string(11, byte)), makeFileSystem(std::string(11, byte)));
  }
  // The 12th byte does not continue a character, or the character is complete.
  for (const std::string label :
       {"Aufnahme 20\xB0"
        "C",
        "abcdefgh\xE2\x82\xAC\xAC", "abcdefghi\xDF\xBF\xBF", "abcdefgh\xEF\xBF\xBF\xBF",
        "abcdefghi\xC3\xA4\xA4", "abcdefg\xF0\x9F\x8E\xA5\x80", "abcdefghij\xC1\xA4",
        "abcdefghij\xF5\x80\x80\x80", "abcdefgh\xC3\xA4\x80\x80", "abcdefg\x80\x80\x80\x80\x80"}) {
    EXPECT_EQ(fileSystemCommand(label), makeFileSystem(label.substr(0, 11))) << label;
  }
  // No character is this long.
  EXPECT_EQ(fileSystemCommand("1234567\xFB" + std::string(8, '\x80')),
            makeFileSystem("1234567\xFB" + std::string(3, '\x80')));
}

TEST_F(PvrPreparation, EscapesWhatTheShellWouldReadBetweenDoubleQuotes) {
  EXPECT_EQ(fileSystemCommand("\"; touch /tmp/x; \""), makeFileSystem("\\\"; touch /t"));
  EXPECT_EQ(fileSystemCommand("$(reboot)"), makeFileSystem("\\$(reboot)"));
  EXPECT_EQ(fileSystemCommand("`reboot`"), makeFileSystem("\\`reboot\\`"));
  EXPECT_EQ(fileSystemCommand("${HOME}"), makeFileSystem("\\${HOME}"));
  EXPECT_EQ(fileSystemCommand("disk\\"), makeFileSystem("disk\\\\"));
  EXPECT_EQ(fileSystemCommand("\\\\"), makeFileSystem("\\\\\\\\"));
  EXPECT_EQ(fileSystemCommand("a'b;c&d|e>f"), makeFileSystem("a'b;c&d|e>f"));
  // Escaped after the cut.
  EXPECT_EQ(fileSystemCommand("\"\"\"\"\"\"\"\"\"\"\"\"\""),
            makeFileSystem("\\\"\\\"\\\"\\\"\\\"\\\"\\\"\\\"\\\"\\\"\\\""));
}

TEST_F(PvrPreparation, DropsControlCharactersFromALabelAfterTheCut) {
  EXPECT_EQ(fileSystemCommand("one\nreboot"), makeFileSystem("onereboot"));
  EXPECT_EQ(fileSystemCommand("a\x01\x1F\x7F z"), makeFileSystem("a z"));
  EXPECT_EQ(fileSystemCommand("abc\n\n\n\n\n\n\n\ndef"), makeFileSystem("abc"));
  EXPECT_EQ(fileSystemCommand("\\\nx"), makeFileSystem("\\\\x"));
  EXPECT_EQ(fileSystemCommand("\n\r\t\x1B"), makeFileSystem("PVR_DISK"));
  EXPECT_EQ(fileSystemCommand(std::string(11, '\n') + "x"), makeFileSystem("PVR_DISK"));
}

TEST_F(PvrPreparation, ShowsTheEscapedCommandInTheLog) {
  makeFail("mkfs.xfs", 256);
  setLabel("$(reboot)");
  handler->PrepareDeviceForPvr(1);
  EXPECT_THAT(journal().eventsBeginning("log 3 @124 Executing: mkfs"),
              ElementsAre("log 3 @124 Executing: " + makeFileSystem("\\$(reboot)") + " # from Line=934"));
  EXPECT_THAT(
      journal().eventsBeginning("log 4"),
      ElementsAre("log 4 @129 Warning: " + makeFileSystem("\\$(reboot)") + " returned 256 # from Line=934"));
}

// The same through a real shell

/// A directory with stand-ins in bin/ that only record their arguments.
class StandIns {
 public:
  StandIns() {
    std::string pattern = (std::filesystem::temp_directory_path() / "pvr-label-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
      throw std::runtime_error("no temporary directory");
    }
    root_ = pattern;
    std::filesystem::create_directory(root_ / "bin");
    std::filesystem::create_directory(root_ / "work");
    for (const char* tool : {"mkfs.xfs", "reboot", "touch", "id", "rm"}) {
      const std::string path = (root_ / "bin" / tool).string();
      std::ofstream(path) << "#!/bin/sh\nprintf '%s\\0' \"${0##*/}\" \"$@\" >>\"$RECORD\"\n";
      chmod(path.c_str(), 0755);
    }
  }
  StandIns(const StandIns&) = delete;
  StandIns& operator=(const StandIns&) = delete;
  ~StandIns() {
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }

  /// Runs a command as system() does, in an empty directory. Returns its raw status.
  int run(const std::string& command) {
    std::filesystem::remove(record());
    const std::string line = "cd '" + (root_ / "work").string() + "' || exit 99\n" + command;
    std::string path = "PATH=" + (root_ / "bin").string();
    std::string recordTo = "RECORD=" + record().string();
    std::string shell = "sh";
    std::string option = "-c";
    std::string script = line;
    char* const arguments[] = {shell.data(), option.data(), script.data(), nullptr};
    char* const environment[] = {path.data(), recordTo.data(), nullptr};
    pid_t child = 0;
    if (posix_spawn(&child, "/bin/sh", nullptr, nullptr, arguments, environment) != 0) {
      throw std::runtime_error("no shell");
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
  }
  /// The names and arguments of all calls of stand-ins, in order.
  std::vector<std::string> recorded() const {
    std::ifstream file(record(), std::ios::binary);
    std::vector<std::string> words;
    for (std::string word; std::getline(file, word, '\0');) {
      words.push_back(word);
    }
    return words;
  }
  /// The files that the command left in its directory.
  std::vector<std::string> leftBehind() const {
    std::vector<std::string> names;
    for (const auto& file : std::filesystem::directory_iterator(root_ / "work")) {
      names.push_back(file.path().filename().string());
    }
    return names;
  }

 private:
  std::filesystem::path record() const { return root_ / "record"; }

  std::filesystem::path root_;
};

TEST_F(PvrPreparation, PassesAHostileLabelToMkfsAsOneArgumentAndRunsNothingElse) {
  const std::pair<std::string, std::string> labels[] = {
      {"MyDisk", "MyDisk"},
      {"\"; touch /tmp/x; \"", "\"; touch /t"},
      {"\";reboot;\"", "\";reboot;\""},
      {"\"\nreboot\n\"", "\"reboot\""},
      {"a\nreboot", "areboot"},
      {"$(reboot)", "$(reboot)"},
      {"`reboot`", "`reboot`"},
      {"\\`reboot\\`", "\\`reboot\\`"},
      {"\\$(reboot)", "\\$(reboot)"},
      {"\\\";reboot#", "\\\";reboot#"},
      {"disk\\", "disk\\"},
      {"1234567890\\reboot", "1234567890\\"},
      {"1234567890\"reboot", "1234567890\""},
      {"1234567890$PATH", "1234567890$"},
      {"12345678901\\", "12345678901"},
      {"\\\n\"", "\\\""},
      {"$PATH", "$PATH"},
      {"${PATH}", "${PATH}"},
      {"$$ $? $!", "$$ $? $!"},
      {"$((1+1))", "$((1+1))"},
      {"a;reboot", "a;reboot"},
      {"a&reboot&", "a&reboot&"},
      {"a|reboot", "a|reboot"},
      {"\">left", "\">left"},
      {"a>left<b", "a>left<b"},
      {"'; reboot;'", "'; reboot;'"},
      {"* ? ~ [a-z]", "* ? ~ [a-z]"},
      {"#!{a,b}", "#!{a,b}"},
      {"-n %s\\0a", "-n %s\\0a"},
      {"  two  ", "  two  "},
      {"\xC3\xA4\xC3\xB6\xC3\xBC\xC3\x9F\xE2\x82\xAC\xE2\x82\xAC\xC3\xA4",
       "\xC3\xA4\xC3\xB6\xC3\xBC\xC3\x9F\xE2\x82\xAC"},
      {std::string(16, '\xFF'), std::string(11, '\xFF')},
      {std::string(16, '\x81'), std::string(11, '\x81')},
      {"\x81\x82\x83\x84\x85\x86\x87\x88\x89", "\x81\x82\x83\x84\x85\x86\x87\x88\x89"},
      {"\xC3\"", "\xC3\""},
      {"\n\n", "PVR_DISK"}};
  StandIns standIns;
  for (const auto& [label, argument] : labels) {
    EXPECT_EQ(standIns.run(fileSystemCommand(label)), 0) << label;
    EXPECT_THAT(standIns.recorded(),
                ElementsAre("mkfs.xfs", "-f", "-l", "lazy-count=0", "-L", argument, "/dev/usb_storage_sdb1"))
        << label;
    EXPECT_THAT(standIns.leftBehind(), IsEmpty()) << label;
  }
}

TEST_F(PvrPreparation, PassesEveryByteOfALabelToMkfsOrDropsIt) {
  StandIns standIns;
  for (int byte = 1; byte < 256; ++byte) {
    const std::string character(1, static_cast<char>(byte));
    const bool control = byte < 0x20 || byte == 0x7F;
    const std::string label = "ab" + character + "cd";
    EXPECT_EQ(standIns.run(fileSystemCommand(label)), 0) << byte;
    const std::vector<std::string> expected = {
        "mkfs.xfs", "-f", "-l", "lazy-count=0", "-L", control ? "abcd" : label, "/dev/usb_storage_sdb1"};
    EXPECT_THAT(standIns.recorded(), ElementsAreArray(expected)) << byte;
  }
}

// Shows that the two tests above can fail.
TEST_F(PvrPreparation, StandInsWouldShowACommandHiddenInALabel) {
  StandIns standIns;
  standIns.run(R"(mkfs.xfs -L "";reboot;touch "" >left)");
  EXPECT_THAT(standIns.recorded(), ElementsAre("mkfs.xfs", "-L", "", "reboot", "touch", ""));
  EXPECT_THAT(standIns.leftBehind(), ElementsAre("left"));
}

}  // namespace
