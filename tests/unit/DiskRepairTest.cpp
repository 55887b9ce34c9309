// Repairing a disk while others are served.

#include <atomic>
#include <cerrno>
#include <future>
#include <new>

#include "HandlerTest.h"

namespace {

const std::string forceUnmount = "system umount -f /dev/usb_storage_sdb1 1>/dev/null 2>&1";
const std::string repair = "system xfs_repair /dev/usb_storage_sdb1 1>/tmp/Dockhand.log 2>&1";
const std::string repairZeroingTheLog = "system xfs_repair -L /dev/usb_storage_sdb1 1>/tmp/Dockhand.log 2>&1";
const std::string passLog = "system logger -s -t Dockhand </tmp/Dockhand.log";
const std::string replay = "mount /dev/usb_storage_sdb1 /media/disk_tmp xfs 40a prjquota";

/// The events of a repair of device 1: those of the look-up, then these.
std::vector<std::string> afterLookUp(const std::string& type, const std::vector<std::string>& events) {
  std::vector<std::string> all = {
      "log 2 @1187 RunDiskRepair(1)",
      "log 2 @952 GetPartitionInfo(1)",
      "new_probe /dev/usb_storage_sdb1",
      "do_probe /dev/usb_storage_sdb1",
      "lookup /dev/usb_storage_sdb1 TYPE",
      "free_probe /dev/usb_storage_sdb1",
      "log 2 @1015 getBlkidLookupValue(1,TYPE; device=/dev/usb_storage_sdb1)=" + type,
      "log 2 @1152 GetUsbMountDevice"};
  all.insert(all.end(), events.begin(), events.end());
  return all;
}

class DiskRepair : public HandlerTest {
 protected:
  DiskRepair() {
    plugIn({"sdb", "sdb1"}, "xfs");
    // Nothing is mounted.
    setStatuses({{"umount", 256}});
  }

  void repairsEndWith(int first, int second) {
    setStatuses({{"umount", 256}, {"xfs_repair ", first}, {"xfs_repair -L ", second}});
  }
  bool isIdle() const { return !handler->diskRepairRunning && handler->diskRepairDeviceId == 0; }
};

/// A repair in its own thread, which waits in xfs_repair until finish().
class RunningRepair : public DiskRepair {
 protected:
  RunningRepair() {
    plugIn({"sdc1"}, "xfs");
    platform.systemStatus = [this](const std::string& command) {
      // A second repair does not wait here, so that it fails the test instead of blocking it.
      if (begins(command, "xfs_repair /dev/usb_storage_sdb1") && arrive()) {
        letGo_.get_future().wait();
      }
      return begins(command, "umount") ? 256 : 0;
    };
    first_ = std::async(std::launch::async, [this] {
      const bool repaired = handler->RunDiskRepair(1);
      // The same for a repair that ends early.
      arrive();
      return repaired;
    });
    arrived_.get_future().wait();
    journal().clear();
  }
  ~RunningRepair() override {
    if (first_.valid()) {
      finish();
    }
  }

  bool finish() {
    letGo_.set_value();
    return first_.get();
  }

 private:
  /// True for the first caller.
  bool arrive() {
    if (hasArrived_.exchange(true)) {
      return false;
    }
    arrived_.set_value();
    return true;
  }

  std::atomic<bool> hasArrived_{false};
  std::promise<void> arrived_;
  std::promise<void> letGo_;
  std::future<bool> first_;
};

TEST_F(DiskRepair, ReplaysTheJournalAndRepairsStepByStep) {
  EXPECT_TRUE(handler->RunDiskRepair(1));
  EXPECT_EQ(journal().events(),
            afterLookUp("xfs", {"mkdir /media/disk_tmp 775", replay, "umount /media/disk_tmp",
                                "rmdir /media/disk_tmp", forceUnmount,
                                "log 3 @124 Executing: xfs_repair /dev/usb_storage_sdb1 # from Line=1241",
                                repair, passLog, "log 3 @1263 xfs_repair PASSED"}));
}

TEST_F(DiskRepair, RepairsAWholeDisk) {
  plugIn({"sdc"}, "xfs");
  EXPECT_TRUE(handler->RunDiskRepair(2));
  EXPECT_THAT(journal().eventsBeginning("mount"),
              ElementsAre("mount /dev/usb_storage_sdc /media/disk_tmp xfs 40a prjquota"));
  EXPECT_THAT(journal().eventsBeginning("system"),
              ElementsAre("system umount -f /dev/usb_storage_sdc 1>/dev/null 2>&1",
                          "system xfs_repair /dev/usb_storage_sdc 1>/tmp/Dockhand.log 2>&1", passLog));
}

TEST_F(DiskRepair, ZeroesTheLogWhenTheFirstRepairFails) {
  for (const int status : {256, -1, 11}) {
    repairsEndWith(status, 0);
    journal().clear();
    EXPECT_TRUE(handler->RunDiskRepair(1));
    EXPECT_EQ(
        journal().events(),
        afterLookUp("xfs",
                    {"mkdir /media/disk_tmp 775", replay, "umount /media/disk_tmp", "rmdir /media/disk_tmp",
                     forceUnmount, "log 3 @124 Executing: xfs_repair /dev/usb_storage_sdb1 # from Line=1241",
                     repair, passLog,
                     "log 4 @129 Warning: xfs_repair /dev/usb_storage_sdb1 returned " +
                         std::to_string(status) + " # from Line=1241",
                     "log 3 @124 Executing: xfs_repair -L /dev/usb_storage_sdb1 # from Line=1248",
                     repairZeroingTheLog, passLog, "log 3 @1263 xfs_repair PASSED"}));
    EXPECT_TRUE(isIdle());
  }
}

TEST_F(DiskRepair, FailsWhenBothRepairsFail) {
  for (const int status : {256, -1}) {
    repairsEndWith(256, status);
    journal().clear();
    EXPECT_FALSE(handler->RunDiskRepair(1));
    const auto events = journal().events();
    ASSERT_GT(events.size(), 4U);
    EXPECT_THAT(std::vector<std::string>(events.end() - 4, events.end()),
                ElementsAre(repairZeroingTheLog, passLog,
                            "log 4 @129 Warning: xfs_repair -L /dev/usb_storage_sdb1 returned " +
                                std::to_string(status) + " # from Line=1248",
                            "log 3 @1263 xfs_repair FAILED"));
    EXPECT_TRUE(isIdle());
  }
}

TEST_F(DiskRepair, ZeroesNoLogWhenTheFirstRepairWasNotRun) {
  platform.claims["/tmp/Dockhand.log"] = Dockhand::Claim::refused;
  EXPECT_FALSE(handler->RunDiskRepair(1));
  EXPECT_EQ(
      journal().events(),
      afterLookUp("xfs",
                  {"mkdir /media/disk_tmp 775", replay, "umount /media/disk_tmp", "rmdir /media/disk_tmp",
                   forceUnmount, "log 3 @124 Executing: xfs_repair /dev/usb_storage_sdb1 # from Line=1241",
                   "statx /tmp/Dockhand.log",
                   "log 5 @138 Not executed, since /tmp/Dockhand.log is not ours and cannot be moved",
                   "log 4 @129 Warning: xfs_repair /dev/usb_storage_sdb1 returned -1 # from Line=1241",
                   "log 3 @1263 xfs_repair FAILED"}));
  EXPECT_TRUE(isIdle());
}

TEST_F(DiskRepair, FailsWhenTheLogFileIsLostBeforeTheSecondRepair) {
  platform.systemStatus = [this](const std::string& command) {
    if (begins(command, "xfs_repair ")) {
      platform.claims["/tmp/Dockhand.log"] = Dockhand::Claim::refused;
    }
    return 256;
  };
  EXPECT_FALSE(handler->RunDiskRepair(1));
  EXPECT_THAT(journal().eventsBeginning(repairZeroingTheLog), IsEmpty());
  EXPECT_THAT(journal().eventsBeginning("log 3 @124 Executing: xfs_repair -L"), SizeIs(1));
  EXPECT_TRUE(isIdle());
}

// Refusals

TEST_F(DiskRepair, RefusesAnOpenDeviceAndUnmountsNothing) {
  entry(1).deviceOpen = true;
  entry(1).mountPoint = "/media/disk_1";
  EXPECT_FALSE(handler->RunDiskRepair(1));
  EXPECT_EQ(journal().events(), afterLookUp("xfs", {"log 5 @1260 RunDiskRepair(1) - device open!",
                                                    "log 3 @1263 xfs_repair FAILED"}));
  EXPECT_TRUE(entry(1).deviceOpen);
  EXPECT_EQ(entry(1).mountPoint, "/media/disk_1");
}

TEST_F(DiskRepair, RefusesAnOpenDeviceBeforeItLooksAtItsType) {
  entry(1).deviceOpen = true;
  platform.disks["/dev/usb_storage_sdb1"].values["TYPE"] = "vfat";
  EXPECT_FALSE(handler->RunDiskRepair(1));
  EXPECT_THAT(journal().eventsBeginning("log 5"), ElementsAre("log 5 @1260 RunDiskRepair(1) - device open!"));
  EXPECT_THAT(journal().eventsBeginning("log 4"), IsEmpty());
}

TEST_F(DiskRepair, RepairsNothingButXfs) {
  for (const char* type : {"vfat", "XFS", "xfs ", "xfs_external_log", "ext4", "%s"}) {
    platform.disks["/dev/usb_storage_sdb1"].values["TYPE"] = type;
    journal().clear();
    EXPECT_FALSE(handler->RunDiskRepair(1));
    EXPECT_EQ(journal().events(),
              afterLookUp(type, {"log 4 @1255 repair not supported for: " + std::string(type),
                                 "log 3 @1263 xfs_repair FAILED"}));
    EXPECT_TRUE(isIdle());
  }
}

TEST_F(DiskRepair, NamesNoTypeWhenItIsUnknown) {
  platform.disks["/dev/usb_storage_sdb1"].opens = false;
  EXPECT_FALSE(handler->RunDiskRepair(1));
  EXPECT_THAT(journal().eventsBeginning("log 4"),
              ElementsAre("log 4 @986 blkid_new_probe_from_filename(/dev/usb_storage_sdb1) failed!",
                          "log 4 @1255 repair not supported for: "));
  EXPECT_THAT(journal().eventsBeginning("system"), IsEmpty());
}

// Replaying the journal

TEST_F(DiskRepair, ReplaysTheJournalWhenTheMountPointExistsAlready) {
  platform.existing.insert("/media/disk_tmp");
  ::testing::internal::CaptureStdout();
  EXPECT_TRUE(handler->RunDiskRepair(1));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "\n");
  EXPECT_THAT(journal().calls(),
              ElementsAre("new_probe /dev/usb_storage_sdb1", "do_probe /dev/usb_storage_sdb1",
                          "lookup /dev/usb_storage_sdb1 TYPE", "free_probe /dev/usb_storage_sdb1",
                          "mkdir /media/disk_tmp 775", replay, "umount /media/disk_tmp",
                          "rmdir /media/disk_tmp", forceUnmount, repair, passLog));
  EXPECT_THAT(journal().eventsBeginning("log 4"), IsEmpty());
}

TEST_F(DiskRepair, ReplaysTheJournalWhenDirectoriesCannotBeMadeButMayExist) {
  platform.mkdirError = EPERM;
  ::testing::internal::CaptureStdout();
  EXPECT_TRUE(handler->RunDiskRepair(1));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "Error on usb mount: The file system containing pathname does not support the creation of "
            "directories.\n");
  EXPECT_THAT(journal().eventsBeginning("mount"), ElementsAre(replay));
}

TEST_F(DiskRepair, RepairsWithoutReplayingTheJournalWhenThereIsNoMountPoint) {
  platform.mkdirError = EROFS;
  ::testing::internal::CaptureStdout();
  EXPECT_TRUE(handler->RunDiskRepair(1));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "Error on usb mount: Pathname refers to a file on a read-only file system.\n");
  EXPECT_EQ(journal().events(),
            afterLookUp("xfs", {"mkdir /media/disk_tmp 775", forceUnmount,
                                "log 3 @124 Executing: xfs_repair /dev/usb_storage_sdb1 # from Line=1241",
                                repair, passLog, "log 3 @1263 xfs_repair PASSED"}));
  EXPECT_TRUE(isIdle());
}

TEST_F(DiskRepair, RepairsEvenIfEachStepOfTheReplayFails) {
  platform.mountError = [](const FakePlatform::Mount&) { return EUCLEAN; };
  platform.umountError = EINVAL;
  platform.rmdirError = EBUSY;
  EXPECT_TRUE(handler->RunDiskRepair(1));
  EXPECT_EQ(
      journal().events(),
      afterLookUp(
          "xfs",
          {"mkdir /media/disk_tmp 775", replay,
           "log 4 @1220 mount(/dev/usb_storage_sdb1,/media/disk_tmp) failed, errno=117=Structure "
           "needs cleaning",
           "umount /media/disk_tmp", "log 4 @1225 umount(/media/disk_tmp) failed, errno=22=Invalid argument",
           "rmdir /media/disk_tmp",
           "log 4 @1229 rmdir(/media/disk_tmp) failed, errno=16=Device or resource busy", forceUnmount,
           "log 3 @124 Executing: xfs_repair /dev/usb_storage_sdb1 # from Line=1241", repair, passLog,
           "log 3 @1263 xfs_repair PASSED"}));
}

// Forced unmounts

TEST_F(DiskRepair, UnmountsUntilNothingIsMounted) {
  int mounts = 2;
  platform.systemStatus = [&mounts](const std::string& command) {
    return begins(command, "umount") && mounts-- <= 0 ? 256 : 0;
  };
  EXPECT_TRUE(handler->RunDiskRepair(1));
  const auto events = journal().events();
  ASSERT_GT(events.size(), 9U);
  EXPECT_THAT(std::vector<std::string>(events.end() - 9, events.end()),
              ElementsAre(forceUnmount, "log 3 @1237 unmounted: /dev/usb_storage_sdb1", forceUnmount,
                          "log 3 @1237 unmounted: /dev/usb_storage_sdb1", forceUnmount,
                          "log 3 @124 Executing: xfs_repair /dev/usb_storage_sdb1 # from Line=1241", repair,
                          passLog, "log 3 @1263 xfs_repair PASSED"));
}

TEST_F(DiskRepair, UnmountsAtMostTenTimes) {
  setStatuses({});
  EXPECT_TRUE(handler->RunDiskRepair(1));
  EXPECT_EQ(journal().eventsBeginning("system umount").size(), 10U);
  EXPECT_EQ(journal().eventsBeginning("log 3 @1237 ").size(), 10U);
}

// State and lock

TEST_F(DiskRepair, IsAnnouncedFromTheMountPointToTheLastRepair) {
  repairsEndWith(256, 256);
  std::vector<std::string> unannounced;
  const auto look = [&](const std::string& event) {
    if (!handler->diskRepairRunning || handler->diskRepairDeviceId != 1) {
      unannounced.push_back(event);
    }
  };
  platform.onCall = look;
  journal().onLine = [&](const LoggedLine& line) { look(line.text); };
  handler->RunDiskRepair(1);
  EXPECT_THAT(unannounced,
              ElementsAre("RunDiskRepair(1)", "GetPartitionInfo(1)", "new_probe /dev/usb_storage_sdb1",
                          "do_probe /dev/usb_storage_sdb1", "lookup /dev/usb_storage_sdb1 TYPE",
                          "free_probe /dev/usb_storage_sdb1",
                          "getBlkidLookupValue(1,TYPE; device=/dev/usb_storage_sdb1)=xfs",
                          "GetUsbMountDevice", "xfs_repair FAILED"));
  EXPECT_TRUE(isIdle());
}

TEST_F(DiskRepair, IsNoLongerAnnouncedAfterAnException) {
  platform.systemStatus = [](const std::string&) -> int { throw std::bad_alloc(); };
  EXPECT_THROW(handler->RunDiskRepair(1), std::bad_alloc);
  EXPECT_TRUE(isIdle());
  setStatuses({});
  EXPECT_TRUE(handler->RunDiskRepair(1));
}

TEST_F(DiskRepair, HoldsTheLockOnlyToFindTheDevice) {
  watchLock();
  platform.mountError = [](const FakePlatform::Mount&) { return EIO; };
  handler->RunDiskRepair(1);
  EXPECT_THAT(unlocked,
              ElementsAre("RunDiskRepair(1)", "GetPartitionInfo(1)", "mkdir /media/disk_tmp 775", replay,
                          "mount(/dev/usb_storage_sdb1,/media/disk_tmp) failed, errno=5=Input/output error",
                          "umount /media/disk_tmp", "rmdir /media/disk_tmp", forceUnmount,
                          "Executing: xfs_repair /dev/usb_storage_sdb1 # from Line=1241", repair, passLog,
                          "xfs_repair PASSED"));
}

TEST_F(DiskRepair, LeavesTheRecordAsItIs) {
  entry(1).hidden = true;
  entry(1).safelyRemoved = true;
  entry(1).mountPoint = "/media/old";
  entry(1).lastUsbOperation = Dockhand::UsbOperationAdded;
  handler->RunDiskRepair(1);
  EXPECT_EQ(entry(1).deviceName, "sdb");
  EXPECT_EQ(entry(1).partitionCount, 1U);
  EXPECT_FALSE(entry(1).deviceOpen);
  EXPECT_TRUE(entry(1).foundInScan);
  EXPECT_TRUE(entry(1).safelyRemoved);
  EXPECT_EQ(entry(1).mountPoint, "/media/old");
  EXPECT_EQ(entry(1).lastUsbOperation, Dockhand::UsbOperationAdded);
  EXPECT_TRUE(entry(1).hidden);
}

TEST_F(DiskRepair, LogsOnlyLinesFromTheThresholdUp) {
  const std::string passed = "log 3 @1263 xfs_repair PASSED";
  platform.mountError = [](const FakePlatform::Mount&) { return EIO; };
  setThreshold(3);
  handler->RunDiskRepair(1);
  const std::string executing = "log 3 @124 Executing: xfs_repair /dev/usb_storage_sdb1 # from Line=1241";
  const std::string mountFailed =
      "log 4 @1220 mount(/dev/usb_storage_sdb1,/media/disk_tmp) failed, errno=5=Input/output error";
  EXPECT_THAT(journal().logs(), ElementsAre(mountFailed, executing, passed));
  journal().clear();
  setThreshold(4);
  handler->RunDiskRepair(1);
  EXPECT_THAT(journal().logs(), ElementsAre(mountFailed));
  journal().clear();
  setThreshold(5);
  handler->RunDiskRepair(1);
  EXPECT_THAT(journal().logs(), IsEmpty());
  handler->RunDiskRepair(9);
  EXPECT_THAT(journal().logs(), ElementsAre("log 5 @965 GetPartitionInfo(9) - Unknown device!",
                                            "log 5 @1194 RunDiskRepair(9) - Unknown device!"));
}

// A second thread while a repair runs

TEST_F(RunningRepair, KeepsItsOwnDeviceFromBeingOpened) {
  EXPECT_FALSE(handler->OpenDevice(1));
  EXPECT_FALSE(handler->OpenDeviceAt(1, "/media/elsewhere", true));
  EXPECT_THAT(journal().events(), ElementsAre("log 3 @640 OpenDeviceAt(1, /media/disk_1, isPvrDevice=0)",
                                              "log 5 @646 Disk repair is running, cannot open dev 1",
                                              "log 3 @640 OpenDeviceAt(1, /media/elsewhere, isPvrDevice=1)",
                                              "log 5 @646 Disk repair is running, cannot open dev 1"));
  EXPECT_TRUE(finish());
  EXPECT_TRUE(handler->OpenDevice(1));
}

TEST_F(RunningRepair, LetsAnotherDeviceBeOpened) {
  EXPECT_TRUE(handler->OpenDevice(2));
  EXPECT_TRUE(entry(2).deviceOpen);
  EXPECT_THAT(journal().eventsBeginning("mount"),
              ElementsAre("mount /dev/usb_storage_sdc1 /media/disk_2 xfs 40a prjquota"));
  EXPECT_TRUE(finish());
}

TEST_F(RunningRepair, LetsOthersTakeTheLock) {
  EXPECT_FALSE(lockIsHeld());
  std::vector<std::int16_t> found;
  handler->GetListOfInsertedDevices(found, false);
  EXPECT_THAT(found, ElementsAre(1, 2));
}

TEST_F(RunningRepair, RefusesASecondRepairAndContinues) {
  for (const std::int16_t id : {std::int16_t{1}, std::int16_t{2}}) {
    journal().clear();
    EXPECT_FALSE(handler->RunDiskRepair(id));
    const std::string number = std::to_string(id);
    const std::vector<std::string> logs = journal().logs();
    ASSERT_GT(logs.size(), 2U);
    EXPECT_EQ(logs.front(), "log 2 @1187 RunDiskRepair(" + number + ")");
    EXPECT_THAT(std::vector<std::string>(logs.end() - 2, logs.end()),
                ElementsAre("log 5 @1201 RunDiskRepair(" + number + ") - repair already running!",
                            "log 3 @1263 xfs_repair FAILED"));
    EXPECT_THAT(journal().eventsBeginning("mkdir"), IsEmpty());
    EXPECT_THAT(journal().eventsBeginning("system"), IsEmpty());
    EXPECT_TRUE(handler->diskRepairRunning);
    EXPECT_EQ(handler->diskRepairDeviceId, 1);
  }
  EXPECT_TRUE(finish());
  EXPECT_TRUE(isIdle());
  EXPECT_TRUE(handler->RunDiskRepair(2));
}

TEST_F(RunningRepair, RefusesASecondRepairForReasonsOfItsOwnFirst) {
  handler->RunDiskRepair(9);
  EXPECT_THAT(journal().eventsBeginning("log 5 @1"),
              ElementsAre("log 5 @1194 RunDiskRepair(9) - Unknown device!"));
  entry(2).deviceOpen = true;
  journal().clear();
  handler->RunDiskRepair(2);
  EXPECT_THAT(journal().eventsBeginning("log 5"), ElementsAre("log 5 @1260 RunDiskRepair(2) - device open!"));
  entry(2).deviceOpen = false;
  platform.disks["/dev/usb_storage_sdc1"].values["TYPE"] = "ext3";
  journal().clear();
  handler->RunDiskRepair(2);
  EXPECT_THAT(journal().eventsBeginning("log 4"), ElementsAre("log 4 @1255 repair not supported for: ext3"));
  EXPECT_THAT(journal().eventsBeginning("log 5"), IsEmpty());
  EXPECT_TRUE(handler->diskRepairRunning);
  EXPECT_EQ(handler->diskRepairDeviceId, 1);
}

class PartitionInformation : public HandlerTest {};

TEST_F(PartitionInformation, HasWhatARepairNeeds) {
  const auto id = plugIn({"sdb", "sdb1"}, "xfs");
  entry(id).deviceOpen = true;
  Dockhand::PartitionInfo info;
  EXPECT_TRUE(handler->GetPartitionInfo(id, info));
  EXPECT_EQ(info.fsType, "xfs");
  EXPECT_EQ(info.mountDevice, "/dev/usb_storage_sdb1");
  EXPECT_TRUE(info.deviceOpen);
  EXPECT_THAT(journal().events(),
              ElementsAre("log 2 @952 GetPartitionInfo(1)", "new_probe /dev/usb_storage_sdb1",
                          "do_probe /dev/usb_storage_sdb1", "lookup /dev/usb_storage_sdb1 TYPE",
                          "free_probe /dev/usb_storage_sdb1",
                          "log 2 @1015 getBlkidLookupValue(1,TYPE; device=/dev/usb_storage_sdb1)=xfs",
                          "log 2 @1152 GetUsbMountDevice"));
}

TEST_F(PartitionInformation, OfAClosedDeviceMayLackAType) {
  const auto id = plugIn({"sdb"});
  Dockhand::PartitionInfo info{"xfs", "/dev/other", true};
  EXPECT_TRUE(handler->GetPartitionInfo(id, info));
  EXPECT_EQ(info.fsType, "");
  EXPECT_EQ(info.mountDevice, "/dev/usb_storage_sdb");
  EXPECT_FALSE(info.deviceOpen);
}

TEST_F(PartitionInformation, OfAnUnknownDeviceIsNotGiven) {
  plugIn({"sdb"}, "vfat");
  for (const int id : {-32768, -1, 0, 2, 32767}) {
    Dockhand::PartitionInfo info{"before", "before", true};
    journal().clear();
    EXPECT_FALSE(handler->GetPartitionInfo(static_cast<std::int16_t>(id), info));
    EXPECT_EQ(info.fsType, "before");
    EXPECT_EQ(info.mountDevice, "before");
    EXPECT_TRUE(info.deviceOpen);
    const std::string number = std::to_string(id);
    EXPECT_THAT(journal().events(),
                ElementsAre("log 2 @952 GetPartitionInfo(" + number + ")",
                            "log 5 @965 GetPartitionInfo(" + number + ") - Unknown device!"));
  }
}

TEST_F(PartitionInformation, IsReadUnderTheLock) {
  const auto id = plugIn({"sdb"});
  Dockhand::PartitionInfo info;
  watchLock();
  handler->GetPartitionInfo(id, info);
  handler->GetPartitionInfo(2, info);
  EXPECT_THAT(unlocked, ElementsAre("GetPartitionInfo(1)", "GetPartitionInfo(2)"));
}

TEST_F(PartitionInformation, IsMissedInTheLogOfErrorsToo) {
  setThreshold(5);
  Dockhand::PartitionInfo info;
  EXPECT_FALSE(handler->GetPartitionInfo(-1, info));
  EXPECT_THAT(journal().logs(), ElementsAre("log 5 @965 GetPartitionInfo(-1) - Unknown device!"));
}

}  // namespace
