// One stick from plugging in to pulling out, as a service sees it.

#include <sys/stat.h>

#include <fstream>
#include <optional>

#include "Eventually.h"
#include "IdleCrowd.h"
#include "SystemTest.h"

namespace systest {
namespace {

class StickTest : public SystemTest {};

StickOptions holidayStick() {
  StickOptions options;
  options.mkfs = {"mkfs.ext3", "-q", "-F", "-L", "HOLIDAY", "-U", "7b5f1b2e-9d3a-4c55-8a52-3f1d6c0e4a11"};
  options.files = {
      {"song.mp3", "la la la"}, {"LOUD.MP3", "LA"}, {"photo.jpg", "cheese"}, {"Films/a.mp3", ""}};
  return options;
}

void expectMountedOnce(const std::string& target, const std::string& type) {
  const std::vector<Mount> mounts = mountsAt(target);
  ASSERT_EQ(mounts.size(), 1U) << target;
  EXPECT_EQ(mounts[0].type, type);
}

/// The life of a stick. Bare and partitioned sticks must behave alike.
void openUseAndClose(const StickOptions& options) {
  auto [stick, daemon, client] = serve(options);

  ASSERT_THAT(client.devices(), ElementsAre(1));
  EXPECT_FALSE(client->IsDeviceOpen(1));
  ASSERT_TRUE(client->OpenDevice(1));
  EXPECT_TRUE(client->IsDeviceOpen(1));
  EXPECT_EQ(client.mountPoint(1).text, "/media/disk_1");
  expectMountedOnce("/media/disk_1", "ext3");
  EXPECT_EQ(mountsAt("/media/disk_1")[0].source, stick.node());
  EXPECT_EQ(readFile("/media/disk_1/song.mp3"), "la la la");
  writeFile("/media/disk_1/diary.txt", "a fine day");

  ASSERT_TRUE(client->CloseDevice(1));
  EXPECT_FALSE(client->IsDeviceOpen(1));
  EXPECT_EQ(client.mountPoint(1).text, "");
  EXPECT_THAT(mountsAt("/media/disk_1"), IsEmpty());
  EXPECT_THAT(namesIn("/media"), IsEmpty());
  EXPECT_FALSE(client->CloseDevice(1));

  ASSERT_TRUE(client->OpenDevice(1));
  EXPECT_EQ(readFile("/media/disk_1/diary.txt"), "a fine day");
}

TEST_F(StickTest, BareStickIsOpenedUsedClosedAndOpenedAgain) {
  openUseAndClose(holidayStick());
}

TEST_F(StickTest, PartitionedStickIsOpenedUsedClosedAndOpenedAgain) {
  StickOptions options = holidayStick();
  options.partitioned = true;
  openUseAndClose(options);
}

TEST_F(StickTest, IsClosedAndOpenedBesideFiveThousandIdleClients) {
  const Stick stick(holidayStick());
  std::optional<Daemon> daemon;
  {
    const DescriptorLimit few(256);
    daemon.emplace();
  }
  UsbClient client;
  ASSERT_TRUE(client->OpenDevice(1));
  const IdleCrowd crowd;
  // Wait until the daemon holds as many as it accepts: 192, besides six descriptors of its own.
  const std::string descriptors = "/proc/" + std::to_string(daemon->pid()) + "/fd";
  ASSERT_TRUE(testsupport::eventually([&] { return namesIn(descriptors).size() >= 198; }));

  EXPECT_TRUE(client->CloseDevice(1));
  EXPECT_THAT(mountsAt("/media/disk_1"), IsEmpty());
  EXPECT_EQ(client.label(1).text, "HOLIDAY");
  EXPECT_TRUE(client->OpenDevice(1));
  EXPECT_EQ(readFile("/media/disk_1/song.mp3"), "la la la");
}

TEST_F(StickTest, LabelAndUuidComeFromTheFileSystem) {
  auto [stick, daemon, client] = serve(holidayStick());
  EXPECT_TRUE(client.label(1).success);
  EXPECT_EQ(client.label(1).text, "HOLIDAY");
  EXPECT_TRUE(client.uuid(1).success);
  EXPECT_EQ(client.uuid(1).text, "7b5f1b2e-9d3a-4c55-8a52-3f1d6c0e4a11");
}

TEST_F(StickTest, PartitionedStickHasTheLabelOfItsPartition) {
  StickOptions options = holidayStick();
  options.partitioned = true;
  auto [stick, daemon, client] = serve(options);
  EXPECT_EQ(client.label(1).text, "HOLIDAY");
  EXPECT_EQ(client.uuid(1).text, "7b5f1b2e-9d3a-4c55-8a52-3f1d6c0e4a11");
}

TEST_F(StickTest, UnlabelledStickIsKnownWithoutName) {
  StickOptions options;
  options.mkfs = {"mkfs.ext3", "-q", "-F"};
  auto [stick, daemon, client] = serve(options);
  EXPECT_TRUE(client.label(1).success);
  EXPECT_EQ(client.label(1).text, "NONAME");
}

TEST_F(StickTest, CapacityIsTheSizeOfTheWholeDiskRoundedDown) {
  StickOptions options = holidayStick();
  options.partitioned = true;
  options.bytes = (std::uint64_t{24} << 20) - 512;
  auto [stick, daemon, client] = serve(options);
  EXPECT_EQ(client->GetDeviceCapacity(1), 23);
}

TEST_F(StickTest, KernelNameIsThatOfTheDiskOrOfItsFirstPartition) {
  StickOptions bare;
  bare.kernelName = "sda";
  StickOptions partitioned;
  partitioned.kernelName = "sdb";
  partitioned.partitioned = true;
  const Stick first(bare);
  const Stick second(partitioned);
  const Daemon daemon;
  UsbClient client;
  ASSERT_THAT(client.devices(), ElementsAre(1, 2));
  EXPECT_EQ(client.physicalDevice(1).text, "sda");
  EXPECT_EQ(client.physicalDevice(2).text, "sdb1");
}

TEST_F(StickTest, TypeFollowsTheKernelsRemovableAttribute) {
  auto [stick, daemon, client] = serve(holidayStick());
  EXPECT_EQ(client->GetDeviceType(1), 0);
  setRemovable("sda", "0\n");
  EXPECT_EQ(client->GetDeviceType(1), 1);
  setRemovable("sda", "1\n");
  EXPECT_EQ(client->GetDeviceType(1), 2);
}

TEST_F(StickTest, FilesAreFoundByExtensionAsGivenAndInUpperCase) {
  auto [stick, daemon, client] = serve(holidayStick());
  ASSERT_TRUE(client->OpenDevice(1));
  EXPECT_THAT(client.files(1, "", "mp3"), ElementsAre("LOUD.MP3", "song.mp3"));
  EXPECT_THAT(client.files(1, "", "MP3"), ElementsAre("LOUD.MP3"));
  EXPECT_THAT(client.files(1, "Films", "mp3"), ElementsAre("a.mp3"));
  EXPECT_THAT(client.files(1, "nowhere", "mp3"), IsEmpty());
  EXPECT_THAT(client.files(1, "", "ogg"), IsEmpty());
}

TEST_F(StickTest, StickOpensAtTheGivenDirectory) {
  auto [stick, daemon, client] = serve(holidayStick());
  ASSERT_TRUE(client->OpenDeviceAt(1, "/media/my music", false));
  EXPECT_EQ(client.mountPoint(1).text, "/media/my music");
  EXPECT_EQ(readFile("/media/my music/song.mp3"), "la la la");
  ASSERT_TRUE(client->CloseDevice(1));
  EXPECT_THAT(namesIn("/media"), IsEmpty());
}

TEST_F(StickTest, RecordingDiskIsListedOnRequestOnly) {
  auto [stick, daemon, client] = serve(holidayStick());
  ASSERT_TRUE(client->OpenDeviceAt(1, "/media/pvr", true));
  EXPECT_THAT(client.devices(false), IsEmpty());
  EXPECT_THAT(client.devices(true), ElementsAre(1));
}

TEST_F(StickTest, MountIgnoresSetUserIdPrograms) {
  auto [stick, daemon, client] = serve(holidayStick());
  ASSERT_TRUE(client->OpenDevice(1));
  ASSERT_EQ(mountsAt("/media/disk_1").size(), 1U);
  EXPECT_THAT("," + mountsAt("/media/disk_1")[0].options + ",", HasSubstr(",nosuid,"));
}

TEST_F(StickTest, ClosingWithAFileInUseFailsAndLeavesTheStickOpen) {
  auto [stick, daemon, client] = serve(holidayStick());
  ASSERT_TRUE(client->OpenDevice(1));
  {
    const std::ifstream held("/media/disk_1/song.mp3");
    ASSERT_TRUE(held);
    EXPECT_FALSE(client->CloseDevice(1));
    EXPECT_TRUE(client->IsDeviceOpen(1));
    EXPECT_EQ(mountsAt("/media/disk_1").size(), 1U);
  }
  EXPECT_TRUE(client->CloseDevice(1));
}

TEST_F(StickTest, SafelyRemovedStickIsHiddenUntilItIsAnnounced) {
  auto [stick, daemon, client] = serve(holidayStick());
  ASSERT_TRUE(client->OpenDevice(1));
  ASSERT_TRUE(client->CloseDeviceSafeRemoval(1));
  EXPECT_THAT(mountsAt("/media/disk_1"), IsEmpty());
  EXPECT_THAT(client.devices(), IsEmpty());
  EXPECT_FALSE(client->OpenDevice(1));

  setPartitions({"sda"});
  client->NotifyUsbAdded("sda");
  EXPECT_THAT(client.devices(), ElementsAre(1));
  EXPECT_TRUE(client->OpenDevice(1));
}

TEST_F(StickTest, SafeRemovalOfAClosedStickHidesNothing) {
  auto [stick, daemon, client] = serve(holidayStick());
  ASSERT_THAT(client.devices(), ElementsAre(1));
  EXPECT_FALSE(client->CloseDeviceSafeRemoval(1));
  EXPECT_THAT(client.devices(), ElementsAre(1));
}

TEST_F(StickTest, TwoSticksAreOpenSideBySide) {
  StickOptions one = holidayStick();
  one.files = {{"which.txt", "one"}};
  StickOptions other;
  other.kernelName = "sdb";
  other.mkfs = {"mkfs.ext3", "-q", "-F", "-L", "BACKUP"};
  other.files = {{"which.txt", "other"}};
  other.partitioned = true;
  const Stick first(one);
  const Stick second(other);
  const Daemon daemon;
  UsbClient client;

  ASSERT_THAT(client.devices(), ElementsAre(1, 2));
  EXPECT_EQ(client.label(1).text, "HOLIDAY");
  EXPECT_EQ(client.label(2).text, "BACKUP");
  ASSERT_TRUE(client->OpenDevice(1));
  ASSERT_TRUE(client->OpenDevice(2));
  EXPECT_EQ(readFile("/media/disk_1/which.txt"), "one");
  EXPECT_EQ(readFile("/media/disk_2/which.txt"), "other");
  ASSERT_TRUE(client->CloseDevice(1));
  EXPECT_EQ(readFile("/media/disk_2/which.txt"), "other");
  EXPECT_TRUE(client->IsDeviceOpen(2));
}

TEST_F(StickTest, RemovedStickIsForgottenAndItsNumberIsReused) {
  auto [stick, daemon, client] = serve(holidayStick());
  ASSERT_THAT(client.devices(), ElementsAre(1));
  stick.unplug();
  EXPECT_THAT(client.devices(), IsEmpty());
  EXPECT_FALSE(client.label(1).success);
  stick.plug();
  EXPECT_THAT(client.devices(), ElementsAre(1));
}

TEST_F(StickTest, EveryOperationRepliesForAnUnknownDevice) {
  const Daemon daemon;
  UsbClient client;
  for (const std::int16_t unknown :
       {std::int16_t{1}, std::int16_t{0}, std::int16_t{-1}, std::int16_t{32767}}) {
    EXPECT_FALSE(client->OpenDevice(unknown));
    EXPECT_FALSE(client->CloseDevice(unknown));
    EXPECT_FALSE(client->CloseDeviceSafeRemoval(unknown));
    EXPECT_FALSE(client->IsDeviceOpen(unknown));
    EXPECT_FALSE(client->RunDiskRepair(unknown));
    EXPECT_EQ(client->GetDeviceType(unknown), 0);
    EXPECT_EQ(client->GetDeviceCapacity(unknown), 0);
    EXPECT_FALSE(client.label(unknown).success);
    EXPECT_EQ(client.label(unknown).text, "NONAME");
    EXPECT_FALSE(client.uuid(unknown).success);
    EXPECT_EQ(client.uuid(unknown).text, "0000-0000");
    EXPECT_FALSE(client.usbVersion(unknown).success);
    EXPECT_FALSE(client.physicalDevice(unknown).success);
    EXPECT_TRUE(client.mountPoint(unknown).success);
    EXPECT_EQ(client.mountPoint(unknown).text, "");
  }
}

}  // namespace
}  // namespace systest
