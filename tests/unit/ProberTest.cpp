// Reading a value of a file system at a node.

#include <cerrno>

#include "HandlerTest.h"
#include "Prober.h"

namespace {

class ProberTest : public HandlerTest {
 protected:
  FakePlatform::Disk& disk(const std::string& node) { return platform.disks["/dev/usb_storage_" + node]; }
  std::string lookUp(const std::string& node, const char* key = "UUID") {
    return prober.lookUp("/dev/usb_storage_" + node, key);
  }

  Dockhand::Prober prober{platform};
};

const std::string probing[] = {"new_probe /dev/usb_storage_sdb", "do_probe /dev/usb_storage_sdb",
                               "lookup /dev/usb_storage_sdb LABEL", "free_probe /dev/usb_storage_sdb"};
const std::string nothingFound = "log 4 @1008 No LABEL found for /dev/usb_storage_sdb";

struct Row {
  const char* name;
  FakePlatform::Disk disk;
  std::string value;
  std::vector<std::string> events;
  std::size_t liveProbes = 0;
};

FakePlatform::Disk diskWith(const std::string& label) {
  FakePlatform::Disk disk;
  disk.values["LABEL"] = label;
  return disk;
}

FakePlatform::Disk failingDisk(bool opens, int probeResult, int probeError, int lookupError) {
  FakePlatform::Disk disk;
  disk.opens = opens;
  disk.probeResult = probeResult;
  disk.probeError = probeError;
  disk.lookupError = lookupError;
  return disk;
}

TEST_F(ProberTest, LooksUpAValueAndWarnsOfWhatFails) {
  const std::vector<std::string> found(std::begin(probing), std::end(probing));
  const std::vector<std::string> none = {probing[0], probing[1], probing[2], nothingFound, probing[3]};
  const auto unreadable = [](int error) {
    return std::vector<std::string>{
        probing[0],   probing[1],
        probing[2],   "log 4 @1001 blkid_probe_lookup_value(LABEL) failed. error=" + std::to_string(error),
        nothingFound, probing[3]};
  };
  const Row rows[] = {
      {"a label", diskWith("STICK"), "STICK", found},
      {"two characters", diskWith("AB"), "AB", found},
      {"a single character counts as none", diskWith("A"), "", none},
      {"an empty value counts as none", diskWith(""), "", none},
      {"any other bytes are passed on", diskWith("%s../x\t\xC3\xA9\xFF\n"), "%s../x\t\xC3\xA9\xFF\n", found},
      {"an empty disk", failingDisk(true, 1, 0, ENOENT), "", unreadable(ENOENT)},
      {"only -1 is a failed probe", failingDisk(true, -2, 0, 0), "", unreadable(0)},
      {"a node that cannot be opened",
       failingDisk(false, 0, 0, 0),
       "",
       {probing[0], "log 4 @986 blkid_new_probe_from_filename(/dev/usb_storage_sdb) failed!"}},
      {"the probe of a read error is not freed",
       failingDisk(true, -1, EIO, 0),
       "",
       {probing[0], probing[1], "log 4 @993 blkid_do_probe() failed. error=5"},
       1},
  };
  for (const Row& row : rows) {
    disk("sdb") = row.disk;
    journal().clear();
    EXPECT_EQ(lookUp("sdb", "LABEL"), row.value) << row.name;
    EXPECT_EQ(journal().events(), row.events) << row.name;
    EXPECT_EQ(platform.liveProbes(), row.liveProbes) << row.name;
  }
}

TEST_F(ProberTest, KeepsNoMoreThanOneFailedProbe) {
  disk("sda").probeResult = -1;
  disk("sdb").values["UUID"] = "1234-ABCD";
  disk("sdc").probeResult = -1;
  {
    Dockhand::Prober failing(platform);
    failing.lookUp("/dev/usb_storage_sda", "UUID");
    failing.lookUp("/dev/usb_storage_sdb", "UUID");
    EXPECT_EQ(platform.liveProbes(), 1U);
    journal().clear();
    failing.lookUp("/dev/usb_storage_sdc", "UUID");
    EXPECT_THAT(
        journal().events(),
        ElementsAre("new_probe /dev/usb_storage_sdc", "do_probe /dev/usb_storage_sdc",
                    "log 4 @993 blkid_do_probe() failed. error=0", "free_probe /dev/usb_storage_sda"));
    EXPECT_EQ(platform.liveProbes(), 1U);
  }
  EXPECT_EQ(platform.liveProbes(), 0U);
}

TEST_F(ProberTest, DoesNotReportAnOlderErrno) {
  disk("sdb");
  platform.onCall = [](const std::string&) { errno = EXDEV; };
  lookUp("sdb");
  EXPECT_THAT(journal().eventsBeginning("log 4 @1001"),
              ElementsAre("log 4 @1001 blkid_probe_lookup_value(UUID) failed. error=18"));
  // errno is set before the calls to libblkid, not by them.
  platform.onCall = [](const std::string& event) {
    if (event.rfind("lookup", 0) != 0) {
      errno = EXDEV;
    }
  };
  journal().clear();
  lookUp("sdb");
  EXPECT_THAT(journal().eventsBeginning("log 4 @1001"),
              ElementsAre("log 4 @1001 blkid_probe_lookup_value(UUID) failed. error=0"));
  platform.onCall = [](const std::string& event) {
    if (event.rfind("do_probe", 0) != 0) {
      errno = EXDEV;
    }
  };
  disk("sdb").probeResult = -1;
  journal().clear();
  lookUp("sdb");
  EXPECT_THAT(journal().eventsBeginning("log 4"), ElementsAre("log 4 @993 blkid_do_probe() failed. error=0"));
}

TEST_F(ProberTest, HoldsANodeOpenUntilItIsReleased) {
  disk("sdb");
  {
    const Dockhand::Prober::NodeHold hold(prober, "/dev/usb_storage_sdb");
    EXPECT_EQ(platform.openDescriptors(), 1U);
    prober.releaseNode();
    EXPECT_EQ(platform.openDescriptors(), 0U);
  }
  EXPECT_THAT(journal().calls(), ElementsAre("open /dev/usb_storage_sdb", "close /dev/usb_storage_sdb"));
}

TEST_F(ProberTest, TreatsANullValueAsNone) {
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
  Dockhand::Prober emptyProber(emptyHanded);
  EXPECT_EQ(emptyProber.lookUp("/dev/usb_storage_sdb", "LABEL"), "");
  EXPECT_THAT(journal().eventsBeginning("log 4"), ElementsAre(nothingFound));
}

TEST_F(ProberTest, ReadsTheValueBeforeTheProbeIsFreed) {
  disk("sdb").values["LABEL"] = "STICK";
  platform.onCall = [this](const std::string& event) {
    if (event.rfind("free_probe", 0) == 0) {
      disk("sdb").values["LABEL"].assign(5, '-');
    }
  };
  EXPECT_EQ(lookUp("sdb", "LABEL"), "STICK");
}

TEST_F(ProberTest, WarnsOnlyBelowTheThresholdOfErrors) {
  for (const auto& [threshold, warnings] : {std::pair(4, 4U), std::pair(5, 0U)}) {
    setThreshold(threshold);
    journal().clear();
    disk("sdb") = {};
    lookUp("sdb");
    disk("sdb").probeResult = -1;
    lookUp("sdb");
    disk("sdb").opens = false;
    lookUp("sdb");
    EXPECT_THAT(journal().logs(), SizeIs(warnings));
  }
}

}  // namespace
