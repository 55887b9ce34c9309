// Openings and repairs under a mount policy.

#include <fcntl.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <future>
#include <stdexcept>
#include <thread>
#include <utility>

#include "ExpectedMounts.h"
#include "HandlerTest.h"
#include "MountPolicy.h"

namespace {

using Dockhand::MountPolicy;
using testsupport::expectedMountCalls;
using testsupport::expectedMounts;

/// The fake system, with what statx says about some paths.
class SystemWithFiles : public Dockhand::ForwardingPlatform {
 public:
  using ForwardingPlatform::ForwardingPlatform;

  struct File {
    mode_t mode = S_IFREG | 0644;
    uid_t owner = 0;
    /// Major and minor number of the device that it is, and of the one that it is on.
    std::pair<std::uint32_t, std::uint32_t> device;
    std::pair<std::uint32_t, std::uint32_t> on;
    int error = 0;
  };
  /// By path; an opened file has the path "".
  std::map<std::string, File> status;

  int statx(int directory, const std::string& path, int flags, unsigned int mask,
            struct statx* result) override {
    const auto found = status.find(path);
    if (found == status.end()) {
      return below().statx(directory, path, flags, mask, result);
    }
    const File& file = found->second;
    *result = {};
    result->stx_mode = static_cast<std::uint16_t>(file.mode);
    result->stx_uid = file.owner;
    result->stx_rdev_major = file.device.first;
    result->stx_rdev_minor = file.device.second;
    result->stx_dev_major = file.on.first;
    result->stx_dev_minor = file.on.second;
    errno = file.error != 0 ? file.error : errno;
    return file.error != 0 ? -1 : 0;
  }
};

const std::string node = "/dev/usb_storage_sdb";
const std::string directory = "/media/disk_1";

class MountPolicyTest : public HandlerTest {
 protected:
  void TearDown() override {
    EXPECT_EQ(platform.openDescriptors(), 0U);
    EXPECT_LE(platform.liveProbes(), 1U);
    // It must not outlive the policy.
    handler.reset();
    unsetenv("DOCKHAND_MOUNTS");
  }

  /// The handler over a policy with these rows, and a stick of this type; returns its number.
  std::int16_t plugInUnder(const std::string& rows, const std::string& type) {
    handler.reset();
    platform.deviceNodes.clear();
    platform.existing.clear();
    policy = std::make_unique<MountPolicy>(system, Dockhand::parseMountRules(rows, Dockhand::findGroup));
    handler = std::make_unique<TestableHandler>(*policy);
    return plugIn({"sdb"}, type);
  }
  /// The next mounts fail with these errors, one after the other; 0 succeeds, and so do all after the last.
  void setErrors(const std::vector<int>& errors) {
    platform.mountError = [errors, next = std::size_t{0}](const FakePlatform::Mount&) mutable {
      return next < errors.size() ? errors[next++] : 0;
    };
  }
  void failMounts(int error) {
    platform.mountError = [error](const FakePlatform::Mount&) { return error; };
  }
  /// The mounts, without node and directory.
  static std::vector<std::string> mounts() {
    const std::string beginning = "mount " + node + " " + directory + " ";
    std::vector<std::string> found;
    for (const std::string& event : journal().eventsBeginning("mount ")) {
      found.push_back(begins(event, beginning) ? event.substr(beginning.size()) : event);
    }
    return found;
  }
  static std::vector<std::string> reports() { return journal().eventsBeginning("log 5 @781 "); }
  static std::string report(const std::string& text) { return "log 5 @781 " + node + " " + text; }
  static std::vector<std::string> everyRow(const std::string& type) {
    return expectedMountCalls(node, directory, type);
  }

  SystemWithFiles system{platform};
  std::unique_ptr<MountPolicy> policy;
};

TEST_F(MountPolicyTest, DoesAndLogsEachStepOfAnOpeningInOrder) {
  const auto id = plugInUnder("exfat exfat nosuid,nodev,umask=0002\n", "exfat");
  setErrors({EROFS});
  EXPECT_TRUE(handler->OpenDevice(id));
  const auto events = journal().events();
  const std::vector<std::string> expectedEnd = {
      "mkdir /media/disk_1 775",
      "log 2 @733 mkdir ok usbMountDevice.c_str() /dev/usb_storage_sdb",
      "log 2 @734 mkdir status is 0",
      "new_probe /dev/usb_storage_sdb",
      "do_probe /dev/usb_storage_sdb",
      "lookup /dev/usb_storage_sdb TYPE",
      "free_probe /dev/usb_storage_sdb",
      "log 2 @1015 getBlkidLookupValue(1,TYPE; device=/dev/usb_storage_sdb)=exfat",
      "new_probe /dev/usb_storage_sdb",
      "do_probe /dev/usb_storage_sdb",
      "lookup /dev/usb_storage_sdb TYPE",
      "free_probe /dev/usb_storage_sdb",
      "mount /dev/usb_storage_sdb /media/disk_1 exfat 6 umask=0002",
      "mount /dev/usb_storage_sdb /media/disk_1 exfat 7 umask=0002",
      "log 2 @770 mount ok",
      "close /dev/usb_storage_sdb",
  };
  ASSERT_GT(events.size(), expectedEnd.size());
  EXPECT_THAT(
      std::vector<std::string>(events.end() - static_cast<std::ptrdiff_t>(expectedEnd.size()), events.end()),
      ElementsAreArray(expectedEnd));
}

TEST_F(MountPolicyTest, ReportsAFailedOpeningOnceAndAfterTheHandlersLines) {
  const auto id = plugInUnder("\nexfat exfat nodev\n", "exfat");
  failMounts(EINVAL);
  EXPECT_FALSE(handler->OpenDevice(id));
  EXPECT_FALSE(entry(id).deviceOpen);
  const auto events = journal().events();
  ASSERT_GT(events.size(), 6U);
  EXPECT_THAT(
      std::vector<std::string>(events.end() - 6, events.end()),
      ElementsAre("mount /dev/usb_storage_sdb /media/disk_1 exfat 4 ",
                  "log 2 @590 Error on usb mount: Filesystemtype not configured in the kernel.",
                  "log 2 @778 Performing rmdir for /media/disk_1",
                  report("(exfat) is not mounted: as exfat, by line 2 of the mount policy: Invalid argument"),
                  "rmdir /media/disk_1", "close /dev/usb_storage_sdb"));
}

TEST_F(MountPolicyTest, MountsATypeThatHasARowByThisRowOnly) {
  struct Row {
    const char* rules;
    const char* type;
    std::vector<int> errors;
    bool opens;
    std::vector<std::string> mounts;
    std::string reason;
  };
  const std::string stopped = " is not mounted: as b, by line 1 of the mount policy: ";
  const std::vector<Row> rows = {
      {"a b -\n", "a", {}, true, {"b 0 "}, ""},
      {"a b nosuid,noatime,x=y,z\n", "a", {}, true, {"b 402 x=y,z"}, ""},
      {"a b gid=root\n", "a", {}, true, {"b 0 gid=0"}, ""},
      {"a b -\n", "a", {EROFS}, true, {"b 0 ", "b 1 "}, ""},
      {"a b noexec,x\n", "a", {EACCES}, true, {"b 8 x", "b 9 x"}, ""},
      {"a b -\n", "a", {EROFS, EIO}, false, {"b 0 ", "b 1 "}, "(a)" + stopped + "Input/output error"},
      {"a b -\n", "a", {EROFS, EROFS}, false, {"b 0 ", "b 1 "}, "(a)" + stopped + "Read-only file system"},
      {"a b -\n", "a", {EACCES, EINVAL}, false, {"b 0 ", "b 1 "}, "(a)" + stopped + "Invalid argument"},
      {"a b ro\n", "a", {}, true, {"b 1 "}, ""},
      {"a b ro\n", "a", {EROFS}, false, {"b 1 "}, "(a)" + stopped + "Read-only file system"},
      {"a b -\n", "a", {EINVAL}, false, {"b 0 "}, "(a)" + stopped + "Invalid argument"},
      {"a b -\n", "a", {EBUSY}, false, {"b 0 "}, "(a)" + stopped + "Device or resource busy"},
      {"a b -\n", "a", {ENODEV}, false, {"b 0 "}, "(a)" + stopped + "No such device"},
      {"vfat b -\n", "vfat", {EIO}, false, {"b 0 "}, "(vfat)" + stopped + "Input/output error"},
      {"* b -\n", "vfat", {}, true, {"b 0 "}, ""},
      {"* b -\n", "", {}, true, {"b 0 "}, ""},
      {"* b -\n", "", {EIO}, false, {"b 0 "}, "(unknown type)" + stopped + "Input/output error"},
      {"a b -\na c -\n* d -\n", "a", {}, true, {"b 0 "}, ""},
      {"c b -\na c -\n* d -\n", "a", {}, true, {"c 0 "}, ""},
      {"* d -\na b -\n", "a", {}, true, {"d 0 "}, ""},
      {"a refuse -\n", "a", {}, false, {}, "(a) is not mounted: refused by line 1 of the mount policy"},
      {"a b -\n* refuse -\n",
       "vfat",
       {},
       false,
       {},
       "(vfat) is not mounted: refused by line 2 of the mount policy"},
      {"* refuse -\n",
       "",
       {},
       false,
       {},
       "(unknown type) is not mounted: refused by line 1 of the mount policy"},
      {"vfat refuse -\n* vfat -\n",
       "vfat",
       {},
       false,
       {},
       "(vfat) is not mounted: refused by line 1 of the mount policy"},
  };
  for (const Row& row : rows) {
    const auto id = plugInUnder(row.rules, row.type);
    setErrors(row.errors);
    // An error of an earlier call.
    platform.onCall = [](const std::string& /*event*/) { errno = EROFS; };
    EXPECT_EQ(handler->OpenDevice(id), row.opens) << row.rules << row.type;
    EXPECT_EQ(entry(id).deviceOpen, row.opens) << row.rules << row.type;
    EXPECT_EQ(mounts(), row.mounts) << row.rules << row.type;
    EXPECT_EQ(reports(),
              row.reason.empty() ? std::vector<std::string>{} : std::vector<std::string>{report(row.reason)});
  }
}

TEST_F(MountPolicyTest, LeavesATypeWithoutARowToTheHandlersTable) {
  for (const std::string type : {"vfat", "ntfs", "exfat", ""}) {
    const auto id = plugInUnder("other refuse -\n", type);
    failMounts(ENODEV);
    EXPECT_FALSE(handler->OpenDevice(id));
    EXPECT_EQ(journal().eventsBeginning("mount "), everyRow(type)) << type;
    const std::string named = type.empty() ? "unknown type" : type;
    EXPECT_THAT(reports(), ElementsAre(report("(" + named +
                                              ") is not mounted: no row of the mount policy is for it; as " +
                                              "xfs: No such device")));
  }
}

TEST_F(MountPolicyTest, OpensATypeWithoutARowByTheFirstRowOfTheHandlersTableThatMounts) {
  const auto id = plugInUnder("other refuse -\n", "ext4");
  setErrors({EINVAL, EINVAL, EBUSY, ENODEV});
  EXPECT_TRUE(handler->OpenDevice(id));
  EXPECT_THAT(mounts(), SizeIs(5));
  EXPECT_EQ(mounts().back(), "ext3 c0ed0002 ");
  // Closing removes the directory on the same thread; the earlier failures must not be reported then.
  EXPECT_TRUE(handler->CloseDevice(id));
  EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(MountPolicyTest, NeverCountsAnOpeningAsDoneAfterAnError) {
  for (const char* rows : {"vfat vfat -\n", "other refuse -\n", "vfat refuse -\n"}) {
    for (int error = 1; error <= 133; ++error) {
      const auto id = plugInUnder(rows, "vfat");
      failMounts(error);
      EXPECT_FALSE(handler->OpenDevice(id)) << rows << error;
      EXPECT_THAT(reports(), SizeIs(1)) << rows << error;
      EXPECT_THAT(journal().eventsBeginning("rmdir"), ElementsAre("rmdir /media/disk_1")) << rows << error;
    }
  }
}

TEST_F(MountPolicyTest, KeepsTheErrorsThatTheHandlerTakesForFailures) {
  const auto id = plugInUnder("vfat vfat -\n", "vfat");
  failMounts(EMFILE);
  EXPECT_FALSE(handler->OpenDevice(id));
  EXPECT_THAT(journal().logs(), Contains("log 2 @590 Error on usb mount: Table of dummy devices is full."));
}

TEST_F(MountPolicyTest, CountsABusyNodeAsOpenOnlyIfItIsMountedAtTheDirectory) {
  using File = SystemWithFiles::File;
  const File device{S_IFBLK | 0660, 0, {8, 17}, {0, 5}, 0};
  const File mounted{S_IFDIR | 0755, 0, {0, 0}, {8, 17}, 0};
  struct Row {
    const char* description;
    File device;
    File directory;
    bool opens;
  };
  const std::vector<Row> rows = {
      {"mounted here", device, mounted, true},
      {"another disk here", device, {S_IFDIR, 0, {0, 0}, {9, 17}, 0}, false},
      {"another partition here", device, {S_IFDIR, 0, {0, 0}, {8, 18}, 0}, false},
      {"no device", {S_IFREG, 0, {8, 17}, {0, 5}, 0}, mounted, false},
      {"no node", {S_IFBLK, 0, {8, 17}, {0, 5}, ENOENT}, mounted, false},
      {"no directory", device, {S_IFDIR, 0, {0, 0}, {8, 17}, ENOENT}, false},
  };
  for (const char* rules : {"vfat vfat -\n", "other refuse -\n"}) {
    for (const Row& row : rows) {
      const auto id = plugInUnder(rules, "vfat");
      system.status = {{node, row.device}, {directory, row.directory}};
      failMounts(EBUSY);
      EXPECT_EQ(handler->OpenDevice(id), row.opens) << rules << row.description;
      EXPECT_THAT(reports(), SizeIs(row.opens ? 0 : 1)) << rules << row.description;
      handler->CloseDevice(id);
      EXPECT_THAT(reports(), SizeIs(row.opens ? 0 : 1)) << rules << row.description;
    }
  }
}

TEST_F(MountPolicyTest, ReportsTheLastErrorIfOnlyAnEarlierRowFoundTheNodeMounted) {
  const auto id = plugInUnder("other refuse -\n", "vfat");
  system.status = {{node, {S_IFBLK | 0660, 0, {8, 17}, {0, 5}, 0}},
                   {directory, {S_IFDIR | 0755, 0, {0, 0}, {8, 17}, 0}}};
  platform.mountError = [](const FakePlatform::Mount& attempt) {
    return attempt.fileSystemType == "xfs" ? EINVAL : EBUSY;
  };
  EXPECT_FALSE(handler->OpenDevice(id));
  EXPECT_THAT(reports(), ElementsAre(HasSubstr("as xfs: Invalid argument")));

  // The other way round the opening is done, and there is nothing to report when its directory is removed.
  platform.mountError = [isFirst = true](const FakePlatform::Mount&) mutable {
    return std::exchange(isFirst, false) ? EINVAL : EBUSY;
  };
  journal().clear();
  EXPECT_TRUE(handler->OpenDevice(id));
  policy->rmdir(directory);
  EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(MountPolicyTest, RefusesAsIfThereWereNoDevice) {
  plugInUnder("* refuse -\n", "vfat");
  EXPECT_EQ(policy->mount(node, directory, "vfat", 0, ""), -1);
  EXPECT_EQ(errno, ENODEV);
}

TEST_F(MountPolicyTest, AsksForTheTypeInEachOpening) {
  const auto id = plugInUnder("one 1 -\ntwo 2 -\n* refuse -\n", "one");
  auto& disk = platform.disks[node];
  EXPECT_TRUE(handler->OpenDevice(id));
  disk.values["TYPE"] = "two";
  EXPECT_TRUE(handler->OpenDevice(id));
  disk.values["TYPE"] = "three";
  EXPECT_FALSE(handler->OpenDevice(id));
  disk.values["TYPE"] = "one";
  EXPECT_TRUE(handler->OpenDevice(id));
  EXPECT_THAT(mounts(), ElementsAre("1 0 ", "2 0 ", "1 0 "));
  EXPECT_THAT(reports(), SizeIs(1));
}

TEST_F(MountPolicyTest, AsksForTheTypeAtTheMomentOfTheMount) {
  const auto id = plugInUnder("one 1 -\ntwo 2 -\n", "one");
  platform.onCall = [&](const std::string& event) {
    if (event == "free_probe " + node && journal().eventsBeginning("mkdir").size() == 1) {
      platform.disks[node].values["TYPE"] = "two";
    }
  };
  EXPECT_TRUE(handler->OpenDevice(id));
  EXPECT_THAT(mounts(), ElementsAre("2 0 "));
}

TEST_F(MountPolicyTest, TakesADiskThatCannotBeProbedForOneOfUnknownType) {
  struct Row {
    const char* description;
    std::function<void(FakePlatform::Disk&)> change;
  };
  const std::vector<Row> rows = {
      {"cannot be opened", [](auto& disk) { disk.opens = false; }},
      {"cannot be read", [](auto& disk) { disk.probeResult = -1; }},
      {"nothing found", [](auto& disk) { disk.probeResult = 1; }},
      {"no type", [](auto& disk) { disk.values.clear(); }},
  };
  for (const Row& row : rows) {
    const auto id = plugInUnder("vfat vfat -\n* any -\n", "vfat");
    row.change(platform.disks[node]);
    EXPECT_TRUE(handler->OpenDevice(id)) << row.description;
    EXPECT_THAT(mounts(), ElementsAre("any 0 ")) << row.description;
    EXPECT_LE(platform.liveProbes(), 1U) << row.description;
  }
}

TEST_F(MountPolicyTest, ReportsNothingIfThereIsNoDirectory) {
  const auto id = plugInUnder("vfat refuse -\n", "vfat");
  platform.mkdirError = ENOSPC;
  ::testing::internal::CaptureStdout();
  EXPECT_FALSE(handler->OpenDevice(id));
  ::testing::internal::GetCapturedStdout();
  EXPECT_THAT(mounts(), IsEmpty());
  EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(MountPolicyTest, PassesTheErrorOfMkdirOn) {
  const auto id = plugInUnder("vfat vfat -\n", "vfat");
  platform.mkdirError = ENOTDIR;
  ::testing::internal::CaptureStdout();
  EXPECT_FALSE(handler->OpenDevice(id));
  EXPECT_THAT(::testing::internal::GetCapturedStdout(), HasSubstr("is not, in fact, a directory"));
}

TEST_F(MountPolicyTest, LeavesARepairAlone) {
  for (const int error : {0, EINVAL, EBUSY, EROFS}) {
    failMounts(error);
    const auto id = plugInUnder("xfs refuse -\n", "xfs");
    TestableHandler withoutPolicy(platform);
    journal().clear();
    EXPECT_TRUE(withoutPolicy.RunDiskRepair(id));
    const auto without = journal().events();
    EXPECT_THAT(journal().eventsBeginning("mount "), SizeIs(1));
    // An opening on the same thread must not change the repair.
    EXPECT_FALSE(handler->OpenDevice(id));
    journal().clear();
    EXPECT_TRUE(handler->RunDiskRepair(id));
    EXPECT_EQ(journal().events(), without) << error;
  }
}

TEST_F(MountPolicyTest, JudgesAnOpeningInTheRepairsDirectoryLikeAnyOther) {
  const auto id = plugInUnder("xfs refuse -\n", "xfs");
  EXPECT_FALSE(handler->OpenDeviceAt(id, "/media/disk_tmp", false));
  EXPECT_THAT(journal().eventsBeginning("mount "), IsEmpty());
  EXPECT_THAT(reports(), SizeIs(1));
}

TEST_F(MountPolicyTest, KeepsAnOpeningApartFromARepairThatMountsMeanwhile) {
  const auto id = plugInUnder("xfs xfs nodev\n", "xfs");
  failMounts(EINVAL);
  std::promise<void> mountHangs;
  std::promise<void> repairIsDone;
  platform.onCall = [&](const std::string& event) {
    if (event == "mount " + node + " " + directory + " xfs 4 ") {
      mountHangs.set_value();
      repairIsDone.get_future().wait();
    }
  };
  std::thread repair([&] {
    mountHangs.get_future().wait();
    // As a repair does, without the handler's lock: it does not wait for the opening.
    policy->mkdir("/media/disk_tmp", 0775);
    EXPECT_EQ(policy->mount("/dev/usb_storage_sdc", "/media/disk_tmp", "xfs", 1034, "prjquota"), -1);
    EXPECT_EQ(errno, EINVAL);
    policy->rmdir("/media/disk_tmp");
    repairIsDone.set_value();
  });
  EXPECT_FALSE(handler->OpenDevice(id));
  repair.join();
  EXPECT_THAT(journal().eventsBeginning("mount "),
              ElementsAre("mount " + node + " " + directory + " xfs 4 ",
                          "mount /dev/usb_storage_sdc /media/disk_tmp xfs 40a prjquota"));
  EXPECT_THAT(reports(), ElementsAre(HasSubstr(node + " (xfs) is not mounted: as xfs")));
}

TEST_F(MountPolicyTest, ChangesNoCallOfAnOperationThatMountsNothing) {
  const auto eventsOf = [this](std::int16_t id) {
    ravel::rpc::ReturnValueWithString text;
    platform.files["/sys/block/sdb/removable"] = "1";
    platform.files["/tmp/sdb_bcdUSB.txt"] = "2.00";
    journal().clear();
    handler->GetDeviceLabel(text, id);
    handler->GetDeviceType(id);
    handler->GetDeviceUsbVersion(text, id);
    handler->GetDeviceCapacity(id);
    handler->PrepareDeviceForPvr(id);
    return journal().events();
  };
  const auto without = eventsOf(plugIn({"sdb"}, "vfat"));
  EXPECT_THAT(without, Contains(HasSubstr("sleep")));
  EXPECT_EQ(eventsOf(plugInUnder("* refuse -\n", "vfat")), without);
  EXPECT_EQ(platform.liveProbes(), 0U);
}

TEST_F(MountPolicyTest, MountsByTheRulesAlsoWhereItSawNoDirectoryMade) {
  plugInUnder("one 1 -\ntwo 2 -\n", "one");
  platform.disks["/dev/usb_storage_sdc"].values["TYPE"] = "two";
  setErrors({0, EINVAL, EINVAL});
  EXPECT_EQ(policy->mount(node, directory, "vfat", 0, ""), 0);
  // Nothing stays of the first opening.
  EXPECT_EQ(policy->mount("/dev/usb_storage_sdc", directory, "vfat", 0, ""), -1);
  EXPECT_EQ(errno, ENODEV);
  EXPECT_EQ(policy->mount(node, "/media/other", "vfat", 0, ""), -1);
  EXPECT_EQ(policy->mount(node, "/media/other", "ntfs", 0, ""), -1);
  EXPECT_THAT(journal().eventsBeginning("mount "),
              ElementsAre("mount " + node + " " + directory + " 1 0 ",
                          "mount /dev/usb_storage_sdc " + directory + " 2 0 ",
                          "mount " + node + " /media/other 1 0 "));
  policy->rmdir("/media/other");
  policy->rmdir("/media/other");
  EXPECT_THAT(reports(), ElementsAre(report("(one) is not mounted: as 1, by line 1 of the mount policy: " +
                                            std::string(std::strerror(EINVAL)))));
}

class MountPolicyFile : public MountPolicyTest {
 protected:
  MountPolicyFile() { platform.files[path] = "exfat exfat nodev\n"; }

  /// Why the policy cannot be made; empty if it is made.
  std::string reasonAgainst() {
    setenv("DOCKHAND_MOUNTS", path.c_str(), 1);
    try {
      EXPECT_NE(Dockhand::makeMountPolicy(system), nullptr);
      return "";
    } catch (const std::runtime_error& error) {
      return error.what();
    }
  }

  const std::string path = "/etc/dockhand/mounts";
};

TEST_F(MountPolicyFile, IsNotLookedAtWithoutTheVariable) {
  unsetenv("DOCKHAND_MOUNTS");
  EXPECT_EQ(Dockhand::makeMountPolicy(system), nullptr);
  setenv("DOCKHAND_MOUNTS", "", 1);
  EXPECT_EQ(Dockhand::makeMountPolicy(system), nullptr);
  EXPECT_THAT(journal().events(), IsEmpty());
}

TEST_F(MountPolicyFile, IsReadOnceAndFollowed) {
  setenv("DOCKHAND_MOUNTS", path.c_str(), 1);
  policy = Dockhand::makeMountPolicy(system);
  EXPECT_THAT(journal().events(), ElementsAre("open " + path, "read " + path + " 4096",
                                              "read " + path + " 4096", "close " + path));
  EXPECT_EQ(platform.openFlags.at(path), O_RDONLY | O_NONBLOCK);
  handler = std::make_unique<TestableHandler>(*policy);
  EXPECT_TRUE(handler->OpenDevice(plugIn({"sdb"}, "exfat")));
  EXPECT_THAT(mounts(), ElementsAre("exfat 4 "));
}

TEST_F(MountPolicyFile, MustBeRootsAlone) {
  using File = SystemWithFiles::File;
  const std::string wanted = "it must be root's, and only root may write to it";
  struct Row {
    File file;
    std::string reason;
  };
  const std::vector<Row> rows = {
      {{S_IFREG | 0644, 0, {}, {}, 0}, ""},
      {{S_IFREG | 0400, 0, {}, {}, 0}, ""},
      {{S_IFREG | 0755, 0, {}, {}, 0}, ""},
      {{S_IFREG | 0664, 0, {}, {}, 0}, wanted},
      {{S_IFREG | 0646, 0, {}, {}, 0}, wanted},
      {{S_IFREG | 0644, 1000, {}, {}, 0}, wanted},
      {{S_IFIFO | 0644, 0, {}, {}, 0}, "it is not a regular file"},
      {{S_IFCHR | 0644, 0, {}, {}, 0}, "it is not a regular file"},
      {{S_IFDIR | 0755, 0, {}, {}, 0}, "it is not a regular file"},
      {{S_IFREG | 0644, 0, {}, {}, EIO}, "Input/output error"},
  };
  for (const Row& row : rows) {
    system.status[""] = row.file;
    const std::string text = "mount policy \"/etc/dockhand/mounts\": " + row.reason;
    EXPECT_EQ(reasonAgainst(), row.reason.empty() ? "" : text) << std::oct << row.file.mode;
  }
}

TEST_F(MountPolicyFile, EndsTheStartIfItCannotBeReadOrHasABadLine) {
  const std::string text = "mount policy \"/etc/dockhand/mounts\": ";
  platform.files[path] = "exfat exfat -\nvfat\n";
  EXPECT_EQ(reasonAgainst(),
            text + "line 2: a row has three columns, TYPE MOUNT-AS OPTIONS, and this one has 1");
  platform.files[path] = "vfat vfat gid=no-such-group\n";
  EXPECT_EQ(reasonAgainst(), text + "line 1: there is no group \"no-such-group\"");
  platform.readErrors[path] = EISDIR;
  EXPECT_EQ(reasonAgainst(), text + "Is a directory");
  platform.readErrors.clear();
  platform.files.erase(path);
  EXPECT_EQ(reasonAgainst(), text + "No such file or directory");
}

TEST_F(MountPolicyFile, IsReadNoFurtherThanItsLimit) {
  platform.files[path] = "vfat vfat -\n#" + std::string(16384 - 14, 'x') + "\n";
  ASSERT_EQ(platform.files[path].size(), 16384U);
  EXPECT_EQ(reasonAgainst(), "");
  platform.files[path] += std::string(1 << 20, '\n');
  journal().clear();
  EXPECT_EQ(reasonAgainst(), "mount policy \"/etc/dockhand/mounts\": more than 16384 bytes");
  EXPECT_THAT(journal().eventsBeginning("read "), SizeIs(5));
}

TEST_F(MountPolicyFile, MayBeOpenedAsDescriptorZero) {
  platform.nextDescriptor = 0;
  EXPECT_EQ(reasonAgainst(), "");
}

}  // namespace
