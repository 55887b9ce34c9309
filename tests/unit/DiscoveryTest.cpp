// Finding devices and listing them.

#include <cerrno>
#include <stdexcept>

#include "HandlerTest.h"

namespace {

class Discovery : public HandlerTest {
 protected:
  std::vector<std::int16_t> list(bool includeHidden = false) {
    std::vector<std::int16_t> found;
    handler->GetListOfInsertedDevices(found, includeHidden);
    return found;
  }
  std::vector<std::uint32_t> keys() const {
    std::vector<std::uint32_t> found;
    for (const auto& [key, known] : handler->deviceMap) {
      found.push_back(key);
    }
    return found;
  }
};

TEST_F(Discovery, MakesOneRecordOfADiskAndItsPartition) {
  platform.deviceNodes = {"usb_storage_sda1", "usb_storage_sda", "null", "sda"};
  handler->CheckForAndUpdateNewDevices();
  ASSERT_THAT(keys(), ElementsAre(1));
  EXPECT_EQ(entry(1).deviceName, "sda");
  EXPECT_EQ(entry(1).partitionCount, 1U);
  EXPECT_EQ(entry(1).lastUsbOperation, Dockhand::UsbOperationNone);
  EXPECT_FALSE(entry(1).deviceOpen || entry(1).safelyRemoved || entry(1).hidden);
  EXPECT_TRUE(entry(1).foundInScan);
  EXPECT_EQ(entry(1).mountPoint, "");
}

TEST_F(Discovery, LogsEachStepOfAScanInOrder) {
  platform.deviceNodes = {"usb_storage_sda1", "usb_storage_sda"};
  handler->CheckForAndUpdateNewDevices();
  EXPECT_THAT(journal().events(), ElementsAre("log 2 @142 CheckForAndUpdateNewDevices", "scandir /dev",
                                              "log 2 @196 entry: name=sda number= matchFound=0",
                                              "log 2 @203 deviceNumber is empty",
                                              "log 2 @226 deviceMap.insert(1, [sda,0,0,,0,0], mapSize=1",
                                              "log 2 @196 entry: name=sda1 number=1 matchFound=1"));
}

TEST_F(Discovery, LogsANewRecordWithAPartitionInItsTextForm) {
  platform.deviceNodes = {"usb_storage_sdb12"};
  handler->CheckForAndUpdateNewDevices();
  EXPECT_THAT(journal().logs(), ElementsAre("log 2 @142 CheckForAndUpdateNewDevices",
                                            "log 2 @196 entry: name=sdb12 number=12 matchFound=0",
                                            "log 2 @208 deviceNumber NOT empty - settings part count to 1",
                                            "log 2 @226 deviceMap.insert(1, [sdb,1,0,,0,0], mapSize=1"));
}

TEST_F(Discovery, GivesANewDeviceTheSmallestFreeNumber) {
  plugIn({"sda"});
  plugIn({"sdb"});
  plugIn({"sdc"});
  handler->deviceMap.erase(2);
  pullOut({"sdb"});
  EXPECT_EQ(plugIn({"sdd"}), 2);
  EXPECT_EQ(plugIn({"sde"}), 4);
}

TEST_F(Discovery, FindsDevicesThatWerePluggedInBeforeTheStart) {
  platform.deviceNodes = {"usb_storage_sdc1"};
  const TestableHandler restarted(platform);
  ASSERT_EQ(restarted.deviceMap.size(), 1U);
  EXPECT_EQ(restarted.deviceMap.at(1).deviceName, "sdc");
}

TEST_F(Discovery, ForgetsThePartitionOfADiskThatLostIt) {
  const auto id = plugIn({"sda", "sda1"});
  pullOut({"sda1"});
  handler->CheckForAndUpdateNewDevices();
  EXPECT_EQ(entry(id).partitionCount, 0U);
}

TEST_F(Discovery, KeepsEverythingButThePartitionFlagsWhenDevCannotBeRead) {
  const auto id = plugIn({"sda1"});
  platform.scandirError = EACCES;
  handler->CheckForAndUpdateNewDevices();
  EXPECT_THAT(keys(), ElementsAre(static_cast<std::uint32_t>(id)));
  EXPECT_EQ(entry(id).partitionCount, 0U);
  EXPECT_FALSE(entry(id).foundInScan);
  EXPECT_THAT(journal().logs(),
              ElementsAre("log 2 @142 CheckForAndUpdateNewDevices", "log 4 @162 scandir failed, errno=13"));
}

TEST_F(Discovery, KeepsAndListsEveryRecordWhenDevCannotBeRead) {
  for (const char* node : {"sda1", "sdb", "sdc1"}) {
    plugIn({node});
  }
  entry(1).deviceOpen = true;
  entry(1).mountPoint = "/media/disk_1";
  entry(2).safelyRemoved = true;
  entry(3).lastUsbOperation = Dockhand::UsbOperationAdded;
  pullOut({"sda1", "sdb", "sdc1"});
  platform.scandirError = EIO;
  journal().clear();
  EXPECT_THAT(list(), ElementsAre(1, 3));
  EXPECT_THAT(keys(), ElementsAre(1, 2, 3));
  for (const std::int16_t id : {std::int16_t{1}, std::int16_t{2}, std::int16_t{3}}) {
    EXPECT_EQ(entry(id).partitionCount, 0U) << id;
    EXPECT_FALSE(entry(id).foundInScan) << id;
  }
  EXPECT_TRUE(entry(1).deviceOpen);
  EXPECT_EQ(entry(1).mountPoint, "/media/disk_1");
  EXPECT_TRUE(entry(2).safelyRemoved);
  EXPECT_EQ(entry(3).lastUsbOperation, Dockhand::UsbOperationAdded);

  // The next successful scan restores everything.
  platform.scandirError = 0;
  platform.deviceNodes = {"usb_storage_sda1", "usb_storage_sdb", "usb_storage_sdc1"};
  EXPECT_THAT(list(), ElementsAre(1, 3));
  EXPECT_EQ(entry(1).partitionCount, 1U);
  EXPECT_EQ(entry(2).partitionCount, 0U);
  EXPECT_EQ(entry(3).partitionCount, 1U);
}

TEST_F(Discovery, KeepsADeviceWhoseNodeIsStillThere) {
  const auto id = plugIn({"sda1"});
  entry(id).mountPoint = "/media/disk_1";
  entry(id).deviceOpen = true;
  handler->CheckForAndUpdateNewDevices();
  EXPECT_TRUE(entry(id).deviceOpen);
  EXPECT_EQ(entry(id).mountPoint, "/media/disk_1");
  EXPECT_EQ(entry(id).partitionCount, 1U);
}

TEST_F(Discovery, ErasesADeviceWhoseNodeHasGoneWithoutUnmountingIt) {
  const auto id = plugIn({"sda"});
  entry(id).deviceOpen = true;
  entry(id).mountPoint = "/media/disk_1";
  pullOut({"sda"});
  handler->CheckForAndUpdateNewDevices();
  EXPECT_THAT(keys(), IsEmpty());
  EXPECT_THAT(journal().calls(), ElementsAre("scandir /dev"));
}

TEST_F(Discovery, FindsThePrefixAnywhereInANameButCutsTheFirstTwelveCharacters) {
  platform.deviceNodes = {"xusb_storage_sda"};
  handler->CheckForAndUpdateNewDevices();
  EXPECT_EQ(entry(1).deviceName, "sda");
  EXPECT_THAT(journal().eventsBeginning("log 2 @196"),
              ElementsAre("log 2 @196 entry: name=_sda number= matchFound=0"));
}

TEST_F(Discovery, DropsCharactersOfANodeThatAreNeitherLowerCaseLettersNorDigits) {
  platform.deviceNodes = {
      "usb_storage_Sd-A_b\xC3\xA9"
      "2!"};
  handler->CheckForAndUpdateNewDevices();
  EXPECT_EQ(entry(1).deviceName, "db");
  EXPECT_EQ(entry(1).partitionCount, 1U);
}

TEST_F(Discovery, KeepsEveryLetterFromAToZAndEveryDigitAndNotTheirNeighbours) {
  platform.deviceNodes = {"usb_storage_`abcdefghijklmnopqrstuvwxyz{.0123456789:"};
  handler->CheckForAndUpdateNewDevices();
  EXPECT_EQ(entry(1).deviceName, "abcdefghijklmnopqrstuvwxyz");
  EXPECT_THAT(journal().eventsBeginning("log 2 @196"),
              ElementsAre("log 2 @196 entry: name=`abcdefghijklmnopqrstuvwxyz{.0123456789: number=0123456789 "
                          "matchFound=0"));
}

TEST_F(Discovery, GivesANodeWithoutLettersARecordWithoutAName) {
  platform.deviceNodes = {"usb_storage_1", "usb_storage_"};
  handler->CheckForAndUpdateNewDevices();
  ASSERT_THAT(keys(), ElementsAre(1));
  EXPECT_EQ(entry(1).deviceName, "");
  EXPECT_EQ(entry(1).partitionCount, 1U);
}

TEST_F(Discovery, MarksEveryRecordOfTheSameName) {
  plugIn({"sda"});
  handler->deviceMap[5] = handler->deviceMap[1];
  platform.deviceNodes = {"usb_storage_sda1"};
  handler->CheckForAndUpdateNewDevices();
  EXPECT_THAT(keys(), ElementsAre(1, 5));
  EXPECT_EQ(entry(1).partitionCount, 1U);
  EXPECT_EQ(entry(5).partitionCount, 1U);
}

TEST_F(Discovery, ReleasesTheLockWhenANameIsTooShortToBeCut) {
  platform.scandirIgnoresFilter = true;
  platform.deviceNodes = {"usb"};
  EXPECT_THROW(handler->CheckForAndUpdateNewDevices(), std::out_of_range);
  EXPECT_FALSE(lockIsHeld());
}

TEST_F(Discovery, FindsNothingInAnEmptyDev) {
  EXPECT_THAT(list(), IsEmpty());
  EXPECT_THAT(journal().logs(),
              ElementsAre("log 2 @262 GetListOfInsertedDevices", "log 2 @265 map count before is 0",
                          "log 2 @142 CheckForAndUpdateNewDevices", "log 2 @267 map count after is 0"));
}

TEST_F(Discovery, ListsDevicesInAscendingOrderWithARescan) {
  plugIn({"sdb"});
  platform.deviceNodes.emplace_back("usb_storage_sda");
  EXPECT_THAT(list(), ElementsAre(1, 2));
  EXPECT_THAT(
      journal().logs(),
      ElementsAre("log 2 @262 GetListOfInsertedDevices", "log 2 @265 map count before is 1",
                  "log 2 @142 CheckForAndUpdateNewDevices", "log 2 @196 entry: name=sda number= matchFound=0",
                  "log 2 @203 deviceNumber is empty",
                  "log 2 @226 deviceMap.insert(2, [sda,0,0,,0,0], mapSize=2",
                  "log 2 @196 entry: name=sdb number= matchFound=1", "log 2 @267 map count after is 2",
                  "log 2 @272 Found a device in the map - last op is 0", "log 2 @284 Added device id of 1",
                  "log 2 @272 Found a device in the map - last op is 0", "log 2 @284 Added device id of 2"));
}

TEST_F(Discovery, ReplacesTheFormerContentOfTheList) {
  const auto id = plugIn({"sda"});
  std::vector<std::int16_t> found = {id, 9};
  handler->GetListOfInsertedDevices(found, false);
  EXPECT_THAT(found, ElementsAre(id));
}

TEST_F(Discovery, ListsAnAnnouncedDevice) {
  const auto id = plugIn({"sda"});
  entry(id).lastUsbOperation = Dockhand::UsbOperationAdded;
  EXPECT_THAT(list(), ElementsAre(id));
}

TEST_F(Discovery, NeverListsADeviceWhoseLastOperationIsTwoOrMore) {
  const auto id = plugIn({"sda"});
  for (const int operation : {2, 3, -1}) {
    entry(id).lastUsbOperation = static_cast<Dockhand::UsbOperation>(operation);
    EXPECT_THAT(list(true), IsEmpty()) << operation;
  }
}

TEST_F(Discovery, NeverListsSuchADeviceWhateverItsOtherFlagsAre) {
  const auto id = plugIn({"sda", "sda1"});
  for (const int operation : {2, 3, 0x7FFFFFFF}) {
    for (unsigned flags = 0; flags < 8; ++flags) {
      entry(id).lastUsbOperation = static_cast<Dockhand::UsbOperation>(operation);
      entry(id).deviceOpen = (flags & 1U) != 0;
      entry(id).mountPoint = entry(id).deviceOpen ? "/media/disk_1" : "";
      entry(id).safelyRemoved = (flags & 2U) != 0;
      entry(id).hidden = (flags & 4U) != 0;
      for (const bool includeHidden : {false, true}) {
        journal().clear();
        EXPECT_THAT(list(includeHidden), IsEmpty()) << operation << " " << flags;
        // Only its last operation decides; no line mentions the flags.
        EXPECT_EQ(journal().logs().back(),
                  "log 2 @272 Found a device in the map - last op is " + std::to_string(operation));
      }
    }
  }
}

TEST_F(Discovery, HidesASafelyRemovedDeviceAndLogsIt) {
  const auto id = plugIn({"sda"});
  entry(id).safelyRemoved = true;
  EXPECT_THAT(list(true), IsEmpty());
  EXPECT_THAT(
      journal().eventsBeginning("log 4"),
      ElementsAre("log 4 @277 USB deviceId=1 has been safely removed (hide until removed/reinserted)"));
}

TEST_F(Discovery, ListsARecordingDiskOnRequestOnly) {
  const auto id = plugIn({"sda"});
  entry(id).hidden = true;
  EXPECT_THAT(list(false), IsEmpty());
  EXPECT_THAT(list(true), ElementsAre(id));
}

TEST_F(Discovery, RescansThroughAVirtualCall) {
  class Overriding : public TestableHandler {
   public:
    using TestableHandler::TestableHandler;
    void CheckForAndUpdateNewDevices() override { ++rescans; }
    int rescans = 0;
  };
  Overriding overriding(platform);
  std::vector<std::int16_t> found;
  overriding.GetListOfInsertedDevices(found, false);
  overriding.OpenDevice(1);
  EXPECT_EQ(overriding.rescans, 2);
}

}  // namespace
