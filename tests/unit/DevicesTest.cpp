// The device map: numbers, look-up, and the sweep after a scan.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Devices.h"

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

namespace {

class DevicesTest : public ::testing::Test {
 protected:
  std::vector<std::uint32_t> keys() const {
    std::vector<std::uint32_t> found;
    for (const auto& [key, entry] : map) {
      found.push_back(key);
    }
    return found;
  }

  Dockhand::DeviceMap map;
  Dockhand::Devices devices{map};
};

TEST_F(DevicesTest, FindsARecordByItsNumberWithTheSignExtended) {
  map[1];
  map[65535];
  map[4294967295];
  EXPECT_EQ(devices.find(1), &map[1]);
  EXPECT_EQ(devices.find(-1), &map[4294967295]);
  EXPECT_EQ(devices.find(2), nullptr);
  EXPECT_EQ(devices.findKey(65535), &map[65535]);
}

TEST_F(DevicesTest, FindsTheFirstRecordWithAKernelName) {
  devices.insert("sdb", "1");
  devices.insert("sdb", "");
  EXPECT_EQ(devices.findByKernelName("sdb1"), map.find(1));
  EXPECT_EQ(devices.findByKernelName("sdb"), map.find(2));
  EXPECT_EQ(devices.findByKernelName("sd"), map.end());
}

TEST_F(DevicesTest, MarksWhatAScanSees) {
  devices.insert("sda", "1");
  devices.insert("sdb", "");
  devices.beginScan();
  EXPECT_FALSE(map[1].foundInScan || map[2].foundInScan || map[1].partitionCount != 0);
  EXPECT_FALSE(devices.markSeen("sdc", true));
  EXPECT_TRUE(devices.markSeen("sdb", true));
  EXPECT_TRUE(devices.markSeen("sdb", false));
  EXPECT_TRUE(map[2].foundInScan && map[2].partitionCount == 1);
  EXPECT_FALSE(map[1].foundInScan);
}

TEST_F(DevicesTest, SkipsTheFirstRecordAfterEachErasure) {
  struct Sweep {
    std::vector<bool> seen;
    std::vector<std::uint32_t> left;
  };
  for (const Sweep& sweep : std::vector<Sweep>{{{}, {}},
                                               {{true}, {1}},
                                               {{false}, {}},
                                               {{false, false}, {2}},
                                               {{false, false, false}, {2}},
                                               {{true, false, false}, {1}},
                                               {{false, true, false}, {2}}}) {
    map.clear();
    for (const bool seen : sweep.seen) {
      devices.insert("sda", "");
      map.rbegin()->second.foundInScan = seen;
    }
    devices.eraseUnseen();
    EXPECT_THAT(keys(), ElementsAreArray(sweep.left)) << ::testing::PrintToString(sweep.seen);
  }
}

TEST_F(DevicesTest, GivesANewDeviceTheSmallestFreeNumber) {
  map[1];
  map[3];
  devices.insert("sda", "");
  devices.insert("sdb", "");
  EXPECT_THAT(keys(), ElementsAre(1, 2, 3, 4));
  EXPECT_EQ(map[2].deviceName, "sda");
}

}  // namespace
