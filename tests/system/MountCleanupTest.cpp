// Leftovers of an automounter, a user or an earlier daemon at the place where a stick is mounted.

#include <sys/mount.h>
#include <sys/stat.h>

#include <array>
#include <filesystem>

#include "SystemTest.h"

namespace systest {
namespace {

class MountCleanupTest : public SystemTest {
 protected:
  static void mountAt(const std::string& source, const std::string& target, const std::string& type) {
    ASSERT_EQ(mkdir(target.c_str(), 0755), 0) << target;
    ASSERT_EQ(mount(source.c_str(), target.c_str(), type.c_str(), 0, ""), 0) << target;
  }

  static StickOptions labelled() {
    StickOptions options;
    options.mkfs = {"mkfs.ext3", "-q", "-F", "-L", "HOLIDAY", "-U", uuid};
    options.files = {{"song.mp3", "la la la"}};
    return options;
  }

  static constexpr const char* uuid = "7b5f1b2e-9d3a-4c55-8a52-3f1d6c0e4a11";
};

TEST_F(MountCleanupTest, StaleMountAtTheMountPointIsRemoved) {
  const Stick stick(labelled());
  mountAt("none", "/media/disk_1", "tmpfs");
  const Daemon daemon;
  UsbClient client;
  ASSERT_TRUE(client->OpenDevice(1));
  ASSERT_EQ(mountsAt("/media/disk_1").size(), 1U);
  EXPECT_EQ(mountsAt("/media/disk_1")[0].type, "ext3");
  EXPECT_EQ(readFile("/media/disk_1/song.mp3"), "la la la");
}

TEST_F(MountCleanupTest, LeftoverDirectoryAtTheMountPointIsHarmless) {
  const Stick stick(labelled());
  ASSERT_EQ(mkdir("/media/disk_1", 0700), 0);
  const Daemon daemon;
  UsbClient client;
  ASSERT_TRUE(client->OpenDevice(1));
  EXPECT_EQ(readFile("/media/disk_1/song.mp3"), "la la la");
  ASSERT_TRUE(client->CloseDevice(1));
  EXPECT_THAT(namesIn("/media"), IsEmpty());
}

TEST_F(MountCleanupTest, LeftoverDirectoryWithFilesIsMountedOverAndKept) {
  const Stick stick(labelled());
  ASSERT_EQ(mkdir("/media/disk_1", 0755), 0);
  writeFile("/media/disk_1/precious.txt", "mine");
  const Daemon daemon;
  UsbClient client;
  ASSERT_TRUE(client->OpenDevice(1));
  EXPECT_EQ(readFile("/media/disk_1/song.mp3"), "la la la");
  ASSERT_TRUE(client->CloseDevice(1));
  EXPECT_EQ(readFile("/media/disk_1/precious.txt"), "mine");
}

TEST_F(MountCleanupTest, WhatAnAutomounterMayHaveMountedIsUnmounted) {
  const Stick stick(labelled());
  for (const auto& [source, name, type] : std::vector<std::array<std::string, 3>>{
           {stick.node(), "HOLIDAY", "ext3"}, {stick.node(), uuid, "ext3"}, {"none", "disk", "tmpfs"}}) {
    mountAt(source, "/media/" + name, type);
    const Daemon daemon;
    UsbClient client;
    ASSERT_TRUE(client->OpenDevice(1));
    EXPECT_THAT(mountsAt("/media/" + name), IsEmpty());
    EXPECT_EQ(mountsAt("/media/disk_1").size(), 1U) << name;
    EXPECT_THAT(namesIn("/media"), ElementsAre("disk_1")) << name;
    ASSERT_TRUE(client->CloseDevice(1));
  }
}

TEST_F(MountCleanupTest, MountsOfOtherSticksStay) {
  const Stick stick(labelled());
  mountAt("none", "/media/BACKUP", "tmpfs");
  mountAt("none", "/media/disk_11", "tmpfs");
  const Daemon daemon;
  UsbClient client;
  ASSERT_TRUE(client->OpenDevice(1));
  EXPECT_EQ(mountsAt("/media/BACKUP").size(), 1U);
  EXPECT_EQ(mountsAt("/media/disk_11").size(), 1U);
}

TEST_F(MountCleanupTest, MountPointThatOnlySharesAPrefixIsNotUnmounted) {
  const Stick stick(labelled());
  mountAt("none", "/media/disk_11", "tmpfs");
  const Daemon daemon;
  UsbClient client;
  ASSERT_TRUE(client->OpenDevice(1));
  ASSERT_EQ(umount("/media/disk_1"), 0);
  EXPECT_TRUE(client->CloseDevice(1));
  EXPECT_THAT(namesIn("/media"), ElementsAre("disk_11"));
}

TEST_F(MountCleanupTest, OpeningAnOpenStickMountsItOnce) {
  auto [stick, daemon, client] = serve(labelled());
  ASSERT_TRUE(client->OpenDevice(1));
  ASSERT_TRUE(client->OpenDevice(1));
  EXPECT_EQ(mountsAt("/media/disk_1").size(), 1U);
}

TEST_F(MountCleanupTest, StickLeftMountedByAKilledDaemonIsMountedOnce) {
  const Stick stick(labelled());
  Daemon killed;
  {
    UsbClient client;
    ASSERT_TRUE(client->OpenDevice(1));
  }
  killed.kill();
  ASSERT_EQ(mountsAt("/media/disk_1").size(), 1U);

  const Daemon daemon;
  UsbClient client;
  EXPECT_FALSE(client->IsDeviceOpen(1));
  ASSERT_TRUE(client->OpenDevice(1));
  EXPECT_EQ(mountsAt("/media/disk_1").size(), 1U);
  EXPECT_EQ(readFile("/media/disk_1/song.mp3"), "la la la");
}

TEST_F(MountCleanupTest, LabelThatLeadsOutOfTheMediaDirectoryIsNotFollowed) {
  StickOptions options;
  options.mkfs = {"mkfs.ext3", "-q", "-F", "-L", "../tmp/mine"};
  const Stick stick(options);
  std::filesystem::create_directory("/tmp/mine");
  const Daemon daemon;
  UsbClient client;
  EXPECT_TRUE(client->OpenDevice(1));
  EXPECT_TRUE(std::filesystem::is_directory("/tmp/mine"));
}

}  // namespace
}  // namespace systest
