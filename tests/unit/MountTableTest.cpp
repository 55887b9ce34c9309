// How each type of file system is mounted.

#include <cerrno>

#include "HandlerTest.h"
#include "MountTable.h"

namespace {

class MountTable : public HandlerTest {
 protected:
  /// All calls of mount for a disk of this type, if every mount fails.
  std::vector<FakePlatform::Mount> attemptsFor(const std::string& probedType) {
    const auto id = plugIn({"sdb"}, probedType);
    std::vector<FakePlatform::Mount> attempts;
    platform.mountError = [&attempts](const FakePlatform::Mount& attempt) {
      attempts.push_back(attempt);
      return ENODEV;
    };
    handler->OpenDevice(id);
    return attempts;
  }
  /// The calls of the first pass: all but the last nine.
  std::vector<FakePlatform::Mount> firstAttemptsFor(const std::string& probedType) {
    auto attempts = attemptsFor(probedType);
    EXPECT_GE(attempts.size(), 9U);
    attempts.resize(attempts.size() - 9);
    return attempts;
  }
  static void expectAttempt(const FakePlatform::Mount& attempt, const std::string& type, unsigned long flags,
                            const std::string& options) {
    EXPECT_EQ(attempt.source, "/dev/usb_storage_sdb");
    EXPECT_EQ(attempt.target, "/media/disk_1");
    EXPECT_EQ(attempt.fileSystemType, type);
    EXPECT_EQ(attempt.flags, flags) << type;
    EXPECT_EQ(attempt.options, options) << type;
  }
};

TEST_F(MountTable, MountsFatWithTheLegacyMarkAndUtf8Names) {
  const auto attempts = firstAttemptsFor("vfat");
  ASSERT_EQ(attempts.size(), 2U);
  expectAttempt(attempts[0], "vfat", 0xC0ED0002, "utf8");
  expectAttempt(attempts[1], "vfat", 0xC0ED0003, "utf8");
}

TEST_F(MountTable, MountsNtfsWithNoexec) {
  const auto attempts = firstAttemptsFor("ntfs");
  ASSERT_EQ(attempts.size(), 2U);
  expectAttempt(attempts[0], "ntfs", 10, "nls=utf8");
  expectAttempt(attempts[1], "ntfs", 11, "nls=utf8");
}

TEST_F(MountTable, MountsExt3WithTheLegacyMarkAndNoOptions) {
  const auto attempts = firstAttemptsFor("ext3");
  ASSERT_EQ(attempts.size(), 2U);
  expectAttempt(attempts[0], "ext3", 0xC0ED0002, "");
  expectAttempt(attempts[1], "ext3", 0xC0ED0003, "");
}

TEST_F(MountTable, MountsHfsReadOnly) {
  const auto attempts = firstAttemptsFor("hfs");
  ASSERT_EQ(attempts.size(), 1U);
  expectAttempt(attempts[0], "hfs", 3, "nls=utf8");
}

TEST_F(MountTable, MountsHfsPlusReadOnlyUnderTheKernelsNameForIt) {
  const auto attempts = firstAttemptsFor("hfs+");
  ASSERT_EQ(attempts.size(), 1U);
  expectAttempt(attempts[0], "hfsplus", 3, "nls=utf8");
}

TEST_F(MountTable, MountsXfsWithProjectQuotas) {
  const auto attempts = firstAttemptsFor("xfs");
  ASSERT_EQ(attempts.size(), 1U);
  expectAttempt(attempts[0], "xfs", 1034, "prjquota");
}

TEST_F(MountTable, HasNoRowForOtherTypes) {
  for (const std::string type : {"ext2", "ext4", "hfsplus", "exfat", "iso9660", "VFAT", "vfa"}) {
    EXPECT_TRUE(firstAttemptsFor(type).empty()) << type;
    pullOut({"sdb"});
    handler->CheckForAndUpdateNewDevices();
  }
}

TEST_F(MountTable, TriesTheRowsInAFixedOrderWithoutAType) {
  const auto attempts = attemptsFor("");
  ASSERT_EQ(attempts.size(), 18U);
  for (const std::size_t first : {std::size_t{0}, std::size_t{9}}) {
    expectAttempt(attempts[first], "vfat", 0xC0ED0002, "utf8");
    expectAttempt(attempts[first + 1], "vfat", 0xC0ED0003, "utf8");
    expectAttempt(attempts[first + 2], "ntfs", 10, "nls=utf8");
    expectAttempt(attempts[first + 3], "ntfs", 11, "nls=utf8");
    expectAttempt(attempts[first + 4], "ext3", 0xC0ED0002, "");
    expectAttempt(attempts[first + 5], "ext3", 0xC0ED0003, "");
    expectAttempt(attempts[first + 6], "hfs", 3, "nls=utf8");
    expectAttempt(attempts[first + 7], "hfsplus", 3, "nls=utf8");
    expectAttempt(attempts[first + 8], "xfs", 1034, "prjquota");
  }
}

TEST(MountTableRows, UseTheTypeNamesOfProbing) {
  std::vector<std::string> rows;
  for (const Dockhand::MountTableRow& row : Dockhand::mountTable) {
    rows.push_back(std::string(row.probedType) + " " + row.fileSystemType);
  }
  EXPECT_THAT(rows, ElementsAre("vfat vfat", "vfat vfat", "ntfs ntfs", "ntfs ntfs", "ext3 ext3", "ext3 ext3",
                                "hfs hfs", "hfs+ hfsplus", "xfs xfs"));
}

}  // namespace
