// Queries about a device: label, UUID, type, USB version, capacity, mount point, kernel name.

#include <fcntl.h>

#include <cerrno>
#include <limits>

#include "HandlerTest.h"

using ravel::rpc::ReturnValueWithString;

namespace {

class Queries : public HandlerTest {
 protected:
  using Query = void (Dockhand::DockhandClient::*)(ReturnValueWithString&, std::int16_t);
  /// The reply in a result that still had the values of an earlier call.
  ReturnValueWithString reply(Query query, std::int16_t id) {
    ReturnValueWithString result;
    result.success = true;
    result.text = "left over";
    (*handler.*query)(result, id);
    return result;
  }
  FakePlatform::Disk& disk(const std::string& node) { return platform.disks["/dev/usb_storage_" + node]; }
  ReturnValueWithString label(std::int16_t id) {
    return reply(&Dockhand::DockhandClient::GetDeviceLabel, id);
  }
  ReturnValueWithString uuid(std::int16_t id) { return reply(&Dockhand::DockhandClient::GetDeviceUuid, id); }
  ReturnValueWithString usbVersion(std::int16_t id) {
    return reply(&Dockhand::DockhandClient::GetDeviceUsbVersion, id);
  }
  ReturnValueWithString physicalDevice(std::int16_t id) {
    return reply(&Dockhand::DockhandClient::GetUsbPhysicalDevice, id);
  }
  ReturnValueWithString mountPoint(std::int16_t id) {
    return reply(&Dockhand::DockhandClient::GetUsbMountPoint, id);
  }
};

// GetDeviceLabel, GetDeviceUuid

TEST_F(Queries, ReturnsALabelAndAUuidOrWhatStandsForNone) {
  const auto id = plugIn({"sdb", "sdb1"}, "vfat");
  struct Row {
    std::string value;
    bool hasUuid;
    std::string label, uuid;
  };
  const Row rows[] = {
      {"STICK", true, "STICK", "STICK"},
      {"\xC3\xA9 %s\xFF\n", true, "\xC3\xA9 %s\xFF\n", "\xC3\xA9 %s\xFF\n"},
      {std::string(65536, 'x'), true, std::string(65536, 'x'), std::string(65536, 'x')},
      {"", false, "NONAME", "0000-0000"},
  };
  const auto probing = [](const std::string& key) {
    return std::vector<std::string>{"new_probe /dev/usb_storage_sdb1", "do_probe /dev/usb_storage_sdb1",
                                    "lookup /dev/usb_storage_sdb1 " + key};
  };
  for (const Row& row : rows) {
    disk("sdb1").values = {{"LABEL", row.value}, {"UUID", row.value}};
    const auto expected = [&row, &probing](const std::string& first, const std::string& key,
                                           const std::string& last) {
      std::vector<std::string> events = probing(key);
      events.insert(events.begin(), first);
      if (!row.hasUuid) {
        events.push_back("log 4 @1008 No " + key + " found for /dev/usb_storage_sdb1");
      }
      events.insert(events.end(), {"free_probe /dev/usb_storage_sdb1",
                                   "log 2 @1015 getBlkidLookupValue(1," + key +
                                       "; device=/dev/usb_storage_sdb1)=" + row.value,
                                   last});
      return events;
    };
    journal().clear();
    const auto labelled = label(id);
    EXPECT_TRUE(labelled.success);
    EXPECT_EQ(labelled.text, row.label);
    EXPECT_EQ(journal().events(),
              expected("log 2 @1046 GetDeviceLabel", "LABEL", "log 2 @1060 GetDeviceLabel(1)=" + row.label));
    journal().clear();
    const auto identified = uuid(id);
    EXPECT_EQ(identified.success, row.hasUuid);
    EXPECT_EQ(identified.text, row.uuid);
    EXPECT_EQ(journal().events(),
              expected("log 2 @1024 GetDeviceUuid", "UUID", "log 2 @1036 GetDeviceUUID(1)=" + row.uuid));
  }
}

TEST_F(Queries, ReturnsNoLabelOfAnUnknownDevice) {
  for (const auto id : unknownIds) {
    EXPECT_FALSE(label(id).success);
    EXPECT_EQ(label(id).text, "NONAME");
  }
}

TEST_F(Queries, ProbesTheDiskIfItHasNoPartition) {
  const auto id = plugIn({"sdb"}, "vfat");
  disk("sdb").values["LABEL"] = "STICK";
  EXPECT_EQ(label(id).text, "STICK");
  EXPECT_THAT(journal().eventsBeginning("new_probe"), ElementsAre("new_probe /dev/usb_storage_sdb"));
}

TEST_F(Queries, ProbesTheFirstPartitionWhicheverIsSeen) {
  const auto id = plugIn({"sdb2"});
  disk("sdb1").values["LABEL"] = "FIRST";
  EXPECT_EQ(label(id).text, "FIRST");
}

TEST_F(Queries, LooksUpAnUnknownDeviceWithoutALogLine) {
  plugIn({"sdb"}, "vfat");
  const Dockhand::HandlerLock lock(handler->handlerMutex);
  for (const std::uint32_t id : {0U, 2U, 32768U, 65535U, 65537U, 4294967295U}) {
    EXPECT_EQ(handler->getBlkidLookupValue(id, "TYPE"), "") << id;
  }
  EXPECT_THAT(journal().events(), IsEmpty());
}

TEST_F(Queries, ProbesUnderTheLock) {
  const auto id = plugIn({"sdb"});
  watchLock();
  label(id);
  uuid(id);
  EXPECT_THAT(unlocked, ElementsAre("GetDeviceLabel", "GetDeviceUuid"));
}

// GetDeviceType

TEST_F(Queries, ReturnsTypeTwoForARemovableDevice) {
  const auto id = plugIn({"sdb"});
  platform.files["/sys/block/sdb/removable"] = "1\n";
  EXPECT_EQ(handler->GetDeviceType(id), 2);
  EXPECT_THAT(journal().events(),
              ElementsAre("log 2 @1068 GetDeviceType", "open /sys/block/sdb/removable",
                          "read /sys/block/sdb/removable 1", "close /sys/block/sdb/removable",
                          "log 2 @1090 GetDeviceUsbVersion(1)=2"));
}

TEST_F(Queries, ReturnsTypeOneForADeviceThatIsNotRemovable) {
  const auto id = plugIn({"sdb"});
  platform.files["/sys/block/sdb/removable"] = "0\n";
  EXPECT_EQ(handler->GetDeviceType(id), 1);
  EXPECT_EQ(platform.openDescriptors(), 0U);
  EXPECT_THAT(journal().logs(),
              ElementsAre("log 2 @1068 GetDeviceType", "log 2 @1090 GetDeviceUsbVersion(1)=1"));
}

TEST_F(Queries, TreatsEveryCharacterButZeroAsRemovable) {
  const auto id = plugIn({"sdb"});
  for (const std::string& content : {std::string("2"), std::string(" 0"), std::string("\n0"),
                                     std::string("\0"
                                                 "0",
                                                 2),
                                     std::string("\xFF"), std::string("10")}) {
    platform.files["/sys/block/sdb/removable"] = content;
    EXPECT_EQ(handler->GetDeviceType(id), 2) << content;
  }
}

TEST_F(Queries, ReadsTheTypeOfTheWholeDiskOfAPartition) {
  const auto id = plugIn({"sdb", "sdb1"});
  platform.files["/sys/block/sdb/removable"] = "1";
  EXPECT_EQ(handler->GetDeviceType(id), 2);
}

TEST_F(Queries, ReturnsTypeZeroIfTheAttributeIsMissing) {
  const auto id = plugIn({"sdb"});
  EXPECT_EQ(handler->GetDeviceType(id), 0);
  EXPECT_THAT(journal().events(), ElementsAre("log 2 @1068 GetDeviceType", "open /sys/block/sdb/removable",
                                              "log 5 @1078 Failed to read file: /sys/block/sdb/removable",
                                              "log 2 @1090 GetDeviceUsbVersion(1)=0"));
}

TEST_F(Queries, ReturnsTypeZeroIfTheAttributeIsEmpty) {
  const auto id = plugIn({"sdb"});
  platform.files["/sys/block/sdb/removable"] = "";
  EXPECT_EQ(handler->GetDeviceType(id), 0);
  EXPECT_EQ(platform.openDescriptors(), 0U);
  EXPECT_THAT(journal().logs(), ElementsAre("log 2 @1068 GetDeviceType",
                                            "log 5 @1083 Failed to read file: /sys/block/sdb/removable",
                                            "log 2 @1090 GetDeviceUsbVersion(1)=0"));
}

TEST_F(Queries, ReturnsTypeZeroIfTheAttributeCannotBeRead) {
  const auto id = plugIn({"sdb"});
  platform.readErrors["/sys/block/sdb/removable"] = EIO;
  EXPECT_EQ(handler->GetDeviceType(id), 0);
  EXPECT_EQ(platform.openDescriptors(), 0U);
  EXPECT_THAT(journal().eventsBeginning("log 5"),
              ElementsAre("log 5 @1083 Failed to read file: /sys/block/sdb/removable"));
}

TEST_F(Queries, LogsOnlyTheFailureOfATypeQueryAboveTraceLevel) {
  const auto id = plugIn({"sdb"});
  setThreshold(5);
  EXPECT_EQ(handler->GetDeviceType(id), 0);
  EXPECT_THAT(journal().logs(), ElementsAre("log 5 @1078 Failed to read file: /sys/block/sdb/removable"));
}

// GetDeviceUsbVersion

TEST_F(Queries, ReadsTheUsbVersionThatTheScriptWrites) {
  const auto id = plugIn({"sdb"});
  platform.files["/tmp/sdb_bcdUSB.txt"] = "2.00\nsecond line\n";
  const auto result = usbVersion(id);
  EXPECT_TRUE(result.success);
  EXPECT_EQ(result.text, "2.00");
  EXPECT_THAT(journal().events(),
              ElementsAre("log 2 @1276 GetDeviceUsbVersion",
                          "system readUsbVersion.sh sdb > /tmp/sdb_bcdUSB.txt", "open /tmp/sdb_bcdUSB.txt",
                          ::testing::StartsWith("read /tmp/sdb_bcdUSB.txt "), "close /tmp/sdb_bcdUSB.txt",
                          "system rm /tmp/sdb_bcdUSB.txt", "log 2 @1309 GetDeviceUsbVersion(1)=2.00"));
}

TEST_F(Queries, ReadsTheUsbVersionOfTheWholeDiskOfAPartition) {
  const auto id = plugIn({"sdb", "sdb1"});
  usbVersion(id);
  EXPECT_THAT(
      journal().eventsBeginning("system"),
      ElementsAre("system readUsbVersion.sh sdb > /tmp/sdb_bcdUSB.txt", "system rm /tmp/sdb_bcdUSB.txt"));
}

TEST_F(Queries, ReadsTheFirstLineOfAVersionFileOfAnyLength) {
  const auto id = plugIn({"sdb"});
  for (const std::size_t length : {0U, 1U, 255U, 256U, 257U, 511U, 512U, 513U, 65536U}) {
    const std::string line(length, 'v');
    for (const char* rest : {"", "\n", "\nmore", "\n\n"}) {
      platform.files["/tmp/sdb_bcdUSB.txt"] = line + rest;
      const auto result = usbVersion(id);
      EXPECT_TRUE(result.success);
      EXPECT_EQ(result.text, line) << length;
    }
  }
  EXPECT_EQ(platform.openDescriptors(), 0U);
}

TEST_F(Queries, PassesTheVersionTextThroughUnchanged) {
  const auto id = plugIn({"sdb"});
  const std::string text(
      "\t 0\x00"
      "2%s\r\xFF ",
      9);
  platform.files["/tmp/sdb_bcdUSB.txt"] = text + "\n";
  EXPECT_EQ(usbVersion(id).text, text);
}

TEST_F(Queries, ReportsSuccessWithoutTextWhenTheVersionFileCannotBeRead) {
  const auto id = plugIn({"sdb"});
  platform.openError = EACCES;
  auto result = usbVersion(id);
  EXPECT_TRUE(result.success);
  EXPECT_EQ(result.text, "");
  EXPECT_THAT(journal().logs(),
              ElementsAre("log 2 @1276 GetDeviceUsbVersion", "log 2 @1309 GetDeviceUsbVersion(1)="));

  platform.readErrors["/tmp/sdb_bcdUSB.txt"] = EIO;
  result = usbVersion(id);
  EXPECT_TRUE(result.success);
  EXPECT_EQ(result.text, "");
  EXPECT_EQ(platform.openDescriptors(), 0U);
}

TEST_F(Queries, RemovesTheVersionFileEvenIfTheScriptFails) {
  const auto id = plugIn({"sdb"});
  platform.files["/tmp/sdb_bcdUSB.txt"] = "2.00\n";
  for (const int status : {256, 32512, -1, 15}) {
    journal().clear();
    setStatuses({{"readUsbVersion.sh", status}});
    const auto result = usbVersion(id);
    EXPECT_FALSE(result.success);
    EXPECT_EQ(result.text, "");
    EXPECT_THAT(
        journal().events(),
        ElementsAre("log 2 @1276 GetDeviceUsbVersion", "system readUsbVersion.sh sdb > /tmp/sdb_bcdUSB.txt",
                    "log 5 @1290 system(readUsbVersion.sh sdb > /tmp/sdb_bcdUSB.txt) failed with: " +
                        std::to_string(status),
                    "system rm /tmp/sdb_bcdUSB.txt", "log 2 @1309 GetDeviceUsbVersion(1)="));
  }
}

TEST_F(Queries, KeepsTheVersionWhenItsFileCannotBeRemoved) {
  const auto id = plugIn({"sdb"});
  platform.files["/tmp/sdb_bcdUSB.txt"] = "3.00";
  setStatuses({{"rm ", 256}});
  const auto result = usbVersion(id);
  EXPECT_TRUE(result.success);
  EXPECT_EQ(result.text, "3.00");
  EXPECT_THAT(journal().logs(), ElementsAre("log 2 @1276 GetDeviceUsbVersion",
                                            "log 5 @1303 system(rm /tmp/sdb_bcdUSB.txt) failed with: 256",
                                            "log 2 @1309 GetDeviceUsbVersion(1)=3.00"));
}

TEST_F(Queries, ClaimsTheVersionFileBeforeItRunsTheScript) {
  const auto id = plugIn({"sdb"});
  const std::string file = "/tmp/sdb_bcdUSB.txt";
  platform.files[file] = "2.00\n";
  platform.claims[file] = Dockhand::Claim::movedAside;
  EXPECT_EQ(usbVersion(id).text, "2.00");
  EXPECT_THAT(
      journal().events(),
      ElementsAre("log 2 @1276 GetDeviceUsbVersion", "statx " + file, "opendir /tmp/", "closedir /tmp/",
                  "mkdtemp " + file + ".moved-XXXXXX",
                  "rename " + file + " " + file + ".moved-XXXXXX/sdb_bcdUSB.txt", "statx " + file,
                  "mknod " + file + " 100644",
                  "log 4 @136 " + file + " was not ours and has been moved aside, to " + file + ".moved-*",
                  "system readUsbVersion.sh sdb > " + file, "open " + file, "read " + file + " 256",
                  "close " + file, "system rm " + file, "log 2 @1309 GetDeviceUsbVersion(1)=2.00"));
}

TEST_F(Queries, RunsNothingWhileTheVersionFileIsNotOurs) {
  const auto id = plugIn({"sdb"});
  const std::string file = "/tmp/sdb_bcdUSB.txt";
  platform.files[file] = "forged\n";
  platform.claims[file] = Dockhand::Claim::refused;
  const auto result = usbVersion(id);
  EXPECT_FALSE(result.success);
  EXPECT_EQ(result.text, "");
  EXPECT_THAT(journal().events(),
              ElementsAre("log 2 @1276 GetDeviceUsbVersion", "statx " + file,
                          "log 5 @138 Not executed, since " + file + " is not ours and cannot be moved",
                          "log 2 @1309 GetDeviceUsbVersion(1)="));
}

// GetDeviceCapacity

TEST_F(Queries, ReturnsTheCapacityInMebibytes) {
  const auto id = plugIn({"sdb"});
  platform.disks["/dev/usb_storage_sdb"].size = 16008609792;
  EXPECT_EQ(handler->GetDeviceCapacity(id), 15267);
  EXPECT_THAT(journal().events(),
              ElementsAre("log 2 @1318 GetDeviceCapacity", "log 2 @1152 GetUsbMountDevice",
                          "open /dev/usb_storage_sdb", "dev_size /dev/usb_storage_sdb",
                          "close /dev/usb_storage_sdb", "log 2 @1339 GetDeviceCapacity(1)=15267"));
}

TEST_F(Queries, MeasuresTheWholeDiskOfAPartition) {
  const auto id = plugIn({"sdb", "sdb1"});
  platform.disks["/dev/usb_storage_sdb"].size = 8 << 20;
  platform.disks["/dev/usb_storage_sdb1"].size = 4 << 20;
  EXPECT_EQ(handler->GetDeviceCapacity(id), 8);
}

TEST_F(Queries, CutsTheCapacityTowardsZeroAndTo32Bits) {
  const auto id = plugIn({"sdb"});
  constexpr std::int64_t mebibyte = 1 << 20;
  const std::pair<std::int64_t, std::int32_t> sizes[] = {
      {0, 0},
      {mebibyte - 1, 0},
      {mebibyte, 1},
      {2 * mebibyte - 1, 1},
      {-1, 0},
      {-mebibyte, -1},
      {-2 * mebibyte + 1, -1},
      {mebibyte * std::numeric_limits<std::int32_t>::max(), std::numeric_limits<std::int32_t>::max()},
      {mebibyte * (std::int64_t{1} << 31), std::numeric_limits<std::int32_t>::min()},
      {mebibyte * ((std::int64_t{1} << 32) + 5), 5}};
  for (const auto& [bytes, capacity] : sizes) {
    platform.disks["/dev/usb_storage_sdb"].size = bytes;
    EXPECT_EQ(handler->GetDeviceCapacity(id), capacity) << bytes;
  }
}

TEST_F(Queries, LogsOpeningAndClosingWhenADiskCannotBeOpened) {
  const auto id = plugIn({"sdb"});
  platform.disks.clear();
  platform.openError = ENOMEDIUM;
  EXPECT_EQ(handler->GetDeviceCapacity(id), 0);
  EXPECT_THAT(
      journal().events(),
      ElementsAre("log 2 @1318 GetDeviceCapacity", "log 2 @1152 GetUsbMountDevice",
                  "open /dev/usb_storage_sdb", "log 5 @1325 open(/dev/usb_storage_sdb) failed! errno=123",
                  "close -1", "log 5 @1334 close(-1) failed! errno=9", "log 2 @1339 GetDeviceCapacity(1)=0"));
}

TEST_F(Queries, KeepsTheCapacityWhenTheDiskCannotBeClosed) {
  const auto id = plugIn({"sdb"});
  platform.disks["/dev/usb_storage_sdb"].size = 3 << 20;
  platform.closeError = EIO;
  EXPECT_EQ(handler->GetDeviceCapacity(id), 3);
  EXPECT_THAT(journal().eventsBeginning("log 5"), ElementsAre("log 5 @1334 close(100) failed! errno=5"));
}

TEST_F(Queries, ReturnsTheCapacityWithoutALogLineIfLoggingIsOff) {
  const auto id = plugIn({"sdb"});
  platform.disks["/dev/usb_storage_sdb"].size = 3 << 20;
  platform.closeError = EIO;
  setThreshold(6);
  EXPECT_EQ(handler->GetDeviceCapacity(id), 3);
  EXPECT_THAT(journal().logs(), IsEmpty());
}

TEST_F(Queries, OpensFilesReadOnly) {
  const auto id = plugIn({"sdb"});
  handler->GetDeviceCapacity(id);
  handler->GetDeviceType(id);
  usbVersion(id);
  EXPECT_THAT(platform.openFlags, IsSupersetOf({Pair("/dev/usb_storage_sdb", O_RDONLY),
                                                Pair("/sys/block/sdb/removable", O_RDONLY),
                                                Pair("/tmp/sdb_bcdUSB.txt", O_RDONLY)}));
}

TEST_F(Queries, ReadsAFileThatIsOpenedAsDescriptorZero) {
  const auto id = plugIn({"sdb"});
  platform.disks["/dev/usb_storage_sdb"].size = 3 << 20;
  platform.files["/sys/block/sdb/removable"] = "1\n";
  platform.files["/tmp/sdb_bcdUSB.txt"] = "2.00\n";
  platform.nextDescriptor = 0;
  EXPECT_EQ(handler->GetDeviceCapacity(id), 3);
  platform.nextDescriptor = 0;
  EXPECT_EQ(handler->GetDeviceType(id), 2);
  platform.nextDescriptor = 0;
  EXPECT_EQ(usbVersion(id).text, "2.00");
  EXPECT_EQ(platform.openDescriptors(), 0U);
}

// GetUsbPhysicalDevice

TEST_F(Queries, NamesThePartitionOfADiskThatHasOne) {
  const auto id = plugIn({"sdb", "sdb1"});
  const auto result = physicalDevice(id);
  EXPECT_TRUE(result.success);
  EXPECT_EQ(result.text, "sdb1");
  EXPECT_THAT(journal().events(), ElementsAre("log 2 @1136 GetUsbPhysicalDevice"));
}

TEST_F(Queries, NamesADiskWithoutPartitions) {
  const auto id = plugIn({"sdb"});
  const auto result = physicalDevice(id);
  EXPECT_TRUE(result.success);
  EXPECT_EQ(result.text, "sdb");
}

// GetUsbMountPoint

TEST_F(Queries, LogsAllRecordsInAscendingOrderBeforeItReturnsAMountPoint) {
  plugIn({"sdb", "sdb1"});
  plugIn({"sdc"});
  entry(1).mountPoint = "/media/disk_1";
  entry(1).deviceOpen = true;
  entry(1).lastUsbOperation = Dockhand::UsbOperationAdded;
  entry(2).lastUsbOperation = Dockhand::UsbOperationRemoved;
  handler->deviceMap[4000000000U].deviceName = "far";
  handler->deviceMap[10].deviceName = "ten";
  handler->deviceMap[10].partitionCount = 7;
  const auto result = mountPoint(1);
  EXPECT_TRUE(result.success);
  EXPECT_EQ(result.text, "/media/disk_1");
  EXPECT_THAT(
      journal().events(),
      ElementsAre("log 2 @1103 GetUsbMountPoint",
                  "log 2 @1117 GetUsbMountPoint(1): deviceMap[1]: name=sdb partCnt=1 deviceOpen=1 "
                  "mountPoint=/media/disk_1 lastOpr=1",
                  "log 2 @1117 GetUsbMountPoint(1): deviceMap[2]: name=sdc partCnt=0 deviceOpen=0 "
                  "mountPoint= lastOpr=2",
                  "log 2 @1117 GetUsbMountPoint(1): deviceMap[10]: name=ten partCnt=7 deviceOpen=0 "
                  "mountPoint= lastOpr=0",
                  "log 2 @1117 GetUsbMountPoint(1): deviceMap[4000000000]: name=far partCnt=0 deviceOpen=0 "
                  "mountPoint= lastOpr=0"));
}

TEST_F(Queries, ReturnsAnEmptyMountPointAndSuccessForAnUnmountedDevice) {
  const auto id = plugIn({"sdb"});
  const auto result = mountPoint(id);
  EXPECT_TRUE(result.success);
  EXPECT_EQ(result.text, "");
  EXPECT_THAT(journal().events(),
              ElementsAre("log 2 @1103 GetUsbMountPoint",
                          "log 2 @1117 GetUsbMountPoint(1): deviceMap[1]: name=sdb partCnt=0 deviceOpen=0 "
                          "mountPoint= lastOpr=0",
                          "log 4 @1126 GetUsbMountPoint(deviceId=1) failed, found=1"));
}

TEST_F(Queries, ReturnsAnEmptyMountPointAndSuccessForAnUnknownDevice) {
  for (const auto id : unknownIds) {
    journal().clear();
    ReturnValueWithString result;
    result.text = "left over";
    handler->GetUsbMountPoint(result, id);
    EXPECT_TRUE(result.success);
    EXPECT_EQ(result.text, "");
    EXPECT_THAT(journal().events(),
                ElementsAre("log 2 @1103 GetUsbMountPoint", "log 4 @1126 GetUsbMountPoint(deviceId=" +
                                                                std::to_string(id) + ") failed, found=0"));
  }
}

TEST_F(Queries, NeverFindsAMountPointUnderANegativeNumber) {
  plugIn({"sdb1"});
  addRecordsUnderUnsignedNumbers();
  for (const auto id : unknownIds) {
    EXPECT_EQ(mountPoint(id).text, "");
  }
  EXPECT_THAT(journal().eventsBeginning("log 2 @1117 GetUsbMountPoint(-1): deviceMap[65535]"),
              ElementsAre("log 2 @1117 GetUsbMountPoint(-1): deviceMap[65535]: name=sdb partCnt=1 "
                          "deviceOpen=0 mountPoint=/media/wrong lastOpr=0"));
}

TEST_F(Queries, ReturnsTheMountPointOfAFailedOpening) {
  const auto id = plugIn({"sdb"});
  entry(id).mountPoint = "/media/disk_1";
  EXPECT_EQ(mountPoint(id).text, "/media/disk_1");
}

TEST_F(Queries, LogsNoDumpAboveTraceLevel) {
  const auto id = plugIn({"sdb"});
  for (const int threshold : {3, 4}) {
    journal().clear();
    setThreshold(threshold);
    mountPoint(id);
    EXPECT_THAT(journal().logs(), ElementsAre("log 4 @1126 GetUsbMountPoint(deviceId=1) failed, found=1"));
  }
  journal().clear();
  setThreshold(5);
  mountPoint(id);
  EXPECT_THAT(journal().logs(), IsEmpty());
}

TEST_F(Queries, ReportsWhetherADeviceIsOpen) {
  const auto id = plugIn({"sdb"});
  EXPECT_FALSE(handler->IsDeviceOpen(id));
  entry(id).deviceOpen = true;
  EXPECT_TRUE(handler->IsDeviceOpen(id));
  EXPECT_THAT(journal().events(), ElementsAre("log 2 @792 IsDeviceOpen(1)", "log 2 @792 IsDeviceOpen(1)"));
}

TEST_F(Queries, NamesTheNodeOfAPartitionedDisk) {
  const auto id = plugIn({"sdb", "sdb1"});
  EXPECT_EQ(handler->GetUsbMountDevice(id, false), "/dev/usb_storage_sdb1");
  EXPECT_EQ(handler->GetUsbMountDevice(id, true), "/dev/usb_storage_sdb");
  EXPECT_THAT(journal().events(),
              ElementsAre("log 2 @1152 GetUsbMountDevice", "log 2 @1152 GetUsbMountDevice"));
}

TEST_F(Queries, NamesTheNodeOfADiskWithoutPartitions) {
  const auto id = plugIn({"sdb"});
  EXPECT_EQ(handler->GetUsbMountDevice(id, false), "/dev/usb_storage_sdb");
  EXPECT_EQ(handler->GetUsbMountDevice(id, true), "/dev/usb_storage_sdb");
}

TEST_F(Queries, NamesNoNodeOfAnUnknownDevice) {
  plugIn({"sdb"});
  for (const int number : {-32768, -1, 0, 2, 32767}) {
    journal().clear();
    EXPECT_EQ(handler->GetUsbMountDevice(static_cast<std::int16_t>(number), false), "");
    EXPECT_THAT(journal().events(), ElementsAre("log 2 @1152 GetUsbMountDevice"));
  }
}

TEST_F(Queries, NamesANodeUnderTheLockAndEvenWhileItIsHeld) {
  const auto id = plugIn({"sdb"});
  watchLock();
  EXPECT_EQ(handler->GetUsbMountDevice(id, false), "/dev/usb_storage_sdb");
  EXPECT_THAT(unlocked, ElementsAre("GetUsbMountDevice"));
  EXPECT_TRUE(waitsForTheLock([&] { handler->GetUsbMountDevice(id, false); }));
  const Dockhand::HandlerLock lock(handler->handlerMutex);
  EXPECT_EQ(handler->GetUsbMountDevice(id, false), "/dev/usb_storage_sdb");
  EXPECT_TRUE(lockIsHeld());
}

}  // namespace
