// Reading the label, UUID and type of a file system.

#include <cerrno>

#include "HandlerTest.h"
#include "Prober.h"

namespace {

class Probing : public HandlerTest {
 protected:
  void TearDown() override { EXPECT_FALSE(lockIsHeld()); }

  FakePlatform::Disk& disk(const std::string& node) { return platform.disks["/dev/usb_storage_" + node]; }
  ravel::rpc::ReturnValueWithString label(int deviceId) {
    ravel::rpc::ReturnValueWithString result;
    handler->GetDeviceLabel(result, static_cast<std::int16_t>(deviceId));
    return result;
  }
  ravel::rpc::ReturnValueWithString uuid(int deviceId) {
    ravel::rpc::ReturnValueWithString result;
    handler->GetDeviceUuid(result, static_cast<std::int16_t>(deviceId));
    return result;
  }
  std::string lookUp(std::uint32_t deviceId, const char* key) {
    const Dockhand::HandlerLock lock(handler->handlerMutex);
    return handler->getBlkidLookupValue(deviceId, key);
  }
};

TEST_F(Probing, ReadsALabel) {
  const auto id = plugIn({"sdb", "sdb1"}, "vfat");
  disk("sdb1").values["LABEL"] = "STICK";
  const auto result = label(id);
  EXPECT_TRUE(result.success);
  EXPECT_EQ(result.text, "STICK");
  EXPECT_THAT(journal().events(),
              ElementsAre("log 2 @1046 GetDeviceLabel", "new_probe /dev/usb_storage_sdb1",
                          "do_probe /dev/usb_storage_sdb1", "lookup /dev/usb_storage_sdb1 LABEL",
                          "free_probe /dev/usb_storage_sdb1",
                          "log 2 @1015 getBlkidLookupValue(1,LABEL; device=/dev/usb_storage_sdb1)=STICK",
                          "log 2 @1060 GetDeviceLabel(1)=STICK"));
}

TEST_F(Probing, ReadsAUuid) {
  const auto id = plugIn({"sdb", "sdb1"}, "vfat");
  disk("sdb1").values["UUID"] = "1234-ABCD";
  const auto result = uuid(id);
  EXPECT_TRUE(result.success);
  EXPECT_EQ(result.text, "1234-ABCD");
  EXPECT_THAT(journal().events(),
              ElementsAre("log 2 @1024 GetDeviceUuid", "new_probe /dev/usb_storage_sdb1",
                          "do_probe /dev/usb_storage_sdb1", "lookup /dev/usb_storage_sdb1 UUID",
                          "free_probe /dev/usb_storage_sdb1",
                          "log 2 @1015 getBlkidLookupValue(1,UUID; device=/dev/usb_storage_sdb1)=1234-ABCD",
                          "log 2 @1036 GetDeviceUUID(1)=1234-ABCD"));
}

TEST_F(Probing, ReportsWhatARepairNeeds) {
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

TEST_F(Probing, ReportsAClosedDeviceWithoutAReadableType) {
  const auto id = plugIn({"sdb"});
  Dockhand::PartitionInfo info{"xfs", "/dev/other", true};
  EXPECT_TRUE(handler->GetPartitionInfo(id, info));
  EXPECT_EQ(info.fsType, "");
  EXPECT_EQ(info.mountDevice, "/dev/usb_storage_sdb");
  EXPECT_FALSE(info.deviceOpen);
}

TEST_F(Probing, ReportsNothingAboutAnUnknownDevice) {
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

TEST_F(Probing, LooksUpAnUnknownDeviceWithoutALogLine) {
  plugIn({"sdb"}, "vfat");
  for (const std::uint32_t id : {0U, 2U, 32768U, 65535U, 65537U, 4294967295U}) {
    EXPECT_EQ(lookUp(id, "TYPE"), "") << id;
  }
  EXPECT_THAT(journal().events(), IsEmpty());
}

TEST_F(Probing, OverwritesTheResult) {
  const auto id = plugIn({"sdb"});
  ravel::rpc::ReturnValueWithString result;
  result.success = true;
  result.text = "before";
  handler->GetDeviceUuid(result, id);
  EXPECT_FALSE(result.success);
  EXPECT_EQ(result.text, "0000-0000");
  result.success = true;
  result.text = "before";
  handler->GetDeviceLabel(result, 2);
  EXPECT_FALSE(result.success);
  EXPECT_EQ(result.text, "NONAME");
  result.text = "before";
  handler->GetDeviceLabel(result, id);
  EXPECT_TRUE(result.success);
  EXPECT_EQ(result.text, "NONAME");
}

TEST_F(Probing, ProbesTheDiskIfItHasNoPartition) {
  const auto id = plugIn({"sdb"}, "vfat");
  disk("sdb").values["LABEL"] = "STICK";
  EXPECT_EQ(label(id).text, "STICK");
  EXPECT_THAT(journal().eventsBeginning("new_probe"), ElementsAre("new_probe /dev/usb_storage_sdb"));
}

TEST_F(Probing, ProbesTheFirstPartitionWhicheverIsSeen) {
  plugIn({"sdb2"});
  platform.disks["/dev/usb_storage_sdb1"].values["LABEL"] = "FIRST";
  EXPECT_EQ(label(1).text, "FIRST");
}

TEST_F(Probing, TreatsASingleCharacterAsNoValue) {
  const auto id = plugIn({"sdb"}, "vfat");
  disk("sdb").values["LABEL"] = "A";
  const auto result = label(id);
  EXPECT_TRUE(result.success);
  EXPECT_EQ(result.text, "NONAME");
  EXPECT_THAT(
      journal().events(),
      ElementsAre("log 2 @1046 GetDeviceLabel", "new_probe /dev/usb_storage_sdb",
                  "do_probe /dev/usb_storage_sdb", "lookup /dev/usb_storage_sdb LABEL",
                  "log 4 @1008 No LABEL found for /dev/usb_storage_sdb", "free_probe /dev/usb_storage_sdb",
                  "log 2 @1015 getBlkidLookupValue(1,LABEL; device=/dev/usb_storage_sdb)=",
                  "log 2 @1060 GetDeviceLabel(1)=NONAME"));
}

TEST_F(Probing, AcceptsTwoCharactersAsAValue) {
  const auto id = plugIn({"sdb"}, "vfat");
  disk("sdb").values["LABEL"] = "AB";
  disk("sdb").values["UUID"] = "01";
  EXPECT_EQ(label(id).text, "AB");
  EXPECT_EQ(uuid(id).text, "01");
  EXPECT_THAT(journal().eventsBeginning("log 4"), IsEmpty());
}

TEST_F(Probing, TreatsASingleCharacterAsNoUuid) {
  const auto id = plugIn({"sdb"}, "vfat");
  disk("sdb").values["UUID"] = "7";
  const auto result = uuid(id);
  EXPECT_FALSE(result.success);
  EXPECT_EQ(result.text, "0000-0000");
}

TEST_F(Probing, TreatsAnEmptyValueAsNone) {
  const auto id = plugIn({"sdb"}, "vfat");
  disk("sdb").values["LABEL"] = "";
  EXPECT_EQ(label(id).text, "NONAME");
  EXPECT_THAT(journal().eventsBeginning("log 4"),
              ElementsAre("log 4 @1008 No LABEL found for /dev/usb_storage_sdb"));
}

TEST_F(Probing, ReportsThatAnEmptyDiskHasNoValue) {
  const auto id = plugIn({"sdb"});
  disk("sdb").probeResult = 1;
  disk("sdb").lookupError = ENOENT;
  const auto result = uuid(id);
  EXPECT_FALSE(result.success);
  EXPECT_EQ(result.text, "0000-0000");
  EXPECT_THAT(
      journal().events(),
      ElementsAre("log 2 @1024 GetDeviceUuid", "new_probe /dev/usb_storage_sdb",
                  "do_probe /dev/usb_storage_sdb", "lookup /dev/usb_storage_sdb UUID",
                  "log 4 @1001 blkid_probe_lookup_value(UUID) failed. error=2",
                  "log 4 @1008 No UUID found for /dev/usb_storage_sdb", "free_probe /dev/usb_storage_sdb",
                  "log 2 @1015 getBlkidLookupValue(1,UUID; device=/dev/usb_storage_sdb)=",
                  "log 2 @1036 GetDeviceUUID(1)=0000-0000"));
}

TEST_F(Probing, TreatsOnlyMinusOneAsAProbingFailure) {
  const auto id = plugIn({"sdb"}, "vfat");
  disk("sdb").probeResult = -2;
  EXPECT_EQ(uuid(id).text, "0000-0000");
  EXPECT_THAT(journal().eventsBeginning("log 4"),
              ElementsAre("log 4 @1001 blkid_probe_lookup_value(UUID) failed. error=0",
                          "log 4 @1008 No UUID found for /dev/usb_storage_sdb"));
  EXPECT_EQ(platform.liveProbes(), 0U);
}

TEST_F(Probing, ReportsANodeThatCannotBeOpened) {
  const auto id = plugIn({"sdb"});
  disk("sdb").opens = false;
  const auto result = label(id);
  EXPECT_TRUE(result.success);
  EXPECT_EQ(result.text, "NONAME");
  EXPECT_THAT(journal().events(),
              ElementsAre("log 2 @1046 GetDeviceLabel", "new_probe /dev/usb_storage_sdb",
                          "log 4 @986 blkid_new_probe_from_filename(/dev/usb_storage_sdb) failed!",
                          "log 2 @1015 getBlkidLookupValue(1,LABEL; device=/dev/usb_storage_sdb)=",
                          "log 2 @1060 GetDeviceLabel(1)=NONAME"));
}

TEST_F(Probing, ReportsAReadErrorWithoutFreeingTheProbe) {
  const auto id = plugIn({"sdb"});
  disk("sdb").probeResult = -1;
  disk("sdb").probeError = EIO;
  EXPECT_EQ(uuid(id).text, "0000-0000");
  EXPECT_THAT(journal().events(),
              ElementsAre("log 2 @1024 GetDeviceUuid", "new_probe /dev/usb_storage_sdb",
                          "do_probe /dev/usb_storage_sdb", "log 4 @993 blkid_do_probe() failed. error=5",
                          "log 2 @1015 getBlkidLookupValue(1,UUID; device=/dev/usb_storage_sdb)=",
                          "log 2 @1036 GetDeviceUUID(1)=0000-0000"));
  EXPECT_EQ(platform.liveProbes(), 1U);
}

TEST_F(Probing, KeepsNoMoreThanOneFailedProbe) {
  const auto first = plugIn({"sda"});
  const auto second = plugIn({"sdb"}, "vfat");
  const auto third = plugIn({"sdc"});
  for (const std::string node : {"sda", "sdc"}) {
    disk(node).probeResult = -1;
  }
  uuid(first);
  uuid(second);
  EXPECT_EQ(platform.liveProbes(), 1U);
  journal().clear();
  uuid(third);
  EXPECT_THAT(journal().events(),
              ElementsAre("log 2 @1024 GetDeviceUuid", "new_probe /dev/usb_storage_sdc",
                          "do_probe /dev/usb_storage_sdc", "log 4 @993 blkid_do_probe() failed. error=0",
                          "free_probe /dev/usb_storage_sda",
                          "log 2 @1015 getBlkidLookupValue(3,UUID; device=/dev/usb_storage_sdc)=",
                          "log 2 @1036 GetDeviceUUID(3)=0000-0000"));
  EXPECT_EQ(platform.liveProbes(), 1U);
  handler.reset();
  EXPECT_EQ(platform.liveProbes(), 0U);
  handler = std::make_unique<TestableHandler>(platform);
}

TEST_F(Probing, DoesNotReportAnOlderErrno) {
  const auto id = plugIn({"sdb"});
  platform.onCall = [](const std::string&) { errno = EXDEV; };
  uuid(id);
  EXPECT_THAT(journal().eventsBeginning("log 4 @1001"),
              ElementsAre("log 4 @1001 blkid_probe_lookup_value(UUID) failed. error=18"));
  // errno is set before the calls to libblkid, not by them.
  platform.onCall = [](const std::string& event) {
    if (event.rfind("lookup", 0) != 0) {
      errno = EXDEV;
    }
  };
  journal().clear();
  uuid(id);
  EXPECT_THAT(journal().eventsBeginning("log 4 @1001"),
              ElementsAre("log 4 @1001 blkid_probe_lookup_value(UUID) failed. error=0"));
  platform.onCall = [](const std::string& event) {
    if (event.rfind("do_probe", 0) != 0) {
      errno = EXDEV;
    }
  };
  disk("sdb").probeResult = -1;
  journal().clear();
  uuid(id);
  EXPECT_THAT(journal().eventsBeginning("log 4"), ElementsAre("log 4 @993 blkid_do_probe() failed. error=0"));
}

TEST_F(Probing, HoldsANodeOpenUntilItIsReleased) {
  disk("sdb");
  Dockhand::Prober prober(platform);
  {
    const Dockhand::Prober::NodeHold hold(prober, "/dev/usb_storage_sdb");
    EXPECT_EQ(platform.openDescriptors(), 1U);
    prober.releaseNode();
    EXPECT_EQ(platform.openDescriptors(), 0U);
  }
  EXPECT_THAT(journal().calls(), ElementsAre("open /dev/usb_storage_sdb", "close /dev/usb_storage_sdb"));
}

TEST_F(Probing, TreatsANullValueAsNone) {
  // Reports success, but returns no value.
  class EmptyHanded : public FakePlatform {
   public:
    int blkid_probe_lookup_value(blkid_probe /*probe*/, const char* /*name*/, const char** value) override {
      *value = nullptr;
      return 0;
    }
  };
  EmptyHanded emptyHanded;
  emptyHanded.disks["/dev/usb_storage_sdb"] = {};
  Dockhand::Prober prober(emptyHanded);
  EXPECT_EQ(prober.lookUp("/dev/usb_storage_sdb", "LABEL"), "");
  EXPECT_THAT(journal().eventsBeginning("log 4"),
              ElementsAre("log 4 @1008 No LABEL found for /dev/usb_storage_sdb"));
}

TEST_F(Probing, ReadsTheValueBeforeTheProbeIsFreed) {
  const auto id = plugIn({"sdb"}, "vfat");
  disk("sdb").values["LABEL"] = "STICK";
  platform.onCall = [this](const std::string& event) {
    if (event.rfind("free_probe", 0) == 0) {
      disk("sdb").values["LABEL"].assign(5, '-');
    }
  };
  EXPECT_EQ(label(id).text, "STICK");
}

TEST_F(Probing, PassesALabelUnchanged) {
  const auto id = plugIn({"sdb"}, "vfat");
  for (const std::string& name :
       {std::string("My Disk"), std::string("%s%n"), std::string("../x"), std::string("\xC3\xA9\xFF\n"),
        std::string("new\tline\n"), std::string(65536, 'x')}) {
    disk("sdb").values["LABEL"] = name;
    journal().clear();
    EXPECT_EQ(label(id).text, name);
    EXPECT_EQ(journal().events().back(), "log 2 @1060 GetDeviceLabel(1)=" + name);
  }
}

TEST_F(Probing, HoldsTheLockForAllButTheFirstLine) {
  const auto id = plugIn({"sdb"});
  Dockhand::PartitionInfo info;
  watchLock();
  label(id);
  uuid(id);
  handler->GetPartitionInfo(id, info);
  handler->GetPartitionInfo(2, info);
  EXPECT_THAT(unlocked,
              ElementsAre("GetDeviceLabel", "GetDeviceUuid", "GetPartitionInfo(1)", "GetPartitionInfo(2)"));
}

TEST_F(Probing, WarnsButDoesNotTraceAtTheThresholdOfWarnings) {
  const auto id = plugIn({"sdb"});
  setThreshold(4);
  uuid(id);
  disk("sdb").probeResult = -1;
  uuid(id);
  disk("sdb").opens = false;
  uuid(id);
  EXPECT_THAT(journal().logs(),
              ElementsAre("log 4 @1001 blkid_probe_lookup_value(UUID) failed. error=0",
                          "log 4 @1008 No UUID found for /dev/usb_storage_sdb",
                          "log 4 @993 blkid_do_probe() failed. error=0",
                          "log 4 @986 blkid_new_probe_from_filename(/dev/usb_storage_sdb) failed!"));
}

TEST_F(Probing, LogsNothingAboveTheThresholdOfWarnings) {
  const auto id = plugIn({"sdb"});
  setThreshold(5);
  uuid(id);
  disk("sdb").probeResult = -1;
  EXPECT_EQ(uuid(id).text, "0000-0000");
  disk("sdb").opens = false;
  EXPECT_EQ(label(id).text, "NONAME");
  EXPECT_THAT(journal().logs(), IsEmpty());
  Dockhand::PartitionInfo info;
  EXPECT_FALSE(handler->GetPartitionInfo(-1, info));
  EXPECT_THAT(journal().logs(), ElementsAre("log 5 @965 GetPartitionInfo(-1) - Unknown device!"));
}

}  // namespace
