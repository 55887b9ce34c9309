// Unusual nodes under /dev: the daemon replies for each of them, and keeps serving.

#include <sys/stat.h>
#include <unistd.h>

#include <functional>

#include "SystemTest.h"

namespace systest {
namespace {

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

TEST_F(OddNodesTest, AreDevicesThatNothingCanBeDoneWith) {
  std::string garbage;
  for (unsigned i = 0; i < 100000; ++i) {
    garbage += static_cast<char>(i * 2654435761U >> 24U);
  }
  struct Row {
    const char* description;
    std::function<void()> make;
    const char* physicalDevice;
  };
  const char* const node = "/dev/usb_storage_sda";
  for (const Row& row :
       {Row{"no lower-case letters", [] { writeFile("/dev/usb_storage_SD\u00e9-1!", ""); }, "1"},
        Row{"text before the prefix", [] { writeFile("/dev/xusb_storage_sdz", ""); }, "sdz"},
        Row{"dangling link", [=] { ASSERT_EQ(symlink("/dev/gone", node), 0); }, "sda"},
        Row{"directory", [=] { ASSERT_EQ(mkdir(node, 0755), 0); }, "sda"},
        Row{"regular file with garbage", [&] { writeFile(node, garbage); }, "sda"}}) {
    SCOPED_TRACE(row.description);
    clearWorld();
    row.make();
    const Daemon daemon;
    expectListedButUnusable(daemon, row.physicalDevice);
  }
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
