// The file systems of sticks, as this kernel mounts them.

#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

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
  static void expectOpens(const Stick& stick, const std::string& type, const std::string& option) {
    const Daemon daemon;
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

}  // namespace
}  // namespace systest
