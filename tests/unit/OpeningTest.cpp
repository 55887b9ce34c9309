// Opening devices.

#include <fcntl.h>

#include <cerrno>
#include <sstream>

#include "ExpectedMounts.h"
#include "HandlerTest.h"

namespace {

class Opening : public HandlerTest {
 protected:
  void TearDown() override { EXPECT_FALSE(lockIsHeld()); }

  /// Makes every row fail; the last tried row sets errno to `error`.
  void failMounts(int error) {
    platform.mountError = [error](const FakePlatform::Mount&) { return error; };
  }
  /// Type and flags of each tried mount.
  static std::vector<std::string> mountedTypes() {
    std::vector<std::string> types;
    for (const std::string& event : journal().eventsBeginning("mount ")) {
      std::istringstream words(event);
      std::string word, source, target, type, flags;
      words >> word >> source >> target >> type >> flags;
      types.push_back(type.append(" ").append(flags));
    }
    return types;
  }
  /// The paths that were looked up in the mount table, in the table's form.
  static std::vector<std::string> clearedPaths() {
    const std::string beginning = "log 2 @506 CheckForAndRemoveMount: ";
    std::vector<std::string> paths;
    for (const std::string& event : journal().eventsBeginning(beginning)) {
      paths.push_back(event.substr(beginning.size()));
    }
    return paths;
  }
};

/// Type and flags of every row, in the order of the table.
const std::vector<std::string> everyRow = [] {
  std::vector<std::string> rows;
  for (const testsupport::ExpectedMount& row : testsupport::expectedMounts()) {
    std::ostringstream text;
    text << row.type << ' ' << std::hex << row.flags;
    rows.push_back(text.str());
  }
  return rows;
}();

/// Returns a label and UUID that no disk of the fake system can have.
class HandlerWithReplies : public TestableHandler {
 public:
  using TestableHandler::TestableHandler;
  void GetDeviceLabel(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId) override {
    TestableHandler::GetDeviceLabel(_return, deviceId);
    _return.text = label;
    _return.success = hasLabel;
  }
  void GetDeviceUuid(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId) override {
    TestableHandler::GetDeviceUuid(_return, deviceId);
    _return.text = uuid;
    _return.success = hasUuid;
  }
  std::string label = "LABEL";
  bool hasLabel = true;
  std::string uuid = "UUID";
  bool hasUuid = true;
};

TEST_F(Opening, MountsTheDiskOrItsPartitionAtADirectoryNamedAfterTheDeviceNumber) {
  for (const std::vector<std::string>& nodes : {std::vector<std::string>{"sda"}, {"sdb", "sdb1"}, {"sdc"}}) {
    const std::string& node = nodes.back();
    const auto id = plugIn(nodes, "vfat");
    const std::string directory = "/media/disk_" + std::to_string(id);
    EXPECT_TRUE(handler->OpenDevice(id));
    EXPECT_TRUE(entry(id).deviceOpen);
    EXPECT_EQ(entry(id).mountPoint, directory);
    EXPECT_FALSE(entry(id).hidden);
    EXPECT_THAT(journal().eventsBeginning("mount "),
                ElementsAre("mount /dev/usb_storage_" + node + " " + directory + " vfat c0ed0002 utf8"));
  }
  EXPECT_EQ(handler->deviceMap.size(), 3U);
}

TEST_F(Opening, DoesAndLogsEachStepInOrder) {
  const std::string foundDevice =
      R"(log 3 @656 OpenDeviceAt: found device[1] deviceName="sdb" partitionCount=1, deviceOpen=0, )"
      "lastUsbOperation=0";
  const auto id = plugIn({"sdb", "sdb1"}, "vfat");
  auto& values = platform.disks["/dev/usb_storage_sdb1"].values;
  values["LABEL"] = "STICK";
  values["UUID"] = "1234-ABCD";
  EXPECT_TRUE(handler->OpenDevice(id));
  EXPECT_THAT(journal().events(),
              ElementsAreArray(std::vector<std::string>{
                  "log 3 @640 OpenDeviceAt(1, /media/disk_1, isPvrDevice=0)",
                  "log 2 @142 CheckForAndUpdateNewDevices",
                  "scandir /dev",
                  "log 2 @196 entry: name=sdb number= matchFound=1",
                  "log 2 @196 entry: name=sdb1 number=1 matchFound=1",
                  "log 2 @652 Number of devices in map 1",
                  foundDevice,
                  "log 2 @1152 GetUsbMountDevice",
                  "log 2 @684 usb device to open is /dev/usb_storage_sdb1",
                  "open /dev/usb_storage_sdb1",
                  "log 2 @1046 GetDeviceLabel",
                  "new_probe /dev/usb_storage_sdb1",
                  "do_probe /dev/usb_storage_sdb1",
                  "lookup /dev/usb_storage_sdb1 LABEL",
                  "free_probe /dev/usb_storage_sdb1",
                  "log 2 @1015 getBlkidLookupValue(1,LABEL; device=/dev/usb_storage_sdb1)=STICK",
                  "log 2 @1060 GetDeviceLabel(1)=STICK",
                  "log 2 @697 automount - label is  STICK",
                  "log 2 @506 CheckForAndRemoveMount: /media/STICK ",
                  "open /proc/mounts",
                  "access /media/STICK",
                  "log 2 @706 will do a get device UUID  ",
                  "log 2 @1024 GetDeviceUuid",
                  "new_probe /dev/usb_storage_sdb1",
                  "do_probe /dev/usb_storage_sdb1",
                  "lookup /dev/usb_storage_sdb1 UUID",
                  "free_probe /dev/usb_storage_sdb1",
                  "log 2 @1015 getBlkidLookupValue(1,UUID; device=/dev/usb_storage_sdb1)=1234-ABCD",
                  "log 2 @1036 GetDeviceUUID(1)=1234-ABCD",
                  "log 2 @711 automount - uuid is  1234-ABCD",
                  "log 2 @506 CheckForAndRemoveMount: /media/1234-ABCD ",
                  "open /proc/mounts",
                  "access /media/1234-ABCD",
                  "log 2 @506 CheckForAndRemoveMount: /media/disk ",
                  "open /proc/mounts",
                  "access /media/disk",
                  "log 2 @724 mountPoint Name is /media/disk_1",
                  "log 2 @506 CheckForAndRemoveMount: /media/disk_1 ",
                  "open /proc/mounts",
                  "access /media/disk_1",
                  "log 2 @728 mountPoint Name is /media/disk_1",
                  "mkdir /media/disk_1 775",
                  "log 2 @733 mkdir ok usbMountDevice.c_str() /dev/usb_storage_sdb1",
                  "log 2 @734 mkdir status is 0",
                  "new_probe /dev/usb_storage_sdb1",
                  "do_probe /dev/usb_storage_sdb1",
                  "lookup /dev/usb_storage_sdb1 TYPE",
                  "free_probe /dev/usb_storage_sdb1",
                  "log 2 @1015 getBlkidLookupValue(1,TYPE; device=/dev/usb_storage_sdb1)=vfat",
                  "mount /dev/usb_storage_sdb1 /media/disk_1 vfat c0ed0002 utf8",
                  "log 2 @770 mount ok",
                  "close /dev/usb_storage_sdb1",
              }));
}

TEST_F(Opening, HoldsTheNodeOpenWhileItProbesAndMounts) {
  const auto id = plugIn({"sdb"}, "vfat");
  std::vector<std::string> unheld;
  platform.onCall = [&](const std::string& event) {
    const bool usesTheNode = event.find(" /dev/usb_storage_sdb") != std::string::npos;
    if (usesTheNode && event.rfind("open", 0) != 0 && platform.openDescriptors() == 0) {
      unheld.push_back(event);
    }
  };
  EXPECT_TRUE(handler->OpenDevice(id));
  EXPECT_THAT(unheld, IsEmpty());
  EXPECT_EQ(platform.openDescriptors(), 0U);
}

TEST_F(Opening, HoldsTheNodeForReadingWithoutWaitingForTheDevice) {
  const auto id = plugIn({"sdb"}, "vfat");
  EXPECT_TRUE(handler->OpenDevice(id));
  EXPECT_EQ(platform.openFlags.at("/dev/usb_storage_sdb"), O_RDONLY | O_NONBLOCK);
}

TEST_F(Opening, ReleasesANodeThatIsOpenedAsDescriptorZero) {
  const auto id = plugIn({"sdb"}, "vfat");
  platform.nextDescriptor = 0;
  EXPECT_TRUE(handler->OpenDevice(id));
  EXPECT_EQ(platform.openDescriptors(), 0U);
}

TEST_F(Opening, ReleasesTheNodeBeforeItUnmounts) {
  const auto id = plugIn({"sdb"}, "vfat");
  platform.files["/proc/mounts"] = "/dev/usb_storage_sdb /media/disk_1 vfat rw 0 0\n";
  EXPECT_TRUE(handler->OpenDevice(id));
  std::vector<std::string> node;
  for (const std::string& event : journal().calls()) {
    if (event == "open /dev/usb_storage_sdb" || event == "close /dev/usb_storage_sdb" ||
        event == "umount2 /media/disk_1 0") {
      node.push_back(event);
    }
  }
  EXPECT_THAT(node, ElementsAre("open /dev/usb_storage_sdb", "close /dev/usb_storage_sdb",
                                "umount2 /media/disk_1 0"));
}

TEST_F(Opening, OpensADeviceWhoseNodeItCannotHold) {
  // The node exists, but only mounting it works.
  platform.deviceNodes = {"usb_storage_sdb"};
  EXPECT_TRUE(handler->OpenDevice(1));
  EXPECT_THAT(journal().eventsBeginning("close /dev"), IsEmpty());
}

TEST_F(Opening, DoesAndLogsEachStepOfAFailedOpeningInOrder) {
  const auto id = plugIn({"sdb"}, "xfs");
  failMounts(ENODEV);
  EXPECT_FALSE(handler->OpenDeviceAt(id, "/media/pvr", true));
  const auto events = journal().events();
  std::vector<std::string> expectedEnd = {
      "mkdir /media/pvr 775",
      "log 2 @733 mkdir ok usbMountDevice.c_str() /dev/usb_storage_sdb",
      "log 2 @734 mkdir status is 0",
      "new_probe /dev/usb_storage_sdb",
      "do_probe /dev/usb_storage_sdb",
      "lookup /dev/usb_storage_sdb TYPE",
      "free_probe /dev/usb_storage_sdb",
      "log 2 @1015 getBlkidLookupValue(1,TYPE; device=/dev/usb_storage_sdb)=xfs",
  };
  const auto mounts = testsupport::expectedMountCalls("/dev/usb_storage_sdb", "/media/pvr", "xfs");
  expectedEnd.insert(expectedEnd.end(), mounts.begin(), mounts.end());
  expectedEnd.insert(expectedEnd.end(),
                     {
                         "log 2 @590 Error on usb mount: Filesystemtype not configured in the kernel.",
                         "log 2 @778 Performing rmdir for /media/pvr",
                         "rmdir /media/pvr",
                         "close /dev/usb_storage_sdb",
                     });
  ASSERT_GT(events.size(), expectedEnd.size());
  EXPECT_THAT(
      std::vector<std::string>(events.end() - static_cast<std::ptrdiff_t>(expectedEnd.size()), events.end()),
      ElementsAreArray(expectedEnd));
  EXPECT_EQ(events.front(), "log 3 @640 OpenDeviceAt(1, /media/pvr, isPvrDevice=1)");
}

TEST_F(Opening, KeepsTheMountPointAndTheHiddenFlagOfAFailedOpening) {
  const auto id = plugIn({"sdb"});
  failMounts(ENODEV);
  EXPECT_FALSE(handler->OpenDeviceAt(id, "/media/pvr", true));
  EXPECT_FALSE(entry(id).deviceOpen);
  EXPECT_EQ(entry(id).mountPoint, "/media/pvr");
  EXPECT_TRUE(entry(id).hidden);
}

TEST_F(Opening, ChangesTheRecordBeforeAnythingIsMounted) {
  const auto id = plugIn({"sdb"}, "vfat");
  entry(id).deviceOpen = true;
  bool seen = false;
  platform.onCall = [&](const std::string& event) {
    if (event != "scandir /dev" && !seen) {
      seen = true;
      EXPECT_FALSE(entry(id).deviceOpen);
      EXPECT_EQ(entry(id).mountPoint, "/media/pvr");
      EXPECT_TRUE(entry(id).hidden);
    }
  };
  EXPECT_TRUE(handler->OpenDeviceAt(id, "/media/pvr", true));
  EXPECT_TRUE(seen);
  EXPECT_TRUE(entry(id).deviceOpen);
}

TEST_F(Opening, MarksADeviceAsOpenOnlyAfterTheMount) {
  const auto id = plugIn({"sdb"}, "vfat");
  platform.mountError = [&](const FakePlatform::Mount&) {
    EXPECT_FALSE(entry(id).deviceOpen);
    return 0;
  };
  EXPECT_TRUE(handler->OpenDevice(id));
  EXPECT_TRUE(entry(id).deviceOpen);
}

TEST_F(Opening, LeavesTheOtherFieldsOfTheRecordUnchanged) {
  const auto id = plugIn({"sdb", "sdb1"}, "vfat");
  entry(id).lastUsbOperation = Dockhand::UsbOperationAdded;
  EXPECT_TRUE(handler->OpenDevice(id));
  EXPECT_EQ(entry(id).deviceName, "sdb");
  EXPECT_EQ(entry(id).partitionCount, 1U);
  EXPECT_EQ(entry(id).lastUsbOperation, Dockhand::UsbOperationAdded);
  EXPECT_FALSE(entry(id).safelyRemoved);
}

TEST_F(Opening, OpenDeviceCallsTheVirtualOpenDeviceAt) {
  class Overriding : public TestableHandler {
   public:
    using TestableHandler::TestableHandler;
    bool OpenDeviceAt(std::int16_t deviceId, const std::string& mountPoint, bool isPvrDevice) override {
      calls.push_back(std::to_string(deviceId) + " " + mountPoint + " " + std::to_string(isPvrDevice));
      return result;
    }
    std::vector<std::string> calls;
    bool result = true;
  };
  Overriding overriding(platform);
  journal().clear();
  EXPECT_TRUE(overriding.OpenDevice(7));
  overriding.result = false;
  EXPECT_FALSE(overriding.OpenDevice(-1));
  EXPECT_THAT(overriding.calls, ElementsAre("7 /media/disk_7 0", "-1 /media/disk_-1 0"));
  EXPECT_THAT(journal().events(), IsEmpty());
}

TEST_F(Opening, RefusesTheDeviceUnderRepairWithoutAccessingIt) {
  const auto id = plugIn({"sdb"}, "xfs");
  handler->diskRepairRunning = true;
  handler->diskRepairDeviceId = id;
  watchLock();
  EXPECT_FALSE(handler->OpenDevice(id));
  EXPECT_THAT(journal().events(), ElementsAre("log 3 @640 OpenDeviceAt(1, /media/disk_1, isPvrDevice=0)",
                                              "log 5 @646 Disk repair is running, cannot open dev 1"));
  EXPECT_THAT(unlocked, SizeIs(1));
  EXPECT_EQ(entry(id).mountPoint, "");
}

TEST_F(Opening, ComparesTheDeviceUnderRepairAsASignedNumber) {
  handler->diskRepairRunning = true;
  handler->diskRepairDeviceId = -1;
  EXPECT_FALSE(handler->OpenDevice(-1));
  EXPECT_THAT(journal().events(), ElementsAre("log 3 @640 OpenDeviceAt(-1, /media/disk_-1, isPvrDevice=0)",
                                              "log 5 @646 Disk repair is running, cannot open dev -1"));
}

TEST_F(Opening, OpensAnotherDeviceDuringARepair) {
  plugIn({"sda"}, "xfs");
  const auto id = plugIn({"sdb"}, "vfat");
  handler->diskRepairRunning = true;
  handler->diskRepairDeviceId = 1;
  EXPECT_TRUE(handler->OpenDevice(id));
}

TEST_F(Opening, OpensTheDeviceAgainAfterItsRepair) {
  const auto id = plugIn({"sdb"}, "xfs");
  handler->diskRepairRunning = false;
  handler->diskRepairDeviceId = id;
  EXPECT_TRUE(handler->OpenDevice(id));
}

TEST_F(Opening, OpensAnUnannouncedDevice) {
  platform.deviceNodes = {"usb_storage_sdb"};
  EXPECT_TRUE(handler->OpenDevice(1));
  EXPECT_TRUE(entry(1).deviceOpen);
}

TEST_F(Opening, RefusesADeviceWhoseNodeIsGone) {
  const auto id = plugIn({"sdb"}, "vfat");
  pullOut({"sdb"});
  EXPECT_FALSE(handler->OpenDevice(id));
  EXPECT_THAT(journal().events(),
              ElementsAre("log 3 @640 OpenDeviceAt(1, /media/disk_1, isPvrDevice=0)",
                          "log 2 @142 CheckForAndUpdateNewDevices", "scandir /dev",
                          "log 2 @652 Number of devices in map 0",
                          "log 2 @669 No such device available or device not plugged in"));
}

TEST_F(Opening, RefusesADeviceThatWasReportedRemoved) {
  const auto id = plugIn({"sdb"}, "vfat");
  for (const int operation : {2, 3, -1}) {
    entry(id).lastUsbOperation = static_cast<Dockhand::UsbOperation>(operation);
    journal().clear();
    EXPECT_FALSE(handler->OpenDeviceAt(id, "/media/pvr", true)) << operation;
    EXPECT_THAT(journal().logs(),
                ElementsAre("log 3 @640 OpenDeviceAt(1, /media/pvr, isPvrDevice=1)",
                            "log 2 @142 CheckForAndUpdateNewDevices",
                            "log 2 @196 entry: name=sdb number= matchFound=1",
                            "log 2 @652 Number of devices in map 1",
                            "log 3 @656 OpenDeviceAt: found device[1] deviceName=\"sdb\" partitionCount=0, "
                            "deviceOpen=0, lastUsbOperation=" +
                                std::to_string(operation),
                            "log 2 @669 No such device available or device not plugged in"));
    EXPECT_EQ(entry(id).mountPoint, "");
    EXPECT_FALSE(entry(id).hidden);
  }
}

TEST_F(Opening, OpensAnAnnouncedDevice) {
  const auto id = plugIn({"sdb"}, "vfat");
  entry(id).lastUsbOperation = Dockhand::UsbOperationAdded;
  EXPECT_TRUE(handler->OpenDevice(id));
}

TEST_F(Opening, RefusesASafelyRemovedDevice) {
  const auto id = plugIn({"sdb"}, "vfat");
  entry(id).safelyRemoved = true;
  EXPECT_FALSE(handler->OpenDeviceAt(id, "/media/pvr", true));
  EXPECT_EQ(journal().events().back(),
            "log 4 @676 USB device has been safely removed - remove/insert to enable further usage");
  EXPECT_THAT(journal().calls(), ElementsAre("scandir /dev"));
  EXPECT_EQ(entry(id).mountPoint, "");
  EXPECT_FALSE(entry(id).hidden);
}

TEST_F(Opening, LogsEveryKnownDeviceInAscendingOrder) {
  plugIn({"sda", "sda1"});
  const auto id = plugIn({"sdb"}, "vfat");
  entry(1).deviceOpen = true;
  entry(1).lastUsbOperation = Dockhand::UsbOperationRemoved;
  EXPECT_TRUE(handler->OpenDevice(id));
  EXPECT_THAT(journal().eventsBeginning("log 3 @656"),
              ElementsAre("log 3 @656 OpenDeviceAt: found device[1] deviceName=\"sda\" partitionCount=1, "
                          "deviceOpen=1, lastUsbOperation=2",
                          "log 3 @656 OpenDeviceAt: found device[2] deviceName=\"sdb\" partitionCount=0, "
                          "deviceOpen=0, lastUsbOperation=0"));
  EXPECT_THAT(journal().logs(), Contains("log 2 @652 Number of devices in map 2"));
}

TEST_F(Opening, UnmountsAnOpenDeviceAndMountsItAgain) {
  const auto id = plugIn({"sdb"}, "vfat");
  ASSERT_TRUE(handler->OpenDevice(id));
  platform.files["/proc/mounts"] = "/dev/usb_storage_sdb /media/disk_1 vfat rw 0 0\n";
  journal().clear();
  EXPECT_TRUE(handler->OpenDevice(id));
  EXPECT_TRUE(entry(id).deviceOpen);
  std::vector<std::string> changes;
  for (const std::string& event : journal().calls()) {
    if (event.rfind("mount ", 0) == 0 || event.rfind("umount2 ", 0) == 0 || event.rfind("mkdir ", 0) == 0 ||
        event.rfind("rmdir ", 0) == 0) {
      changes.push_back(event);
    }
  }
  EXPECT_THAT(changes,
              ElementsAre("umount2 /media/disk_1 0", "rmdir /media/disk_1", "mkdir /media/disk_1 775",
                          "mount /dev/usb_storage_sdb /media/disk_1 vfat c0ed0002 utf8"));
}

TEST_F(Opening, ForgetsTheMountOfAnOpenDeviceAtAnotherDirectory) {
  const auto id = plugIn({"sdb"}, "vfat");
  ASSERT_TRUE(handler->OpenDeviceAt(id, "/media/one", true));
  platform.files["/proc/mounts"] = "/dev/usb_storage_sdb /media/one vfat rw 0 0\n";
  journal().clear();
  EXPECT_TRUE(handler->OpenDeviceAt(id, "/media/two", false));
  EXPECT_EQ(entry(id).mountPoint, "/media/two");
  EXPECT_FALSE(entry(id).hidden);
  EXPECT_THAT(journal().eventsBeginning("umount"), IsEmpty());
}

TEST_F(Opening, ClearsTheDirectoriesOfAnAutomounter) {
  const auto id = plugIn({"sdb"}, "vfat");
  auto& values = platform.disks["/dev/usb_storage_sdb"].values;
  values["LABEL"] = "My Disk";
  values["UUID"] = "1234-ABCD";
  platform.files["/proc/mounts"] =
      "/dev/sdb /media/My\\040Disk vfat rw 0 0\n"
      "/dev/sdb /media/1234-ABCD vfat rw 0 0\n"
      "/dev/sdb /media/disk vfat rw 0 0\n";
  EXPECT_TRUE(handler->OpenDevice(id));
  EXPECT_THAT(clearedPaths(),
              ElementsAre("/media/My\\040Disk ", "/media/1234-ABCD ", "/media/disk ", "/media/disk_1 "));
  EXPECT_THAT(journal().eventsBeginning("umount2"),
              ElementsAre("umount2 /media/My Disk 0", "umount2 /media/1234-ABCD 0", "umount2 /media/disk 0"));
}

TEST_F(Opening, ClearsTheDirectoryOfTheDefaultLabelButNotOfTheDefaultUuid) {
  const auto id = plugIn({"sdb"}, "vfat");
  EXPECT_TRUE(handler->OpenDevice(id));
  EXPECT_THAT(clearedPaths(), ElementsAre("/media/NONAME ", "/media/disk ", "/media/disk_1 "));
  EXPECT_THAT(journal().logs(), IsSupersetOf({"log 2 @697 automount - label is  NONAME",
                                              "log 2 @706 will do a get device UUID  "}));
  EXPECT_THAT(journal().eventsBeginning("log 2 @711"), IsEmpty());
}

TEST_F(Opening, GetsLabelAndUuidThroughVirtualCallsAndUsesTheirSuccessFlags) {
  plugIn({"sdb"}, "vfat");
  HandlerWithReplies answering(platform);
  journal().clear();
  EXPECT_TRUE(answering.OpenDevice(1));
  EXPECT_THAT(clearedPaths(), ElementsAre("/media/LABEL ", "/media/UUID ", "/media/disk ", "/media/disk_1 "));
  answering.hasLabel = false;
  journal().clear();
  EXPECT_TRUE(answering.OpenDevice(1));
  EXPECT_THAT(clearedPaths(), ElementsAre("/media/UUID ", "/media/disk ", "/media/disk_1 "));
  EXPECT_THAT(journal().eventsBeginning("log 2 @697"), IsEmpty());
  answering.hasUuid = false;
  journal().clear();
  EXPECT_TRUE(answering.OpenDevice(1));
  EXPECT_THAT(clearedPaths(), ElementsAre("/media/disk ", "/media/disk_1 "));
}

TEST_F(Opening, ClearsNothingForALabelOrUuidThatLeadsOutOfMedia) {
  plugIn({"sdb"}, "vfat");
  HandlerWithReplies answering(platform);
  for (const std::string name : {".", "..", "../etc", "/", "a/b", "disk/", "/etc"}) {
    answering.label = name;
    answering.uuid = name;
    journal().clear();
    EXPECT_TRUE(answering.OpenDevice(1));
    EXPECT_THAT(clearedPaths(), ElementsAre("/media/disk ", "/media/disk_1 ")) << name;
    EXPECT_THAT(journal().logs(),
                IsSupersetOf({"log 2 @697 automount - label is  " + name,
                              "log 4 @701 automount - label names no directory under /media: " + name,
                              "log 2 @711 automount - uuid is  " + name,
                              "log 4 @715 automount - uuid names no directory under /media: " + name}));
  }
}

TEST_F(Opening, ClearsTheDirectoryOfALabelThatOnlyLooksLikeADotName) {
  plugIn({"sdb"}, "vfat");
  HandlerWithReplies answering(platform);
  answering.label = "...";
  answering.uuid = ".a";
  journal().clear();
  EXPECT_TRUE(answering.OpenDevice(1));
  EXPECT_THAT(clearedPaths(), ElementsAre("/media/... ", "/media/.a ", "/media/disk ", "/media/disk_1 "));
  EXPECT_THAT(journal().eventsBeginning("log 4 @7"), IsEmpty());
}

TEST_F(Opening, ContinuesIfAStaleMountCannotBeCleared) {
  const auto id = plugIn({"sdb"}, "vfat");
  platform.files["/proc/mounts"] = "/dev/sdb /media/disk vfat rw 0 0\n/dev/sdb /media/disk_1 vfat rw 0 0\n";
  platform.umount2Error = EBUSY;
  EXPECT_TRUE(handler->OpenDevice(id));
  EXPECT_THAT(journal().eventsBeginning("umount2"),
              ElementsAre("umount2 /media/disk 0", "umount2 /media/disk_1 0"));
  EXPECT_TRUE(entry(id).deviceOpen);
}

TEST_F(Opening, MountsOverADirectoryThatExists) {
  const auto id = plugIn({"sdb"}, "vfat");
  platform.existing.insert("/media/disk_1");
  platform.rmdirError = ENOTEMPTY;
  platform.onCall = [&](const std::string& event) {
    // A log line may change errno; the judge must not see that.
    if (event == "mkdir /media/disk_1 775") {
      journal().onLine = [](const LoggedLine&) { errno = ENOSPC; };
    }
  };
  ::testing::internal::CaptureStdout();
  EXPECT_TRUE(handler->OpenDevice(id));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "\n");
  EXPECT_THAT(journal().logs(),
              IsSupersetOf({"log 2 @733 mkdir ok usbMountDevice.c_str() /dev/usb_storage_sdb",
                            "log 2 @734 mkdir status is -1", "log 2 @770 mount ok"}));
  EXPECT_THAT(journal().eventsBeginning("mount "), SizeIs(1));
}

TEST_F(Opening, MountsWhereTheFileSystemRefusesNewDirectories) {
  const auto id = plugIn({"sdb"}, "vfat");
  platform.mkdirError = EPERM;
  ::testing::internal::CaptureStdout();
  EXPECT_TRUE(handler->OpenDevice(id));
  EXPECT_THAT(::testing::internal::GetCapturedStdout(),
              HasSubstr("does not support the creation of directories."));
  EXPECT_THAT(journal().eventsBeginning("mount "), SizeIs(1));
}

TEST_F(Opening, MountsNothingWithoutADirectory) {
  const auto id = plugIn({"sdb"}, "vfat");
  platform.mkdirError = ENOSPC;
  platform.rmdirError = ENOENT;
  ::testing::internal::CaptureStdout();
  EXPECT_FALSE(handler->OpenDevice(id));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "Error on usb mount: The new  directory  cannot  be  created because the user's disk quota is "
            "exhausted.\n");
  const auto events = journal().events();
  ASSERT_GT(events.size(), 6U);
  EXPECT_THAT(std::vector<std::string>(events.end() - 6, events.end()),
              ElementsAre("mkdir /media/disk_1 775",
                          "log 2 @733 mkdir ok usbMountDevice.c_str() /dev/usb_storage_sdb",
                          "log 2 @734 mkdir status is -1", "log 2 @778 Performing rmdir for /media/disk_1",
                          "rmdir /media/disk_1", "close /dev/usb_storage_sdb"));
  EXPECT_FALSE(entry(id).deviceOpen);
  EXPECT_EQ(entry(id).mountPoint, "/media/disk_1");
}

TEST_F(Opening, PrintsNothingIfItMakesTheDirectory) {
  const auto id = plugIn({"sdb"}, "vfat");
  ::testing::internal::CaptureStdout();
  EXPECT_TRUE(handler->OpenDevice(id));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
}

TEST_F(Opening, TriesAReadOnlyMountOfTheProbedTypeBeforeAnyOtherType) {
  const auto id = plugIn({"sdb"}, "ntfs");
  platform.mountError = [](const FakePlatform::Mount& attempt) {
    return attempt.fileSystemType == "ntfs" && attempt.flags == 11 ? 0 : EROFS;
  };
  EXPECT_TRUE(handler->OpenDevice(id));
  EXPECT_THAT(journal().eventsBeginning("mount "),
              ElementsAre("mount /dev/usb_storage_sdb /media/disk_1 ntfs a nls=utf8",
                          "mount /dev/usb_storage_sdb /media/disk_1 ntfs b nls=utf8"));
}

TEST_F(Opening, TriesEveryRowForATypeWithoutARow) {
  for (const std::string type : {"ext4", "hfsplus", "VFAT", "vfat ", "xf"}) {
    const auto id = plugIn({"sdb"}, type);
    platform.mountError = [](const FakePlatform::Mount& attempt) {
      return attempt.fileSystemType == "xfs" ? 0 : EINVAL;
    };
    EXPECT_TRUE(handler->OpenDevice(id));
    EXPECT_EQ(mountedTypes(), everyRow) << type;
    pullOut({"sdb"});
    handler->CheckForAndUpdateNewDevices();
  }
}

TEST_F(Opening, StopsAtTheFirstRowThatMounts) {
  const auto id = plugIn({"sdb"}, "ext4");
  platform.mountError = [](const FakePlatform::Mount& attempt) {
    return attempt.fileSystemType == "ext3" ? 0 : EINVAL;
  };
  EXPECT_TRUE(handler->OpenDevice(id));
  EXPECT_THAT(mountedTypes(),
              ElementsAre("vfat c0ed0002", "vfat c0ed0003", "ntfs a", "ntfs b", "ext3 c0ed0002"));
}

TEST_F(Opening, TriesEveryRowTwiceWhenTheDiskCannotBeProbed) {
  platform.deviceNodes = {"usb_storage_sdb"};
  failMounts(ENODEV);
  EXPECT_FALSE(handler->OpenDevice(1));
  EXPECT_THAT(mountedTypes(), SizeIs(2 * everyRow.size()));
}

TEST_F(Opening, SucceedsInTheSecondPass) {
  const auto id = plugIn({"sdb"}, "vfat");
  int attempts = 0;
  platform.mountError = [&attempts](const FakePlatform::Mount&) { return ++attempts == 3 ? 0 : EINVAL; };
  EXPECT_TRUE(handler->OpenDevice(id));
  EXPECT_THAT(mountedTypes(), ElementsAre("vfat c0ed0002", "vfat c0ed0003", "vfat c0ed0002"));
  EXPECT_THAT(journal().eventsBeginning("log 2 @590"), IsEmpty());
  EXPECT_EQ(journal().logs().back(), "log 2 @770 mount ok");
}

TEST_F(Opening, CountsAnInvalidSuperblockOfTheLastAttemptAsSuccess) {
  const auto id = plugIn({"sdb"}, "vfat");
  platform.mountError = [](const FakePlatform::Mount& attempt) {
    return attempt.fileSystemType == "xfs" ? EINVAL : ENODEV;
  };
  EXPECT_TRUE(handler->OpenDevice(id));
  EXPECT_TRUE(entry(id).deviceOpen);
  const auto logs = journal().logs();
  ASSERT_GT(logs.size(), 2U);
  EXPECT_THAT(std::vector<std::string>(logs.end() - 2, logs.end()),
              ElementsAre("log 2 @590 Error on usb mount: Source had an invalid superblock (EINVAL).",
                          "log 2 @770 mount ok"));
  EXPECT_THAT(journal().eventsBeginning("rmdir"), IsEmpty());
}

TEST_F(Opening, CountsAMountedSourceAsSuccess) {
  const auto id = plugIn({"sdb"}, "vfat");
  failMounts(EBUSY);
  EXPECT_TRUE(handler->OpenDevice(id));
  EXPECT_TRUE(entry(id).deviceOpen);
  EXPECT_THAT(mountedTypes(), SizeIs(everyRow.size() + 2));
}

TEST_F(Opening, FailsWhenOnlyEarlierAttemptsFoundAnInvalidSuperblock) {
  const auto id = plugIn({"sdb"}, "vfat");
  platform.mountError = [](const FakePlatform::Mount& attempt) {
    return attempt.fileSystemType == "xfs" ? ENODEV : EINVAL;
  };
  EXPECT_FALSE(handler->OpenDevice(id));
  EXPECT_FALSE(entry(id).deviceOpen);
}

TEST_F(Opening, IgnoresAFailureOfTheFinalRmdir) {
  const auto id = plugIn({"sdb"}, "vfat");
  failMounts(ENODEV);
  platform.rmdirError = EBUSY;
  EXPECT_FALSE(handler->OpenDevice(id));
  EXPECT_THAT(journal().eventsBeginning("rmdir"), ElementsAre("rmdir /media/disk_1"));
}

TEST_F(Opening, FailsForAnEmptyDirectoryName) {
  const auto id = plugIn({"sdb"}, "vfat");
  platform.files["/proc/mounts"] = "rootfs / rootfs rw 0 0\n";
  platform.umount2Error = ENOENT;
  platform.mkdirError = ENOENT;
  platform.rmdirError = ENOENT;
  ::testing::internal::CaptureStdout();
  EXPECT_FALSE(handler->OpenDeviceAt(id, "", false));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "Error on usb mount: A directory component  in pathname does not exist or is a dangling symbolic "
            "link.\n");
  EXPECT_THAT(journal().eventsBeginning("mount "), IsEmpty());
  EXPECT_THAT(
      journal().logs(),
      IsSupersetOf({"log 3 @640 OpenDeviceAt(1, , isPvrDevice=0)", "log 2 @521 Performing unmount for ",
                    "log 4 @528 umount2() failed, errno=2=No such file or directory",
                    "log 2 @778 Performing rmdir for "}));
  EXPECT_FALSE(entry(id).deviceOpen);
}

TEST_F(Opening, FailsForADirectoryNameThatIsTooLong) {
  const auto id = plugIn({"sdb"}, "vfat");
  const std::string longName = "/media/" + std::string(65536, 'x');
  platform.mkdirError = ENAMETOOLONG;
  platform.rmdirError = ENAMETOOLONG;
  ::testing::internal::CaptureStdout();
  EXPECT_FALSE(handler->OpenDeviceAt(id, longName, false));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Error on usb mount: Partname was too long.\n");
  EXPECT_EQ(entry(id).mountPoint, longName);
  EXPECT_THAT(journal().calls(), Contains("mkdir " + longName + " 775"));
  EXPECT_THAT(journal().eventsBeginning("mount "), IsEmpty());
}

TEST_F(Opening, PassesADirectoryNameWithANulByteUnchanged) {
  const auto id = plugIn({"sdb"}, "vfat");
  const std::string name("/media/disk\0_1", 14);
  platform.files["/proc/mounts"] = "/dev/sda /media/other vfat rw 0 0\n";
  platform.mkdirError = ENOENT;
  ::testing::internal::CaptureStdout();
  EXPECT_FALSE(handler->OpenDeviceAt(id, name, false));
  ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(entry(id).mountPoint, name);
  EXPECT_THAT(journal().calls(), IsSupersetOf({"access " + name, "mkdir " + name + " 775", "rmdir " + name}));
  EXPECT_THAT(journal().calls(), Not(Contains("rmdir /media/disk")));
}

TEST_F(Opening, LogsOnlyLinesFromTheThresholdUp) {
  const auto id = plugIn({"sdb"});
  failMounts(ENODEV);
  handler->OpenDevice(id);
  const std::vector<LoggedLine> all = journal().lines();
  for (int threshold = 1; threshold <= 6; ++threshold) {
    setThreshold(threshold);
    journal().clear();
    handler->OpenDevice(id);
    std::vector<std::string> expected;
    for (const LoggedLine& line : all) {
      if (line.level >= threshold) {
        expected.push_back(line.text);
      }
    }
    std::vector<std::string> texts;
    for (const LoggedLine& line : journal().lines()) {
      texts.push_back(line.text);
    }
    EXPECT_EQ(texts, expected) << threshold;
  }
}

TEST_F(Opening, LogsOnlyItsRefusalsAtTheThresholdOfErrors) {
  const auto id = plugIn({"sdb"});
  handler->diskRepairRunning = true;
  handler->diskRepairDeviceId = id;
  setThreshold(5);
  EXPECT_FALSE(handler->OpenDevice(id));
  EXPECT_THAT(journal().logs(), ElementsAre("log 5 @646 Disk repair is running, cannot open dev 1"));
}

}  // namespace
