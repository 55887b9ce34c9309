// A stick becomes a recording disk, and a damaged recording disk is repaired, with the image's wrappers and
// the real tools.

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <stdexcept>
#include <string>
#include <vector>

#include "SystemLog.h"
#include "SystemTest.h"

namespace systest {
namespace {

namespace fs = std::filesystem;
using testing::AnyOf;

StickOptions diskLabelled(const std::string& label) {
  StickOptions options;
  options.bytes = enoughForXfs;
  options.partitioned = true;
  options.mkfs = {"mkfs.ext3", "-q", "-F", "-L", label};
  return options;
}

/// A PATH with only these tools of the system.
Environment withOnly(const std::vector<std::string>& tools) {
  for (const std::string& tool : tools) {
    fs::create_symlink(run({"/bin/sh", "-c", "printf %s \"$(command -v " + tool + ")\""}),
                       "/tmp/bin/" + tool);
  }
  return {{"PATH", "/tmp/bin"}};
}

class RecordingDiskTest : public SystemTest {
 protected:
  static std::string blkidValue(const std::string& node, const std::string& key) {
    std::string value = run({"blkid", "--probe", "--output", "value", "--match-tag", key, node});
    if (!value.empty() && value.back() == '\n') {
      value.pop_back();
    }
    return value;
  }

  static void expectRecordingDisk(const Stick& stick, const std::string& label) {
    EXPECT_EQ(blkidValue(stick.node(), "TYPE"), "xfs");
    EXPECT_EQ(blkidValue(stick.node(), "LABEL"), label);
    const std::string table = run({"sfdisk", "--dump", stick.image()});
    EXPECT_THAT(table, HasSubstr("label: dos"));
    EXPECT_THAT(table, HasSubstr(": start=        2048, size=     1062912, type=83\n"));
    EXPECT_EQ(table.find("start="), table.rfind("start=")) << table;
  }

  static std::string bytesAt(const std::string& image, std::uint64_t offset) {
    std::ifstream file(image, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(offset));
    std::string bytes(512, '?');
    file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return bytes;
  }

  static std::size_t countOf(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
      ++count;
    }
    return count;
  }
};

using PreparationTest = RecordingDiskTest;

TEST_F(PreparationTest, KeepsTheFirstElevenCharactersOfTheLabel) {
  SystemLog systemLog;
  auto [stick, daemon, client] = serve(diskLabelled("MY RECORDER 2026"), withImageTools());
  ASSERT_TRUE(client->PrepareDeviceForPvr(1)) << daemon.log();
  expectRecordingDisk(stick, "MY RECORDER");
  EXPECT_EQ(client.label(1).text, "MY RECORDER");
  EXPECT_THAT(client.devices(), ElementsAre(1));
  EXPECT_EQ(client.physicalDevice(1).text, "sda1");
  // The system log keeps the old partition table.
  EXPECT_THAT(systemLog.text(), HasSubstr("Dockhand: Disk /dev/usb_storage_sda: 520 MiB"));
}

TEST_F(PreparationTest, ReplacesTheFactoryLabelWithTheDefaultLabel) {
  auto [stick, daemon, client] = serve(diskLabelled("New Volume"), withImageTools());
  ASSERT_TRUE(client->PrepareDeviceForPvr(1)) << daemon.log();
  expectRecordingDisk(stick, "PVR_DISK");
}

TEST_F(PreparationTest, UnmountsAnOpenDiskAndGivesItTheDefaultLabel) {
  auto [stick, daemon, client] = serve(diskLabelled("HOLIDAY"), withImageTools());
  ASSERT_TRUE(client->OpenDevice(1));
  ASSERT_TRUE(client->PrepareDeviceForPvr(1)) << daemon.log();
  EXPECT_THAT(mountsAt("/media/disk_1"), IsEmpty());
  expectRecordingDisk(stick, "PVR_DISK");
  EXPECT_EQ(countOf(daemon.log(), "unmounted: /dev/usb_storage_sda1\n"), 1U);
}

TEST_F(PreparationTest, RemovesEveryMountOfADiskThatIsMountedTwice) {
  const Stick stick(diskLabelled("HOLIDAY"));
  for (const char* target : {"/media/one", "/media/two"}) {
    mkdir(target, 0755);
    ASSERT_EQ(mount(stick.node().c_str(), target, "ext3", 0, ""), 0);
  }
  const Daemon daemon(withImageTools());
  UsbClient client;
  ASSERT_TRUE(client->PrepareDeviceForPvr(1)) << daemon.log();
  expectRecordingDisk(stick, "HOLIDAY");
  EXPECT_EQ(countOf(daemon.log(), "unmounted: /dev/usb_storage_sda1\n"), 2U);
}

TEST_F(PreparationTest, LeavesNothingOfAnOlderTable) {
  const std::string image = "/tmp/used.img";
  const std::string sector(512, '\0');
  for (const bool isGpt : {true, false}) {
    writeFile(image, "");
    fs::resize_file(image, enoughForXfs);
    if (isGpt) {
      run({"/bin/sh", "-c", "echo 2048 | sfdisk --quiet --label gpt " + image});
    } else {
      // A BSD label, which fdisk would extend.
      const std::string magic = "\x57\x45\x56\x82";
      std::string label(276, '\0');
      label.replace(0, 4, magic).replace(40, 4, std::string("\0\x02\0\0", 4)).replace(132, 4, magic);
      label.replace(138, 1, "\x08");
      overwrite(image, 512, label);
    }
    StickOptions options;
    options.copyOf = image;
    options.partitioned = true;
    const Stick stick(options);
    run({"mkfs.ext3", "-q", "-F", stick.node()});
    const Daemon daemon(withImageTools());
    UsbClient client;
    EXPECT_TRUE(client->PrepareDeviceForPvr(1)) << daemon.log();
    expectRecordingDisk(stick, "PVR_DISK");
    EXPECT_TRUE(bytesAt(stick.image(), 512) == sector);
    EXPECT_TRUE(bytesAt(stick.image(), enoughForXfs - 512) == sector);
  }
}

TEST_F(PreparationTest, RunsNoCommandFromALabel) {
  // Each label, and its form on the recording disk: at most 11 bytes, cut between characters, without control
  // characters.
  const std::vector<std::pair<std::string, std::string>> labels = {
      {"\";>/tmp/ran;\"", "\";>/tmp/ran"},
      {"$(>/tmp/ran)", "$(>/tmp/ran"},
      {"`>/tmp/ran`", "`>/tmp/ran`"},
      {"ends with \\", "ends with \\"},
      {"two\nlines", "twolines"},
      {"\"; touch /tmp/x; \"", ""},
      {"\xC3\xA4\xC3\xB6\xC3\xBC\xC3\x9F\xC3\xA4\xC3\xB6\xC3\xBC\xC3\x9F",
       "\xC3\xA4\xC3\xB6\xC3\xBC\xC3\x9F\xC3\xA4"},
  };
  auto [stick, daemon, client] = serve(diskLabelled("x"), withImageTools());
  for (const auto& [label, kept] : labels) {
    const std::string fitting = label.substr(0, 16);
    run({"mkfs.ext3", "-q", "-F", "-L", fitting, stick.node()});
    ASSERT_EQ(client.label(1).text, fitting);
    EXPECT_TRUE(client->PrepareDeviceForPvr(1)) << label << "\n" << daemon.log();
    expectRecordingDisk(stick, kept.empty() ? fitting.substr(0, 11) : kept);
    EXPECT_FALSE(fs::exists("/tmp/ran")) << label;
    EXPECT_FALSE(fs::exists("/tmp/x")) << label;
  }
}

TEST_F(PreparationTest, FailsWithoutAToolAndPassesTheShellsErrorToTheSystemLog) {
  SystemLog systemLog;
  auto [stick, daemon, client] =
      serve(diskLabelled("HOLIDAY"), withOnly({"umount", "sfdisk", "dd", "logger"}));
  EXPECT_FALSE(client->PrepareDeviceForPvr(1));
  EXPECT_THAT(systemLog.text(), HasSubstr("fdisk: not found"));
  EXPECT_THAT(daemon.log(), HasSubstr("Warning: echo -e 'n\\np\\n1\\n\\n\\nw' | fdisk /dev/usb_storage_sda "
                                      "returned 32512 # from Line=917"));
  EXPECT_THAT(client.devices(), ElementsAre(1));
}

TEST_F(PreparationTest, FailsOnAWriteProtectedDisk) {
  SystemLog systemLog;
  StickOptions options = diskLabelled("HOLIDAY");
  options.partitioned = false;
  options.readOnly = true;
  auto [stick, daemon, client] = serve(options, withImageTools());
  EXPECT_FALSE(client->PrepareDeviceForPvr(1));
  EXPECT_THAT(systemLog.text(), HasSubstr("fdisk: failed to write disklabel"));
  EXPECT_EQ(client.label(1).text, "HOLIDAY");
}

TEST_F(PreparationTest, FailsIfTheLogFileCannotBeWritten) {
  auto [stick, daemon, client] = serve(diskLabelled("HOLIDAY"), withImageTools());
  ASSERT_EQ(mount("none", "/tmp", "tmpfs", 0, "nr_inodes=1"), 0);
  const bool prepared = client->PrepareDeviceForPvr(1);
  ASSERT_EQ(umount("/tmp"), 0);
  EXPECT_FALSE(prepared);
  // No tool ran, so nothing is lost.
  EXPECT_EQ(client.label(1).text, "HOLIDAY");
  EXPECT_THAT(client.devices(), ElementsAre(1));
}

TEST_F(PreparationTest, FailsWhenTheDiskDisappearsBetweenTwoSteps) {
  const Stick stick(diskLabelled("HOLIDAY"));
  makeTool("sfdisk", "rm /dev/usb_storage_sda /dev/usb_storage_sda1\n");
  const Daemon daemon(withImageTools());
  UsbClient client;
  EXPECT_FALSE(client->PrepareDeviceForPvr(1));
  // No tool has left a file that looks like a disk.
  EXPECT_THAT(client.devices(), IsEmpty());
  EXPECT_TRUE(daemon.isRunning());
}

class RepairTest : public RecordingDiskTest {
 protected:
  static inline const std::string film = std::string(100000, 'f');

  static std::string recordingImage() { return systest::recordingImage({{"film.ts", film}}); }

  /// A recording disk whose journal has changes that are not replayed yet.
  static std::string imagePulledOutWhileMounted() {
    const std::string image = recordingImage();
    const Stick mounted(copyOf(image));
    mkdir("/media/recorder", 0755);
    if (mount(mounted.node().c_str(), "/media/recorder", "xfs", 0, "") != 0) {
      throw std::runtime_error("the recording disk cannot be mounted");
    }
    for (int i = 0; i < 100; ++i) {
      writeFile("/media/recorder/cut" + std::to_string(i), "some");
    }
    sync();
    run({"cp", "--sparse=always", mounted.image(), image});
    umount("/media/recorder");
    return image;
  }

  static void expectFilmIsThere(const Stick& stick) {
    lookInto(stick, [] { EXPECT_EQ(readFile("/media/look/film.ts"), film); });
  }
};

TEST_F(RepairTest, AcceptsAnUndamagedDisk) {
  auto [stick, daemon, client] = serve(copyOf(recordingImage()), withImageTools());
  EXPECT_TRUE(client->RunDiskRepair(1)) << daemon.log();
  EXPECT_THAT(daemon.log(), HasSubstr("xfs_repair PASSED"));
  EXPECT_THAT(namesIn("/media"), IsEmpty());
  expectFilmIsThere(stick);
}

TEST_F(RepairTest, RepairsADiskThatWasPulledOutWhileMounted) {
  auto [stick, daemon, client] = serve(copyOf(imagePulledOutWhileMounted()), withImageTools());
  EXPECT_TRUE(client->RunDiskRepair(1)) << daemon.log();
  expectFilmIsThere(stick);
}

TEST_F(RepairTest, RepairsAZeroedAllocationGroupHeader) {
  const std::string image = recordingImage();
  const std::uint64_t secondGroup = superblockValue(image, "agblocks") * superblockValue(image, "blocksize");
  overwrite(image, secondGroup, std::string(2048, '\0'));
  auto [stick, daemon, client] = serve(copyOf(image), withImageTools());
  EXPECT_TRUE(client->RunDiskRepair(1)) << daemon.log();
  EXPECT_NE(run({"dd", "if=" + stick.image(), "bs=1", "skip=" + std::to_string(secondGroup), "count=4",
                 "status=none"}),
            std::string(4, '\0'));
  expectFilmIsThere(stick);
}

TEST_F(RepairTest, ZeroesALogThatCannotBeReplayed) {
  const std::string image = imagePulledOutWhileMounted();
  const std::uint64_t start = superblockValue(image, "logstart");
  const std::uint64_t groupBits = superblockValue(image, "agblklog");
  const std::uint64_t log = ((start >> groupBits) * superblockValue(image, "agblocks") +
                             (start & ((std::uint64_t{1} << groupBits) - 1))) *
                            superblockValue(image, "blocksize");
  // Each sector keeps its beginning, which marks the ends of the log, and loses some of its content.
  for (std::uint64_t sector = 0; sector < 4096; ++sector) {
    overwrite(image, log + sector * 512 + 100, "damaged");
  }
  auto [stick, daemon, client] = serve(copyOf(image), withImageTools());
  EXPECT_TRUE(client->RunDiskRepair(1)) << daemon.log();
  EXPECT_THAT(daemon.log(), HasSubstr("Executing: xfs_repair -L /dev/usb_storage_sda # from Line=1248"));
  expectFilmIsThere(stick);
}

TEST_F(RepairTest, RefusesAnOpenDiskAndOtherFileSystems) {
  auto [stick, daemon, client] = serve({}, withImageTools());
  EXPECT_FALSE(client->RunDiskRepair(1));
  EXPECT_THAT(daemon.log(), HasSubstr("repair not supported for: ext3"));
  ASSERT_TRUE(client->OpenDevice(1));
  EXPECT_FALSE(client->RunDiskRepair(1));
  EXPECT_THAT(daemon.log(), HasSubstr("RunDiskRepair(1) - device open!"));
  EXPECT_EQ(mountsAt("/media/disk_1").size(), 1U);
}

TEST_F(RepairTest, FailsWithoutTheToolAndPassesTheShellsErrorToTheSystemLog) {
  SystemLog systemLog;
  auto [stick, daemon, client] = serve(copyOf(recordingImage()), withOnly({"umount", "logger"}));
  EXPECT_FALSE(client->RunDiskRepair(1));
  EXPECT_THAT(systemLog.text(), HasSubstr("xfs_repair: not found"));
  EXPECT_THAT(daemon.log(), HasSubstr("xfs_repair FAILED"));
  EXPECT_THAT(client.devices(), ElementsAre(1));
}

TEST_F(RepairTest, ServesOtherDevicesAndRefusesToOpenItsOwn) {
  const Stick recorder(copyOf(recordingImage(), "sda"));
  StickOptions holiday;
  holiday.kernelName = "sdb";
  const Stick other(holiday);
  // Opening a fifo waits for the other side. The first fifo opens when the repair has begun. The repair ends
  // when the second fifo opens.
  ASSERT_EQ(mkfifo("/tmp/bin/begun", 0600), 0);
  ASSERT_EQ(mkfifo("/tmp/bin/goon", 0600), 0);
  makeTool("xfs_repair", ": >/tmp/bin/begun\nread -r line </tmp/bin/goon\nexit 0\n");
  const Daemon daemon(withImageTools());
  auto repairing = std::async(std::launch::async, [] {
    UsbClient client;
    return client->RunDiskRepair(1);
  });
  readFile("/tmp/bin/begun");

  UsbClient client;
  EXPECT_THAT(client.devices(), ElementsAre(1, 2));
  EXPECT_FALSE(client->OpenDevice(1));
  EXPECT_THAT(daemon.log(), HasSubstr("Disk repair is running, cannot open dev 1"));
  EXPECT_TRUE(client->OpenDevice(2));
  EXPECT_FALSE(client->RunDiskRepair(1));
  EXPECT_THAT(daemon.log(), HasSubstr("RunDiskRepair(1) - repair already running!"));
  EXPECT_FALSE(client->OpenDevice(1));

  writeFile("/tmp/bin/goon", "\n");
  EXPECT_TRUE(repairing.get());
  EXPECT_TRUE(client->CloseDevice(2));
}

}  // namespace
}  // namespace systest
