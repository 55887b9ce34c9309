// Unusual nodes under /dev: the daemon replies for each of them, and keeps serving.

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Daemon.h"
#include "Stick.h"
#include "SystemTest.h"

namespace systest {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class OddNodesTest : public SystemTest {
 protected:
  /// The device is listed under this name, and every operation that needs a disk fails.
  static void expectListedButUnusable(const Daemon& daemon, const std::string& physicalDevice) {
    UsbClient client;
    ASSERT_THAT(client.devices(), ElementsAre(1));
    EXPECT_TRUE(client.physicalDevice(1).success);
    EXPECT_EQ(client.physicalDevice(1).text, physicalDevice);
    EXPECT_TRUE(client.label(1).success);
    EXPECT_EQ(client.label(1).text, "NONAME");
    EXPECT_FALSE(client.uuid(1).success);
    EXPECT_EQ(client->GetDeviceType(1), 0);
    EXPECT_EQ(client->GetDeviceCapacity(1), 0);
    EXPECT_FALSE(client->OpenDevice(1));
    EXPECT_FALSE(client->IsDeviceOpen(1));
    EXPECT_THAT(namesIn("/media"), IsEmpty());
    EXPECT_TRUE(daemon.isRunning());
  }
};

TEST_F(OddNodesTest, WithoutNodesNothingIsListed) {
  const Daemon daemon;
  UsbClient client;
  client->CheckForAndUpdateNewDevices();
  EXPECT_THAT(client.devices(true), IsEmpty());
}

TEST_F(OddNodesTest, NameWithoutLowerCaseLettersIsADeviceWithoutName) {
  writeFile("/dev/usb_storage_SD\u00e9-1!", "");
  const Daemon daemon;
  expectListedButUnusable(daemon, "1");
}

TEST_F(OddNodesTest, NameWithTextBeforeThePrefixIsADevice) {
  writeFile("/dev/xusb_storage_sdz", "");
  const Daemon daemon;
  expectListedButUnusable(daemon, "sdz");
}

TEST_F(OddNodesTest, DanglingLinkIsADeviceThatCannotBeRead) {
  ASSERT_EQ(symlink("/dev/gone", "/dev/usb_storage_sda"), 0);
  const Daemon daemon;
  expectListedButUnusable(daemon, "sda");
}

TEST_F(OddNodesTest, DirectoryIsADeviceThatCannotBeRead) {
  ASSERT_EQ(mkdir("/dev/usb_storage_sda", 0755), 0);
  const Daemon daemon;
  expectListedButUnusable(daemon, "sda");
}

TEST_F(OddNodesTest, RegularFileWithGarbageIsADeviceThatCannotBeMounted) {
  std::string rubbish;
  for (unsigned i = 0; i < 100000; ++i) {
    rubbish += static_cast<char>(i * 2654435761U >> 24U);
  }
  writeFile("/dev/usb_storage_sda", rubbish);
  const Daemon daemon;
  expectListedButUnusable(daemon, "sda");
}

TEST_F(OddNodesTest, SymbolicLinkToADiskIsThatDisk) {
  Stick stick({});
  ASSERT_EQ(rename("/dev/usb_storage_sda", "/dev/sda"), 0);
  ASSERT_EQ(symlink("sda", "/dev/usb_storage_sda"), 0);
  const Daemon daemon;
  UsbClient client;
  EXPECT_EQ(client.label(1).text, "HOLIDAY");
  EXPECT_TRUE(client->OpenDevice(1));
  EXPECT_EQ(mountsAt("/media/disk_1").size(), 1U);
}

}  // namespace
}  // namespace systest
