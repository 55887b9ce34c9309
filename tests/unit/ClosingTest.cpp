// Closing devices, and clearing mounts.

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
  bool clear(const std::string& mountPath, bool lazy = false) {
    const TestableHandler::Lock lock(*handler);
    return handler->CheckForAndRemoveMount(mountPath, lazy);
  }
  bool release(std::int16_t deviceId, bool safeRemoval) {
    const TestableHandler::Lock lock(*handler);
    return handler->releaseDevice(deviceId, safeRemoval);
  }
  /// True if the path is found in a mount table with this text.
  bool isFound(const std::string& mountPath, const std::string& mounts) {
    platform.files["/proc/mounts"] = mounts;
    journal().clear();
    clear(mountPath);
    return !journal().eventsBeginning("umount2").empty();
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

TEST_F(Closing, ReportsWhetherADeviceIsOpen) {
  const auto id = plugIn({"sdb"});
  EXPECT_FALSE(handler->IsDeviceOpen(id));
  entry(id).deviceOpen = true;
  EXPECT_TRUE(handler->IsDeviceOpen(id));
  EXPECT_THAT(journal().events(), ElementsAre("log 2 @792 IsDeviceOpen(1)", "log 2 @792 IsDeviceOpen(1)"));
}

TEST_F(Closing, NamesTheNodeOfAPartitionedDisk) {
  const auto id = plugIn({"sdb", "sdb1"});
  EXPECT_EQ(handler->GetUsbMountDevice(id, false), "/dev/usb_storage_sdb1");
  EXPECT_EQ(handler->GetUsbMountDevice(id, true), "/dev/usb_storage_sdb");
  EXPECT_THAT(journal().events(),
              ElementsAre("log 2 @1152 GetUsbMountDevice", "log 2 @1152 GetUsbMountDevice"));
}

TEST_F(Closing, NamesTheNodeOfADiskWithoutPartitions) {
  const auto id = plugIn({"sdb"});
  EXPECT_EQ(handler->GetUsbMountDevice(id, false), "/dev/usb_storage_sdb");
  EXPECT_EQ(handler->GetUsbMountDevice(id, true), "/dev/usb_storage_sdb");
}

TEST_F(Closing, NamesNoNodeOfAnUnknownDevice) {
  plugIn({"sdb"});
  for (const int number : {-32768, -1, 0, 2, 32767}) {
    journal().clear();
    EXPECT_EQ(handler->GetUsbMountDevice(static_cast<std::int16_t>(number), false), "");
    EXPECT_THAT(journal().events(), ElementsAre("log 2 @1152 GetUsbMountDevice"));
  }
}

TEST_F(Closing, NamesANodeEvenWhileTheLockIsHeld) {
  const auto id = plugIn({"sdb"});
  watchLock();
  EXPECT_EQ(handler->GetUsbMountDevice(id, false), "/dev/usb_storage_sdb");
  EXPECT_THAT(unlocked, ElementsAre("GetUsbMountDevice"));
  const TestableHandler::Lock lock(*handler);
  EXPECT_EQ(handler->GetUsbMountDevice(id, false), "/dev/usb_storage_sdb");
  EXPECT_TRUE(lockIsHeld());
}

TEST_F(Closing, EscapesEachBlankOfAPathAsTheMountTableDoes) {
  platform.files["/proc/mounts"] = "/dev/sdb /media/My\\040Disk vfat rw 0 0\n";
  platform.existing.insert("/media/My Disk");
  EXPECT_TRUE(clear("/media/My Disk"));
  EXPECT_THAT(journal().events(),
              ElementsAre("log 2 @506 CheckForAndRemoveMount: /media/My\\040Disk ", "open /proc/mounts",
                          "read /proc/mounts 1024", "log 2 @521 Performing unmount for /media/My Disk",
                          "umount2 /media/My Disk 0", "close /proc/mounts", "access /media/My Disk",
                          "log 2 @541 Performing rmdir for /media/My Disk", "rmdir /media/My Disk"));
}

TEST_F(Closing, EscapesNoOtherCharacterOfAPath) {
  clear(" a  b\t\\c\n ");
  EXPECT_EQ(journal().events().front(), "log 2 @506 CheckForAndRemoveMount: \\040a\\040\\040b\t\\c\n\\040 ");
}

TEST_F(Closing, DoesNotMatchALongerPath) {
  EXPECT_FALSE(isFound("/media/disk", "/dev/sdb /media/disk_1 vfat rw 0 0\n"));
  EXPECT_TRUE(isFound("/media/disk", "/dev/sdb /media/disk vfat rw 0 0\n"));
}

TEST_F(Closing, FindsThePathAnywhereInTheMountTable) {
  EXPECT_TRUE(isFound("/media/disk", "/dev/sdb /mnt/media/disk vfat rw 0 0\n"));
  EXPECT_TRUE(isFound("/media/disk", "/media/disk /mnt ext3 rw 0 0\n"));
  EXPECT_TRUE(isFound("/media/disk", "/dev/sda / ext3 rw 0 0\n/dev/sdb /media/disk vfat rw 0 0\n"));
  EXPECT_FALSE(isFound("/media/disk", "/dev/sda / ext3 rw 0 0\n"));
  EXPECT_FALSE(isFound("/media/disk", "/media/disk"));
  EXPECT_FALSE(isFound("/media/disk", ""));
}

TEST_F(Closing, ReadsTheFirst1024BytesOfTheMountTable) {
  const std::string key = "/media/disk ";
  EXPECT_TRUE(isFound("/media/disk", std::string(1024 - key.size(), 'x') + key + "vfat"));
  EXPECT_FALSE(isFound("/media/disk", std::string(1025 - key.size(), 'x') + key + "vfat"));
  EXPECT_THAT(journal().eventsBeginning("read"), ElementsAre("read /proc/mounts 1024"));
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

TEST_F(Closing, TreatsAPathAsNotMountedIfTheMountTableCannotBeOpened) {
  platform.openError = EACCES;
  platform.existing.insert("/media/disk");
  EXPECT_TRUE(clear("/media/disk"));
  EXPECT_THAT(
      journal().events(),
      ElementsAre("log 2 @506 CheckForAndRemoveMount: /media/disk ", "open /proc/mounts",
                  "access /media/disk", "log 2 @541 Performing rmdir for /media/disk", "rmdir /media/disk"));
}

TEST_F(Closing, TreatsAPathAsNotMountedIfTheMountTableCannotBeRead) {
  platform.readErrors["/proc/mounts"] = EIO;
  EXPECT_TRUE(clear("/media/disk"));
  EXPECT_THAT(journal().calls(), ElementsAre("open /proc/mounts", "read /proc/mounts 1024",
                                             "close /proc/mounts", "access /media/disk"));
}

TEST_F(Closing, ReadsAMountTableThatIsOpenedAsDescriptorZero) {
  platform.nextDescriptor = 0;
  platform.files["/proc/mounts"] = "/dev/sdb /media/disk vfat rw 0 0\n";
  EXPECT_TRUE(clear("/media/disk"));
  EXPECT_THAT(journal().eventsBeginning("umount2"), ElementsAre("umount2 /media/disk 0"));
  EXPECT_EQ(platform.openDescriptors(), 0U);
}

TEST_F(Closing, DoesNotSearchTheBytesOfAnEarlierRead) {
  EXPECT_TRUE(isFound("/media/disk", "/dev/sdb /media/disk vfat rw 0 0\n"));
  platform.files.clear();
  platform.readErrors["/proc/mounts"] = EIO;
  journal().clear();
  EXPECT_TRUE(clear("/media/disk"));
  EXPECT_THAT(journal().eventsBeginning("umount2"), IsEmpty());
}

TEST_F(Closing, RemovesNoDirectoryThatDoesNotExist) {
  platform.files["/proc/mounts"] = "";
  EXPECT_TRUE(clear("/media/disk"));
  EXPECT_THAT(journal().events(),
              ElementsAre("log 2 @506 CheckForAndRemoveMount: /media/disk ", "open /proc/mounts",
                          "read /proc/mounts 1024", "close /proc/mounts", "access /media/disk"));
}

TEST_F(Closing, ClearsLazilyOnRequest) {
  platform.files["/proc/mounts"] = "/dev/sdb /media/disk vfat rw 0 0\n";
  EXPECT_TRUE(clear("/media/disk", true));
  EXPECT_TRUE(clear("/media/disk", false));
  EXPECT_THAT(journal().eventsBeginning("umount2"),
              ElementsAre("umount2 /media/disk 2", "umount2 /media/disk 0"));
}

TEST_F(Closing, ClearsPathsWithoutAMount) {
  const std::string longPath(65536, 'x');
  const std::string pathWithNul("/media/disk\0x", 13);
  EXPECT_FALSE(isFound(longPath, "/dev/sdb /media/disk vfat rw 0 0\n"));
  EXPECT_FALSE(isFound(pathWithNul, "/dev/sdb /media/disk vfat rw 0 0\n"));
  EXPECT_THAT(journal().eventsBeginning("access"), ElementsAre("access " + pathWithNul));
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
