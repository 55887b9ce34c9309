// The commands that change nothing.

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "Commands.h"
#include "CtlTest.h"
#include "LinuxPlatform.h"

namespace ctltest {
namespace {

using nlohmann::json;

class Reading : public CtlTest {
 protected:
  static json readJson(Arguments arguments, int exitCode = 0) {
    arguments.emplace_back("--json");
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.exitCode, exitCode) << outcome.err;
    return json::parse(outcome.out);
  }
};

TEST_F(Reading, ListsTheNumbersOfTheDevices) {
  EXPECT_THAT(run({"list"}), Ends(0, "", ""));
  EXPECT_EQ(readJson({"list"}), json::array());
  platform().deviceNodes = {"usb_storage_sda1", "usb_storage_sdb"};
  EXPECT_THAT(run({"list"}), Ends(0, "1\n2\n", ""));
  EXPECT_EQ(readJson({"list"}), json({1, 2}));
}

TEST_F(Reading, ListsHiddenDevicesOnRequestOnly) {
  plugInStick();
  EXPECT_THAT(run({"open", "1", "--pvr"}), Ends(0, "device 1 is open at /media/disk_1\n", ""));
  EXPECT_THAT(run({"list"}), Ends(0, "", ""));
  EXPECT_THAT(run({"list", "--all"}), Ends(0, "1\n", ""));
  EXPECT_THAT(run({"status"}), Ends(0, Not(HasSubstr("sda1")), ""));
  EXPECT_THAT(run({"status", "--all"}), Ends(0, HasSubstr("\n1 (hidden)  sda1"), ""));
  EXPECT_EQ(readJson({"status", "--all"}).at(0).at("hidden"), true);
}

TEST_F(Reading, ShowsAllDevicesInAnAlignedTable) {
  plugInStick("M\u00FCll \u5199\u771F");
  platform().deviceNodes.emplace_back("usb_storage_sdb");
  run({"open", "1"});
  EXPECT_THAT(run({"status"}),
              Ends(0,
                   "NO  NAME  LABEL      TYPE       CAPACITY   USB      OPEN  MOUNT POINT\n"
                   "1   sda1  M\u00FCll \u5199\u771F  removable  15267 MiB  2.10     yes   /media/disk_1\n"
                   "2   sdb   NONAME     unknown    unknown    unknown  no\n",
                   ""));
}

TEST_F(Reading, ShowsAllDevicesInJson) {
  plugInStick();
  EXPECT_EQ(readJson({"status"}), json::array({{{"device", 1},
                                                {"kernelName", "sda1"},
                                                {"label", "HOLIDAY"},
                                                {"uuid", "4F2A-1B3C"},
                                                {"type", "removable"},
                                                {"capacityMiB", 15267},
                                                {"usbVersion", "2.10"},
                                                {"open", false},
                                                {"mountPoint", nullptr},
                                                {"mountedAt", json::array()},
                                                {"fileSystem", "vfat"},
                                                {"contradiction", nullptr},
                                                {"hidden", false}}}));
}

TEST_F(Reading, ShowsADevice) {
  plugInStick();
  run({"open", "1"});
  EXPECT_THAT(run({"info", "1"}), Ends(0,
                                       "Device:       1\n"
                                       "Kernel name:  sda1\n"
                                       "Label:        HOLIDAY\n"
                                       "UUID:         4F2A-1B3C\n"
                                       "Type:         removable\n"
                                       "Capacity:     15267 MiB\n"
                                       "USB version:  2.10\n"
                                       "Open:         yes\n"
                                       "Mount point:  /media/disk_1\n"
                                       "Mounted at:   \"/media/disk_1\"\n"
                                       "File system:  vfat\n",
                                       ""));
  const json info = readJson({"info", "1"});
  EXPECT_EQ(info.at("mountPoint"), "/media/disk_1");
  EXPECT_EQ(info.at("open"), true);
  EXPECT_EQ(info.at("mountedAt"), json({"/media/disk_1"}));
}

TEST_F(Reading, SaysWhereTheMountTableDiffers) {
  plugInStick();
  world().addNode("sda1", "/dev/null", "ext4");
  setMountError(EINVAL);
  run({"open", "1"});
  const std::string complaint =
      "counts as open, but nothing is mounted at \"/media/disk_1\": its file system is ext4; close it "
      "(dockhandctl close 1), and see dockhand's log";
  for (const Arguments& command : {Arguments{"status"}, Arguments{"info", "1"}}) {
    EXPECT_THAT(run(command),
                Ends(1, HasSubstr("/media/disk_1"), "dockhandctl: device 1: " + complaint + "\n"));
  }
  for (const json& device : {readJson({"status"}, 1).at(0), readJson({"info", "1"}, 1)}) {
    EXPECT_EQ(device.at("contradiction"), complaint);
    EXPECT_EQ(device.at("mountedAt"), json::array());
    EXPECT_EQ(device.at("fileSystem"), "ext4");
  }
  run({"close", "1"});
  world().mount("sda1", "/mnt/my stick", "ext4");
  EXPECT_THAT(run({"info", "1"}), Ends(1, HasSubstr("Mounted at:   \"/mnt/my stick\"\nFile system:  ext4\n"),
                                       "dockhandctl: device 1: not open, but mounted at \"/mnt/my stick\"; "
                                       "unmount it (umount) before it is pulled out\n"));
  EXPECT_EQ(readJson({"status"}, 1).at(0).at("mountedAt"), json({"/mnt/my stick"}));
}

TEST_F(Reading, FailsWithoutAMountTable) {
  plugInStick();
  EXPECT_THAT(run({"status"}, {{{"DOCKHANDCTL_TEST_ROOT", "/nonexistent"}}}),
              Ends(9, "", HasSubstr("\"/nonexistent/proc/self/mountinfo\" cannot be read")));
}

TEST_F(Reading, PrintsOneValue) {
  plugInStick();
  run({"open", "1"});
  EXPECT_THAT(run({"label", "1"}), Ends(0, "HOLIDAY\n", ""));
  EXPECT_THAT(run({"uuid", "1"}), Ends(0, "4F2A-1B3C\n", ""));
  EXPECT_THAT(run({"usb-version", "1"}), Ends(0, "2.10\n", ""));
  EXPECT_THAT(run({"type", "1"}), Ends(0, "removable\n", ""));
  EXPECT_THAT(run({"capacity", "1"}), Ends(0, "15267 MiB\n", ""));
  EXPECT_THAT(run({"mount-point", "1"}), Ends(0, "/media/disk_1\n", ""));
  EXPECT_THAT(run({"kernel-name", "1"}), Ends(0, "sda1\n", ""));
  EXPECT_THAT(run({"is-open", "1"}), Ends(0, "yes\n", ""));
}

TEST_F(Reading, PrintsOneValueInJson) {
  plugInStick();
  run({"open", "1"});
  EXPECT_EQ(readJson({"label", "1"}), json({{"device", 1}, {"label", "HOLIDAY"}}));
  EXPECT_EQ(readJson({"uuid", "1"}), json({{"device", 1}, {"uuid", "4F2A-1B3C"}}));
  EXPECT_EQ(readJson({"usb-version", "1"}), json({{"device", 1}, {"usbVersion", "2.10"}}));
  EXPECT_EQ(readJson({"type", "1"}), json({{"device", 1}, {"type", "removable"}}));
  EXPECT_EQ(readJson({"capacity", "1"}), json({{"device", 1}, {"capacityMiB", 15267}}));
  EXPECT_EQ(readJson({"mount-point", "1"}), json({{"device", 1}, {"mountPoint", "/media/disk_1"}}));
  EXPECT_EQ(readJson({"kernel-name", "1"}), json({{"device", 1}, {"kernelName", "sda1"}}));
  EXPECT_EQ(readJson({"is-open", "1"}), json({{"device", 1}, {"open", true}}));
}

TEST_F(Reading, EndsWithAReasonWhereThereIsNoValue) {
  platform().deviceNodes = {"usb_storage_sda"};
  platform().systemStatus = [](const std::string&) { return 256; };
  EXPECT_THAT(run({"uuid", "1"}), Ends(1, "", StartsWith("dockhandctl: device 1: no UUID")));
  EXPECT_THAT(run({"usb-version", "1"}), Ends(1, "", HasSubstr("readUsbVersion.sh")));
  EXPECT_THAT(run({"type", "1"}), Ends(1, "", HasSubstr("removable")));
  EXPECT_THAT(run({"capacity", "1"}), Ends(1, "", HasSubstr("device 1: its node")));
  EXPECT_THAT(run({"mount-point", "1"}), Ends(1, "", "dockhandctl: device 1: it is not open\n"));
  EXPECT_THAT(run({"is-open", "1"}), Ends(1, "no\n", ""));
  EXPECT_EQ(readJson({"uuid", "1"}, 1), json({{"device", 1}, {"uuid", nullptr}}));
  EXPECT_EQ(readJson({"is-open", "1"}, 1), json({{"device", 1}, {"open", false}}));
}

TEST_F(Reading, ShowsWhereAFailedOpeningWasTried) {
  plugInStick();
  setMountError(ENODEV);
  run({"open", "1"});
  EXPECT_THAT(run({"mount-point", "1"}),
              Ends(1, "", HasSubstr("not open; the last attempt to open it at \"/media/disk_1\" failed")));
}

TEST_F(Reading, ListsFilesOfAnOpenDevice) {
  plugInStick();
  run({"open", "1"});
  platform().directories["/media/disk_1/music"] = {"a.mp3", "B.MP3", "c.txt"};
  platform().directories["/media/disk_1/"] = {"-.mp3"};
  EXPECT_THAT(run({"files", "1", "music", "mp3"}), Ends(0, "a.mp3\nB.MP3\n", ""));
  EXPECT_THAT(run({"files", "1", "", "mp3"}), Ends(0, "-.mp3\n", ""));
  EXPECT_THAT(run({"files", "1", "nowhere", "mp3"}), Ends(0, "", ""));
  EXPECT_EQ(readJson({"files", "1", "music", "mp3"}), json({{"device", 1},
                                                            {"directory", "music"},
                                                            {"extension", "mp3"},
                                                            {"files", {"a.mp3", "B.MP3"}},
                                                            {"mayBeCut", nullptr}}));
}

TEST_F(Reading, WarnsWhenTheDaemonMayNotHaveReadADirectoryToItsEnd) {
  plugInStick();
  const std::string stick = std::filesystem::canonical(service().sockets.path()) / "bomb";
  std::filesystem::create_directories(stick + "/music");
  for (const std::string name : {"a.mp3", "b.mp3", "c"}) {
    std::ofstream(stick + "/music/" + name) << "x";
  }
  run({"open", "1", "--at", stick});
  platform().directories[stick + "/music"] = {"a.mp3"};
  // "." and ".." count: 5 entries, 14 bytes.
  for (const auto& [bounds, mayBeCut] : std::vector<std::pair<dockhandctl::DirectoryBounds, bool>>{
           {{4, 1000}, true}, {{5, 1000}, false}, {{1000, 13}, true}, {{1000, 14}, false}, {{}, false}}) {
    dockhandctl::Settings settings;
    settings.json = true;
    settings.directoryBounds = bounds;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(dockhandctl::files(settings, 1, "music", "mp3"), 0);
    EXPECT_EQ(json::parse(testing::internal::GetCapturedStdout()).at("mayBeCut"), mayBeCut);
    EXPECT_EQ(
        testing::internal::GetCapturedStderr(),
        mayBeCut
            ? "dockhandctl: device 1: files may be missing: \"" + stick +
                  "/music\" has more names than dockhand reads of one directory; spread them over several\n"
            : "");
  }
}

TEST_F(Reading, HasTheDaemonsLimitForADirectory) {
  EXPECT_EQ(dockhandctl::DirectoryBounds().entries, Dockhand::DirectoryLimits().entries);
  EXPECT_EQ(dockhandctl::DirectoryBounds().nameBytes, Dockhand::DirectoryLimits().nameBytes);
}

TEST_F(Reading, ListsNoFilesOfADeviceThatIsNotOpen) {
  plugInStick();
  platform().directories["/etc"] = {"secret.conf"};
  EXPECT_THAT(run({"files", "1", "etc", "conf"}), Ends(1, "", HasSubstr("device 1: it is not open")));
  EXPECT_THAT(journal().eventsBeginning("opendir"), IsEmpty());
}

TEST_F(Reading, FindsADeviceThatWasPluggedInAfterTheLastScan) {
  plugInStick();
  EXPECT_THAT(run({"label", "1"}), Ends(0, "HOLIDAY\n", ""));
}

TEST_F(Reading, NamesTheKnownDevicesWhenOneIsUnknown) {
  EXPECT_THAT(run({"label", "5"}), Ends(3, "", "dockhandctl: device 5: no such device; there is none\n"));
  platform().deviceNodes = {"usb_storage_sda1"};
  EXPECT_THAT(run({"label", "5"}), Ends(3, "", "dockhandctl: device 5: no such device; there is 1\n"));
  platform().deviceNodes = {"usb_storage_sda1", "usb_storage_sdb1"};
  for (const std::string command : {"info", "label", "uuid", "usb-version", "type", "capacity", "mount-point",
                                    "kernel-name", "is-open"}) {
    EXPECT_THAT(run({command, "5"}), Ends(3, "", "dockhandctl: device 5: no such device; there are 1, 2\n"))
        << command;
  }
  EXPECT_THAT(run({"files", "5", "etc", "conf"}), Ends(3, "", HasSubstr("device 5: no such device")));
  EXPECT_THAT(run({"label", "-1"}), Ends(3, "", HasSubstr("device -1: no such device")));
}

TEST_F(Reading, EscapesControlCharactersOfALabel) {
  plugInStick("\x1B[2J\xC2\x9B\\ \xE2\x80\xAE\xFFx\n");
  const std::string shown = R"(\x1B[2J\xC2\x9B\\ \xE2\x80\xAE\xFFx\x0A)";
  EXPECT_THAT(run({"label", "1"}), Ends(0, shown + "\n", ""));
  EXPECT_THAT(run({"status"}), Ends(0, HasSubstr(shown), ""));
  EXPECT_THAT(run({"info", "1"}), Ends(0, HasSubstr(shown), ""));
}

TEST_F(Reading, WritesAHostileLabelAsValidJson) {
  plugInStick("\x1B\"\xC2\x9B\xFFx\u00FC");
  const Outcome outcome = run({"label", "1", "--json"});
  EXPECT_EQ(json::parse(outcome.out).at("label"), "\x1B\"\u009B\uFFFDx\u00FC");
  EXPECT_TRUE(std::all_of(outcome.out.begin(), outcome.out.end(),
                          [](char c) { return c == '\n' || (c >= ' ' && c <= '~'); }));
}

TEST_F(Reading, EscapesFileNames) {
  plugInStick();
  run({"open", "1"});
  platform().directories["/media/disk_1/"] = {"a\nb.mp3"};
  EXPECT_THAT(run({"files", "1", "", "mp3"}), Ends(0, "a\\x0Ab.mp3\n", ""));
}

}  // namespace
}  // namespace ctltest
