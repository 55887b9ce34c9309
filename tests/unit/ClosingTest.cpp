// Closing devices.

#include <cerrno>

#include "HandlerTest.h"

namespace {

class Closing : public HandlerTest {
 protected:
  void TearDown() override {
    EXPECT_FALSE(lockIsHeld());
    EXPECT_EQ(platform.openDescriptors(), 0U);
  }

  /// Plugs in a disk that is mounted at /media/disk_1.
  std::int16_t plugInOpen() {
    const auto id = plugIn({"sdb"}, "vfat");
    entry(id).deviceOpen = true;
    entry(id).mountPoint = "/media/disk_1";
    platform.files["/proc/mounts"] = "/dev/usb_storage_sdb /media/disk_1 vfat rw 0 0\n";
    platform.existing.insert("/media/disk_1");
    return id;
  }
  bool release(std::int16_t deviceId, bool safeRemoval) {
    const Dockhand::HandlerLock lock(handler->handlerMutex);
    return handler->releaseDevice(deviceId, safeRemoval);
  }
};

TEST_F(Closing, DoesAndLogsEachStepInOrder) {
  const auto id = plugInOpen();
  EXPECT_TRUE(handler->CloseDevice(id));
  EXPECT_THAT(journal().events(),
              ElementsAre("log 2 @806 CloseDevice(1)", "log 2 @506 CheckForAndRemoveMount: /media/disk_1 ",
                          "open /proc/mounts", "read /proc/mounts 1024",
                          "log 2 @521 Performing unmount for /media/disk_1", "umount2 /media/disk_1 0",
                          "close /proc/mounts", "access /media/disk_1",
                          "log 2 @541 Performing rmdir for /media/disk_1", "rmdir /media/disk_1"));
}

TEST_F(Closing, LogsASafeRemovalUnderItsOwnName) {
  const auto id = plugInOpen();
  EXPECT_TRUE(handler->CloseDeviceSafeRemoval(id));
  EXPECT_EQ(journal().events().front(), "log 2 @816 CloseDeviceSafeRemoval(1)");
  EXPECT_THAT(journal().events(), SizeIs(10));
}

TEST_F(Closing, MarksTheDeviceAsNotOpenAndForgetsItsMountPoint) {
  const auto id = plugInOpen();
  entry(id).hidden = true;
  entry(id).lastUsbOperation = Dockhand::UsbOperationAdded;
  EXPECT_TRUE(handler->CloseDevice(id));
  EXPECT_FALSE(entry(id).deviceOpen);
  EXPECT_EQ(entry(id).mountPoint, "");
  EXPECT_FALSE(entry(id).safelyRemoved);
  EXPECT_TRUE(entry(id).hidden);
  EXPECT_EQ(entry(id).lastUsbOperation, Dockhand::UsbOperationAdded);
  EXPECT_EQ(entry(id).deviceName, "sdb");
}

TEST_F(Closing, MarksASafelyRemovedDevice) {
  const auto id = plugInOpen();
  EXPECT_TRUE(handler->CloseDeviceSafeRemoval(id));
  EXPECT_FALSE(entry(id).deviceOpen);
  EXPECT_EQ(entry(id).mountPoint, "");
  EXPECT_TRUE(entry(id).safelyRemoved);
}

TEST_F(Closing, KeepsAnEarlierMarkOfSafeRemoval) {
  const auto id = plugInOpen();
  entry(id).safelyRemoved = true;
  EXPECT_TRUE(handler->CloseDevice(id));
  EXPECT_TRUE(entry(id).safelyRemoved);
}

TEST_F(Closing, RefusesADeviceThatIsNotMounted) {
  const auto id = plugIn({"sdb"}, "vfat");
  EXPECT_FALSE(handler->CloseDevice(id));
  EXPECT_THAT(journal().events(), ElementsAre("log 2 @806 CloseDevice(1)"));
}

TEST_F(Closing, RefusesASecondSafeRemovalAndKeepsTheFirst) {
  const auto id = plugInOpen();
  ASSERT_TRUE(handler->CloseDeviceSafeRemoval(id));
  EXPECT_FALSE(handler->CloseDeviceSafeRemoval(id));
  EXPECT_TRUE(entry(id).safelyRemoved);
}

TEST_F(Closing, RefusesAnOpenDeviceWithAnEmptyMountPoint) {
  const auto id = plugInOpen();
  entry(id).mountPoint = "";
  EXPECT_FALSE(handler->CloseDevice(id));
  EXPECT_TRUE(entry(id).deviceOpen);
}

TEST_F(Closing, ClearsTheLeftoversOfAFailedOpening) {
  const auto id = plugInOpen();
  entry(id).deviceOpen = false;
  platform.files["/proc/mounts"] = "";
  EXPECT_TRUE(handler->CloseDevice(id));
  EXPECT_EQ(entry(id).mountPoint, "");
}

TEST_F(Closing, DetachesADeviceThatWasReportedRemovedAndUnmountsEveryOtherStrictly) {
  for (const int operation : {2, 0, 1, 3, -1}) {
    for (const bool safeRemoval : {false, true}) {
      const auto id = plugInOpen();
      entry(id).lastUsbOperation = static_cast<Dockhand::UsbOperation>(operation);
      EXPECT_TRUE(safeRemoval ? handler->CloseDeviceSafeRemoval(id) : handler->CloseDevice(id));
      EXPECT_EQ(entry(id).safelyRemoved, safeRemoval);
      EXPECT_THAT(journal().eventsBeginning("umount2"),
                  ElementsAre(operation == 2 ? "umount2 /media/disk_1 2" : "umount2 /media/disk_1 0"))
          << operation;
      pullOut({"sdb"});
      handler->CheckForAndUpdateNewDevices();
    }
  }
}

TEST_F(Closing, LeavesTheRecordAndTheDirectoryWhenUnmountingFails) {
  const auto id = plugInOpen();
  platform.umount2Error = EBUSY;
  EXPECT_FALSE(handler->CloseDeviceSafeRemoval(id));
  EXPECT_TRUE(entry(id).deviceOpen);
  EXPECT_EQ(entry(id).mountPoint, "/media/disk_1");
  EXPECT_FALSE(entry(id).safelyRemoved);
  EXPECT_THAT(
      journal().events(),
      ElementsAre("log 2 @816 CloseDeviceSafeRemoval(1)", "log 2 @506 CheckForAndRemoveMount: /media/disk_1 ",
                  "open /proc/mounts", "read /proc/mounts 1024",
                  "log 2 @521 Performing unmount for /media/disk_1", "umount2 /media/disk_1 0",
                  "log 4 @528 umount2(/media/disk_1) failed, errno=16=Device or resource busy",
                  "close /proc/mounts"));
}

TEST_F(Closing, SucceedsWhenTheDirectoryCannotBeRemoved) {
  const auto id = plugInOpen();
  platform.rmdirError = ENOTEMPTY;
  EXPECT_TRUE(handler->CloseDevice(id));
  EXPECT_FALSE(entry(id).deviceOpen);
  const auto events = journal().events();
  ASSERT_GT(events.size(), 3U);
  EXPECT_THAT(std::vector<std::string>(events.end() - 3, events.end()),
              ElementsAre("log 2 @541 Performing rmdir for /media/disk_1", "rmdir /media/disk_1",
                          "log 4 @545 Ignored rmdir(/media/disk_1) failed, errno=39=Directory not empty"));
}

TEST_F(Closing, ReleasesWithAndWithoutAMarkOfSafeRemoval) {
  const auto id = plugInOpen();
  EXPECT_TRUE(release(id, false));
  EXPECT_FALSE(entry(id).safelyRemoved);
  entry(id).mountPoint = "/media/disk_1";
  EXPECT_TRUE(release(id, true));
  EXPECT_TRUE(entry(id).safelyRemoved);
  EXPECT_FALSE(release(id, false));
  EXPECT_TRUE(entry(id).safelyRemoved);
}

TEST_F(Closing, ReportsSuccessForAMountBeyondTheFirst1024Bytes) {
  const auto id = plugInOpen();
  platform.files["/proc/mounts"].insert(0, std::string(1024, 'x'));
  platform.rmdirError = EBUSY;
  EXPECT_TRUE(handler->CloseDevice(id));
  EXPECT_FALSE(entry(id).deviceOpen);
  EXPECT_THAT(
      journal().events(),
      ElementsAre("log 2 @806 CloseDevice(1)", "log 2 @506 CheckForAndRemoveMount: /media/disk_1 ",
                  "open /proc/mounts", "read /proc/mounts 1024", "close /proc/mounts", "access /media/disk_1",
                  "log 2 @541 Performing rmdir for /media/disk_1", "rmdir /media/disk_1",
                  "log 4 @545 Ignored rmdir(/media/disk_1) failed, errno=16=Device or resource busy"));
}

TEST_F(Closing, DoesNotHideADeviceThatWasNotMountedWhenItWasSafelyRemoved) {
  const auto id = plugIn({"sdb"}, "vfat");
  // Never opened, or opened and closed.
  for (const bool wasOpen : {false, true}) {
    if (wasOpen) {
      ASSERT_TRUE(handler->OpenDevice(id));
      ASSERT_TRUE(handler->CloseDevice(id));
    }
    journal().clear();
    EXPECT_FALSE(handler->CloseDeviceSafeRemoval(id));
    EXPECT_THAT(journal().events(), ElementsAre("log 2 @816 CloseDeviceSafeRemoval(1)"));
    EXPECT_FALSE(entry(id).safelyRemoved);
    std::vector<std::int16_t> found;
    handler->GetListOfInsertedDevices(found, false);
    EXPECT_THAT(found, ElementsAre(id));
    EXPECT_TRUE(handler->OpenDevice(id));
    ASSERT_TRUE(handler->CloseDevice(id));
  }
}

TEST_F(Closing, WarnsEvenAtAHighThreshold) {
  const auto id = plugInOpen();
  platform.umount2Error = EINVAL;
  setThreshold(4);
  EXPECT_FALSE(handler->CloseDevice(id));
  EXPECT_THAT(journal().logs(),
              ElementsAre("log 4 @528 umount2(/media/disk_1) failed, errno=22=Invalid argument"));
  setThreshold(5);
  journal().clear();
  EXPECT_FALSE(handler->CloseDevice(id));
  EXPECT_THAT(journal().logs(), IsEmpty());
}

}  // namespace
