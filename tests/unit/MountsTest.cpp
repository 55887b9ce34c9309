// Clearing mounts, and trying the mount table.

#include <cerrno>

#include "HandlerTest.h"
#include "Mounts.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class MountsTest : public HandlerTest {
 protected:
  void TearDown() override { EXPECT_EQ(platform.openDescriptors(), 0U); }

  bool clear(const std::string& mountPath, bool lazy = false) { return mounts.clear(mountPath, lazy); }
  /// Whether a mount table with this text contains the path.
  bool isFound(const std::string& mountPath, const std::string& table) {
    platform.files["/proc/mounts"] = table;
    journal().clear();
    clear(mountPath);
    return !journal().eventsBeginning("umount2").empty();
  }

  Dockhand::Prober prober{platform};
  Dockhand::Mounts mounts{platform, prober};
};

TEST_F(MountsTest, EscapesEachBlankOfAPathAsTheMountTableDoes) {
  platform.files["/proc/mounts"] = "/dev/sdb /media/My\\040Disk vfat rw 0 0\n";
  platform.existing.insert("/media/My Disk");
  EXPECT_TRUE(clear("/media/My Disk"));
  EXPECT_THAT(journal().events(),
              ElementsAre("log 2 @506 CheckForAndRemoveMount: /media/My\\040Disk ", "open /proc/mounts",
                          "read /proc/mounts 1024", "log 2 @521 Performing unmount for /media/My Disk",
                          "umount2 /media/My Disk 0", "close /proc/mounts", "access /media/My Disk",
                          "log 2 @541 Performing rmdir for /media/My Disk", "rmdir /media/My Disk"));
}

TEST_F(MountsTest, EscapesNoOtherCharacterOfAPath) {
  clear(" a  b\t\\c\n ");
  EXPECT_EQ(journal().events().front(), "log 2 @506 CheckForAndRemoveMount: \\040a\\040\\040b\t\\c\n\\040 ");
}

TEST_F(MountsTest, DoesNotMatchALongerPath) {
  EXPECT_FALSE(isFound("/media/disk", "/dev/sdb /media/disk_1 vfat rw 0 0\n"));
  EXPECT_TRUE(isFound("/media/disk", "/dev/sdb /media/disk vfat rw 0 0\n"));
}

TEST_F(MountsTest, FindsThePathAnywhereInTheMountTable) {
  EXPECT_TRUE(isFound("/media/disk", "/dev/sdb /mnt/media/disk vfat rw 0 0\n"));
  EXPECT_TRUE(isFound("/media/disk", "/media/disk /mnt ext3 rw 0 0\n"));
  EXPECT_TRUE(isFound("/media/disk", "/dev/sda / ext3 rw 0 0\n/dev/sdb /media/disk vfat rw 0 0\n"));
  EXPECT_FALSE(isFound("/media/disk", "/dev/sda / ext3 rw 0 0\n"));
  EXPECT_FALSE(isFound("/media/disk", "/media/disk"));
  EXPECT_FALSE(isFound("/media/disk", ""));
}

TEST_F(MountsTest, ReadsTheFirst1024BytesOfTheMountTable) {
  const std::string key = "/media/disk ";
  EXPECT_TRUE(isFound("/media/disk", std::string(1024 - key.size(), 'x') + key + "vfat"));
  EXPECT_FALSE(isFound("/media/disk", std::string(1025 - key.size(), 'x') + key + "vfat"));
  EXPECT_THAT(journal().eventsBeginning("read"), ElementsAre("read /proc/mounts 1024"));
}

TEST_F(MountsTest, TreatsAPathAsNotMountedIfTheMountTableCannotBeOpened) {
  platform.openError = EACCES;
  platform.existing.insert("/media/disk");
  EXPECT_TRUE(clear("/media/disk"));
  EXPECT_THAT(
      journal().events(),
      ElementsAre("log 2 @506 CheckForAndRemoveMount: /media/disk ", "open /proc/mounts",
                  "access /media/disk", "log 2 @541 Performing rmdir for /media/disk", "rmdir /media/disk"));
}

TEST_F(MountsTest, TreatsAPathAsNotMountedIfTheMountTableCannotBeRead) {
  platform.readErrors["/proc/mounts"] = EIO;
  EXPECT_TRUE(clear("/media/disk"));
  EXPECT_THAT(journal().calls(), ElementsAre("open /proc/mounts", "read /proc/mounts 1024",
                                             "close /proc/mounts", "access /media/disk"));
}

TEST_F(MountsTest, ReadsAMountTableThatIsOpenedAsDescriptorZero) {
  platform.nextDescriptor = 0;
  platform.files["/proc/mounts"] = "/dev/sdb /media/disk vfat rw 0 0\n";
  EXPECT_TRUE(clear("/media/disk"));
  EXPECT_THAT(journal().eventsBeginning("umount2"), ElementsAre("umount2 /media/disk 0"));
  EXPECT_EQ(platform.openDescriptors(), 0U);
}

TEST_F(MountsTest, DoesNotSearchTheBytesOfAnEarlierRead) {
  EXPECT_TRUE(isFound("/media/disk", "/dev/sdb /media/disk vfat rw 0 0\n"));
  platform.files.clear();
  platform.readErrors["/proc/mounts"] = EIO;
  journal().clear();
  EXPECT_TRUE(clear("/media/disk"));
  EXPECT_THAT(journal().eventsBeginning("umount2"), IsEmpty());
}

TEST_F(MountsTest, RemovesNoDirectoryThatDoesNotExist) {
  platform.files["/proc/mounts"] = "";
  EXPECT_TRUE(clear("/media/disk"));
  EXPECT_THAT(journal().events(),
              ElementsAre("log 2 @506 CheckForAndRemoveMount: /media/disk ", "open /proc/mounts",
                          "read /proc/mounts 1024", "close /proc/mounts", "access /media/disk"));
}

TEST_F(MountsTest, ClearsLazilyOnRequest) {
  platform.files["/proc/mounts"] = "/dev/sdb /media/disk vfat rw 0 0\n";
  EXPECT_TRUE(clear("/media/disk", true));
  EXPECT_TRUE(clear("/media/disk", false));
  EXPECT_THAT(journal().eventsBeginning("umount2"),
              ElementsAre("umount2 /media/disk 2", "umount2 /media/disk 0"));
}

TEST_F(MountsTest, ClearsPathsWithoutAMount) {
  const std::string longPath(65536, 'x');
  const std::string pathWithNul("/media/disk\0x", 13);
  EXPECT_FALSE(isFound(longPath, "/dev/sdb /media/disk vfat rw 0 0\n"));
  EXPECT_FALSE(isFound(pathWithNul, "/dev/sdb /media/disk vfat rw 0 0\n"));
  EXPECT_THAT(journal().eventsBeginning("access"), ElementsAre("access " + pathWithNul));
}

TEST_F(MountsTest, ReleasesTheNodeOfTheProberBeforeItUnmountsOnly) {
  platform.disks["/dev/usb_storage_sdb"] = {};
  platform.files["/proc/mounts"] = "/dev/sdb /media/disk vfat rw 0 0\n";
  const Dockhand::Prober::NodeHold hold(prober, "/dev/usb_storage_sdb");
  clear("/media/other");
  EXPECT_EQ(platform.openDescriptors(), 1U);
  clear("/media/disk");
  EXPECT_EQ(platform.openDescriptors(), 0U);
}

TEST_F(MountsTest, TriesTheRowsOfATypeInTheirOrder) {
  platform.mountError = [](const FakePlatform::Mount&) { return EROFS; };
  EXPECT_FALSE(mounts.tryTable("/dev/usb_storage_sdb", "/media/disk", "ext3"));
  EXPECT_EQ(errno, EROFS);
  EXPECT_THAT(journal().events(), ElementsAre("mount /dev/usb_storage_sdb /media/disk ext3 c0ed0002 ",
                                              "mount /dev/usb_storage_sdb /media/disk ext3 c0ed0003 "));
}

}  // namespace
