// The file systems of sticks, as this kernel mounts them.

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>

#include "SystemTest.h"

namespace systest {
namespace {

/// errno of the daemon's last attempt, which decides the reply if no file system fits; 0 if it mounts.
int errorOfLastTry(const std::string& node) {
  mkdir("/tmp/last_try", 0755);
  if (mount(node.c_str(), "/tmp/last_try", "xfs", MS_NOSUID | MS_NOEXEC | MS_NOATIME, "prjquota") != 0) {
    return errno;
  }
  umount("/tmp/last_try");
  return 0;
}

bool isAcceptedError(int error) {
  return error == EBUSY || error == EINVAL;
}

class FileSystemsTest : public SystemTest {
 protected:
  /// Opens the stick, reads a file, and writes one if the stick is writable. `option` is in the mount table.
  static void expectOpens(const Stick& stick, const std::string& type, const std::string& option,
                          const Environment& environment = {}) {
    const Daemon daemon(environment);
    UsbClient client;
    ASSERT_TRUE(client->OpenDevice(1));
    const std::vector<Mount> mounts = mountsAt("/media/disk_1");
    ASSERT_EQ(mounts.size(), 1U);
    EXPECT_EQ(mounts[0].source, stick.node());
    EXPECT_EQ(mounts[0].type, type);
    EXPECT_THAT("," + mounts[0].options + ",", HasSubstr("," + option + ","));
    if (option == "rw") {
      writeFile("/media/disk_1/diary.txt", "a fine day");
      EXPECT_EQ(readFile("/media/disk_1/diary.txt"), "a fine day");
    }
    EXPECT_TRUE(client->CloseDevice(1));
    EXPECT_THAT(namesIn("/media"), IsEmpty());
  }

  /// A stick that no file system fits: the daemon replies that it is open if the kernel's last error is
  /// "invalid superblock".
  static void expectOpenedWithoutMount(const Stick& stick) {
    const int error = errorOfLastTry(stick.node());
    const Daemon daemon;
    UsbClient client;
    EXPECT_EQ(client->OpenDevice(1), isAcceptedError(error)) << std::strerror(error);
    EXPECT_EQ(client->IsDeviceOpen(1), isAcceptedError(error));
    EXPECT_EQ(client.mountPoint(1).text, "/media/disk_1");
    EXPECT_THAT(mountsAt("/media/disk_1"), IsEmpty());
    if (isAcceptedError(error)) {
      EXPECT_THAT(namesIn("/media"), ElementsAre("disk_1"));
      EXPECT_TRUE(client->CloseDevice(1));
    }
    EXPECT_THAT(namesIn("/media"), IsEmpty());
  }
};

struct Row {
  using IsRow = void;
  std::string name;
  std::vector<std::string> mkfs;
  /// The type of its mount, and an option of it.
  std::string type;
  std::string option;
  bool readOnly = false;
};

class EachFileSystemTest : public FileSystemsTest, public testing::WithParamInterface<Row> {};

TEST_P(EachFileSystemTest, Mounts) {
  if (GetParam().type != "ext3" && !kernelKnowsFileSystem(GetParam().type)) {
    GTEST_SKIP() << "kernel has no " << GetParam().type;
  }
  StickOptions options;
  options.mkfs = GetParam().mkfs;
  options.readOnly = GetParam().readOnly;
  const Stick stick(options);
  expectOpens(stick, GetParam().type, GetParam().option);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, EachFileSystemTest,
    testing::Values(Row{"Ext3ReadWrite", StickOptions().mkfs, "ext3", "rw"},
                    Row{"WriteProtectedStickReadOnly", StickOptions().mkfs, "ext3", "ro", true},
                    Row{"Ext4WithoutExtentsAsExt3InTheSecondPass",
                        {"mkfs.ext4", "-q", "-F", "-O", "^extents,^64bit,^metadata_csum,^flex_bg,huge_file"},
                        "ext3",
                        "ro"},
                    Row{"FatReadWrite", {"mkfs.vfat", "-n", "FAT"}, "vfat", "rw"},
                    Row{"Ntfs", {"mkfs.ntfs", "--quick", "--force"}, "ntfs", "nosuid"},
                    Row{"HfsPlusReadOnly", {"mkfs.hfsplus"}, "hfsplus", "ro"}),
    nameOf<Row>);

TEST_F(FileSystemsTest, Ext4WithExtentsIsRecognisedButDoesNotMount) {
  StickOptions options;
  options.mkfs = {"mkfs.ext4", "-q", "-F", "-L", "MODERN"};
  const Stick stick(options);
  expectOpenedWithoutMount(stick);
  const Daemon daemon;
  UsbClient client;
  EXPECT_EQ(client.label(1).text, "MODERN");
}

TEST_F(FileSystemsTest, EmptyStickCountsAsOpenWhenTheKernelCallsItsSuperblockInvalid) {
  StickOptions options;
  options.mkfs = {};
  const Stick stick(options);
  expectOpenedWithoutMount(stick);
}

TEST_F(FileSystemsTest, XfsMountsWithProjectQuota) {
  if (!kernelKnowsFileSystem("xfs")) {
    GTEST_SKIP() << "kernel has no xfs";
  }
  StickOptions options;
  options.mkfs = {"mkfs.xfs", "-q", "-f", "-L", "RECORD"};
  options.bytes = std::uint64_t{320} << 20;
  const Stick stick(options);
  const int error = errorOfLastTry(stick.node());
  if (error == EINVAL) {
    ASSERT_EQ(mount(stick.node().c_str(), "/tmp/last_try", "xfs", 0, "noquota"), 0) << std::strerror(errno);
    umount("/tmp/last_try");
    GTEST_SKIP() << "kernel has no xfs quota: it mounts this stick without quota, but not with prjquota";
  }
  expectOpens(stick, "xfs", "rw");
}

/// Sticks under a mount policy.
class MountPolicyTest : public FileSystemsTest {
 protected:
  static Environment policy(const std::string& text) {
    writeFile("/tmp/mounts", text);
    return {{"DOCKHAND_MOUNTS", "/tmp/mounts"}};
  }
  /// Opening fails with this reason, and leaves nothing behind.
  static void expectRefused(const Environment& environment, const std::string& reason) {
    const Daemon daemon(environment);
    UsbClient client;
    EXPECT_FALSE(client->OpenDevice(1));
    EXPECT_FALSE(client->IsDeviceOpen(1));
    EXPECT_THAT(mountsAt("/media/disk_1"), IsEmpty());
    EXPECT_THAT(namesIn("/media"), IsEmpty());
    EXPECT_THAT(daemon.log(), HasSubstr(" 5 Dockhand.UsbClient Src/Dockhand/DockhandClient:781 " + reason));
  }
};

struct PolicyRow {
  using IsRow = void;
  std::string name;
  std::string policy;
  std::vector<std::string> mkfs;
  /// The type of its mount, and options of it.
  std::string type;
  std::vector<std::string> options;
  bool readOnly = false;
};

class EachPolicyTest : public MountPolicyTest, public testing::WithParamInterface<PolicyRow> {};

TEST_P(EachPolicyTest, Mounts) {
  StickOptions options;
  options.mkfs = GetParam().mkfs;
  options.readOnly = GetParam().readOnly;
  const Stick stick(options);
  for (const std::string& option : GetParam().options) {
    expectOpens(stick, GetParam().type, option, policy(GetParam().policy));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Rows, EachPolicyTest,
    testing::Values(
        PolicyRow{
            "Ext4", "ext4 ext4 nosuid,nodev\n", {"mkfs.ext4", "-q", "-F"}, "ext4", {"rw", "nosuid", "nodev"}},
        PolicyRow{"Ext2AsExt4",
                  "ext2 ext4 noatime,noexec\n",
                  {"mkfs.ext2", "-q", "-F"},
                  "ext4",
                  {"rw", "noatime", "noexec"}},
        PolicyRow{"Ext2AsRest",
                  "ext3 refuse -\n* ext2 sync,dirsync\n",
                  {"mkfs.ext2", "-q", "-F"},
                  "ext2",
                  {"rw", "sync", "dirsync"}},
        PolicyRow{"Ext3ThatAsksForPanic",
                  "ext3 ext4 errors=remount-ro\n",
                  {"mkfs.ext3", "-q", "-F", "-e", "panic"},
                  "ext4",
                  {"rw", "errors=remount-ro"}},
        PolicyRow{"WriteProtectedStickReadOnly",
                  "ext3 ext3 nodev\n",
                  StickOptions().mkfs,
                  "ext3",
                  {"ro", "nodev"},
                  true},
        PolicyRow{"ReadOnlyByItsRow", "ext3 ext3 ro\n", StickOptions().mkfs, "ext3", {"ro"}},
        PolicyRow{"GroupThatTheFileSystemTakes",
                  "ext4 ext4 resgid=0\n* ext4 -\n",
                  StickOptions().mkfs,
                  "ext4",
                  {"rw"}},
        PolicyRow{
            "TypeWithoutARowByTheTable", "ext4 refuse -\n", StickOptions().mkfs, "ext3", {"rw", "nosuid"}}),
    nameOf<PolicyRow>);

TEST_F(MountPolicyTest, StickIsNotOpenWithNothingMounted) {
  StickOptions options;
  const std::string line = " by line 1 of the mount policy";
  {
    const Stick stick(options);
    const std::string ext3 = stick.node() + " (ext3) is not mounted: ";
    expectRefused(policy("ext3 refuse -\n"), ext3 + "refused" + line);
    expectRefused(policy("* refuse -\n"), ext3 + "refused" + line);
    expectRefused(policy("ext3 xfs -\n"), ext3 + "as xfs," + line + ": Invalid argument");
    expectRefused(policy("ext3 nosuchfs -\n"), ext3 + "as nosuchfs," + line + ": No such device");
    expectRefused(policy("ext3 ext3 no_such_option\n"), ext3 + "as ext3," + line + ": Invalid argument");
  }
  options.mkfs = {};
  const Stick stick(options);
  const std::string empty = stick.node() + " (unknown type) is not mounted: ";
  expectRefused(policy("* refuse -\n"), empty + "refused" + line);
  expectRefused(policy("ext3 ext3 -\n"), empty + "no row of the mount policy is for it; as xfs: ");
}

TEST_F(MountPolicyTest, StickThatIsMountedElsewhereInAnotherWayIsNotOpen) {
  const Stick stick{StickOptions()};
  mkdir("/tmp/elsewhere", 0755);
  ASSERT_EQ(mount(stick.node().c_str(), "/tmp/elsewhere", "ext3", MS_RDONLY, ""), 0);
  expectRefused(policy("ext3 ext3 -\n"), stick.node() + " (ext3) is not mounted: as ext3, by line 1 of the " +
                                             "mount policy: Device or resource busy");
  umount("/tmp/elsewhere");
}

TEST_F(MountPolicyTest, BusyStickThatStaysMountedAtItsDirectoryCountsAsOpen) {
  const Stick stick{StickOptions()};
  const Daemon daemon(policy("ext3 ext3 nodev\n"));
  UsbClient client;
  ASSERT_TRUE(client->OpenDevice(1));
  const std::unique_ptr<FILE, int (*)(FILE*)> held(std::fopen("/media/disk_1/held", "we"), &std::fclose);
  ASSERT_NE(held, nullptr);
  EXPECT_TRUE(client->OpenDevice(1));
  EXPECT_EQ(mountsAt("/media/disk_1").size(), 1U);
  EXPECT_THAT(daemon.log(), Not(HasSubstr("DockhandClient:781 ")));
}

TEST_F(MountPolicyTest, ChangedStickIsMountedByTheRowOfItsNewType) {
  const Stick stick{StickOptions()};
  const Daemon daemon(policy("ext3 ext3 -\next4 ext4 nodev\n"));
  UsbClient client;
  ASSERT_TRUE(client->OpenDevice(1));
  ASSERT_TRUE(client->CloseDevice(1));
  run({"mkfs.ext4", "-q", "-F", stick.node()});
  ASSERT_TRUE(client->OpenDevice(1));
  ASSERT_EQ(mountsAt("/media/disk_1").size(), 1U);
  EXPECT_EQ(mountsAt("/media/disk_1")[0].type, "ext4");
}

TEST_F(MountPolicyTest, DaemonDoesNotStartWithAPolicyThatItCannotFollow) {
  struct BadPolicy {
    const char* text;
    mode_t mode;
    uid_t owner;
    const char* reason;
  };
  for (const BadPolicy& bad :
       {BadPolicy{"ext4 ext4 -\nvfat\n", 0644, 0, "line 2: a row has three columns"},
        BadPolicy{"ext4 ext4 -\n", 0664, 0, "only root may write to it"},
        BadPolicy{"ext4 ext4 -\n", 0644, 1, "it must be root's"}, BadPolicy{"", 0644, 0, "no row"}}) {
    const Environment environment = policy(bad.text);
    ASSERT_EQ(chmod("/tmp/mounts", bad.mode), 0);
    ASSERT_EQ(chown("/tmp/mounts", bad.owner, 0), 0);
    const FailedStart end = startThatFails(environment);
    EXPECT_EQ(end.status & 0x7f, SIGABRT) << bad.reason;
    EXPECT_THAT(end.log, AllOf(HasSubstr("DockhandMain:17 mount policy \"/tmp/mounts\": "),
                               HasSubstr("what():  mount policy \"/tmp/mounts\": "), HasSubstr(bad.reason)));
    ASSERT_EQ(remove("/tmp/mounts"), 0);
  }
  const FailedStart noFile = startThatFails({{"DOCKHAND_MOUNTS", "/tmp/mounts"}});
  EXPECT_THAT(noFile.log, HasSubstr("mount policy \"/tmp/mounts\": No such file or directory"));
  mkfifo("/tmp/mounts", 0644);
  const FailedStart fifo = startThatFails({{"DOCKHAND_MOUNTS", "/tmp/mounts"}});
  EXPECT_THAT(fifo.log, HasSubstr("it is not a regular file"));
  remove("/tmp/mounts");
}

}  // namespace
}  // namespace systest
