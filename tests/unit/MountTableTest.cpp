// How each type of file system is mounted.

#include <cerrno>

#include "ExpectedMounts.h"
#include "HandlerTest.h"

namespace {

using testsupport::ExpectedMount;
using testsupport::expectedMountCalls;
using testsupport::expectedMounts;

class MountTable : public HandlerTest {
 protected:
  /// All calls of mount for a disk of this type if every mount fails.
  std::vector<std::string> attemptsFor(const std::string& probedType) {
    const auto id = plugIn({"sdb"}, probedType);
    platform.mountError = [](const FakePlatform::Mount&) { return ENODEV; };
    handler->OpenDevice(id);
    const auto attempts = journal().eventsBeginning("mount ");
    pullOut({"sdb"});
    handler->CheckForAndUpdateNewDevices();
    return attempts;
  }
  static std::vector<std::string> expectedFor(const std::string& probedType) {
    return expectedMountCalls("/dev/usb_storage_sdb", "/media/disk_1", probedType);
  }
};

TEST_F(MountTable, TriesTheRowsOfTheDisksTypeAndThenEveryRow) {
  for (const ExpectedMount& row : expectedMounts()) {
    EXPECT_EQ(attemptsFor(row.probedType), expectedFor(row.probedType)) << row.probedType;
  }
}

TEST_F(MountTable, HasNoRowForOtherTypes) {
  for (const std::string type : {"ext2", "ext4", "hfsplus", "exfat", "iso9660", "VFAT", "vfa"}) {
    EXPECT_THAT(attemptsFor(type), SizeIs(expectedMounts().size())) << type;
  }
}

TEST_F(MountTable, TriesEveryRowTwiceWithoutAType) {
  EXPECT_EQ(attemptsFor(""), expectedFor(""));
}

}  // namespace
