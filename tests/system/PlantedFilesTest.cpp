// An unprivileged user puts files where the daemon's shell will write, in /tmp. Some kernels keep root from
// using such files (fs.protected_*); these tests do not rely on that.

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "SystemLog.h"
#include "SystemTest.h"
#include "Users.h"

namespace systest {
namespace {

namespace fs = std::filesystem;

const User planter{4801, 4801, {}};

/// The descriptor that gets the requests to the silent file system; -1: none.
int silentFileSystem = -1;

const std::string logFile = "/tmp/Dockhand.log";
const std::string versionFile = "/tmp/sda_bcdUSB.txt";
/// The target of planted links.
const std::string rootsFile = "/tmp/roots_file";
const std::string rootsWords = "root's own words\n";
const std::string noFile = "/tmp/no_file";

/// Puts a file of this type at a path.
struct Plant {
  using IsRow = void;
  std::string name;
  fs::file_type type;
  std::function<bool(const char*)> put;
};

bool asPlanter(const std::function<bool()>& action) {
  return runAs(planter, [&] { return action() ? 0 : 1; }) == 0;
}

bool putFile(const char* path, mode_t mode) {
  const int file = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  return file >= 0 && write(file, "forged\n", 7) == 7 && close(file) == 0;
}

const std::vector<Plant> plants = {
    {"LinkToAFile", fs::file_type::symlink,
     [](const char* path) { return asPlanter([=] { return symlink(rootsFile.c_str(), path) == 0; }); }},
    {"LinkToNothing", fs::file_type::symlink,
     [](const char* path) { return asPlanter([=] { return symlink(noFile.c_str(), path) == 0; }); }},
    // Made by root, because most kernels let nobody else make one. The daemon cannot tell who did.
    {"HardLink", fs::file_type::regular, [](const char* path) { return link(rootsFile.c_str(), path) == 0; }},
    {"Fifo", fs::file_type::fifo,
     [](const char* path) { return asPlanter([=] { return mkfifo(path, 0666) == 0; }); }},
    {"File", fs::file_type::regular,
     [](const char* path) { return asPlanter([=] { return putFile(path, 0666); }); }},
    {"FileThatOnlyItsOwnerWrites", fs::file_type::regular,
     [](const char* path) { return asPlanter([=] { return putFile(path, 0644); }); }},
    {"Directory", fs::file_type::directory,
     [](const char* path) {
       return asPlanter(
           [=] { return mkdir(path, 0777) == 0 && putFile((std::string(path) + "/inside").c_str(), 0644); });
     }},
};

class PlantedFilesTest : public SystemTest {
 protected:
  void SetUp() override {
    SystemTest::SetUp();
    if (IsSkipped()) {
      return;
    }
    removeOwnFiles();
    makeTool("xfs_repair", "echo repaired\ntouch /tmp/ran\n");
    makeTool("readUsbVersion.sh", "echo 2.00\ntouch /tmp/ran\n");
    writeFile(rootsFile, rootsWords);
    fs::permissions(rootsFile, fs::perms::owner_read | fs::perms::owner_write);
  }

  void TearDown() override {
    if (!IsSkipped()) {
      removeOwnFiles();
    }
    SystemTest::TearDown();
  }

  static StickOptions recordingDisk() {
    StickOptions options;
    options.mkfs = {"mkfs.xfs", "-q", "-f"};
    options.bytes = std::uint64_t{320} << 20;
    return options;
  }

  /// The directories that planted files at `path` were moved into.
  static std::vector<std::string> placesOfMoved(const std::string& path) {
    std::vector<std::string> places;
    const std::string beginning = fs::path(path).filename().string() + ".moved-";
    for (const std::string& name : namesIn("/tmp")) {
      if (name.rfind(beginning, 0) == 0) {
        places.push_back("/tmp/" + name);
      }
    }
    return places;
  }

  /// The planted file was moved aside unchanged, and the target of a link is unchanged too.
  static void expectMovedUnharmed(const Plant& plant, const std::string& path) {
    EXPECT_EQ(readFile(rootsFile), rootsWords);
    EXPECT_FALSE(fs::exists(noFile));
    const std::vector<std::string> places = placesOfMoved(path);
    ASSERT_EQ(places.size(), 1U);
    struct stat status {};
    ASSERT_EQ(stat(places[0].c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, 0U);
    EXPECT_EQ(status.st_mode & 07777U, 0700U);
    const fs::path moved = fs::path(places[0]) / fs::path(path).filename();
    EXPECT_EQ(fs::symlink_status(moved).type(), plant.type);
    if (plant.name == "File" || plant.name == "FileThatOnlyItsOwnerWrites") {
      EXPECT_EQ(readFile(moved), "forged\n");
    }
    if (plant.type == fs::file_type::directory) {
      EXPECT_EQ(readFile(moved / "inside"), "forged\n");
    }
  }

  static void removeOwnFiles() {
    umount2(logFile.c_str(), MNT_DETACH);
    umount2(versionFile.c_str(), MNT_DETACH);
    for (const std::string& path : {logFile, versionFile, rootsFile, noFile}) {
      fs::remove_all(path);
      for (const std::string& place : placesOfMoved(path)) {
        fs::remove_all(place);
      }
    }
  }
};

class PlantedLogFileTest : public PlantedFilesTest, public testing::WithParamInterface<Plant> {};

TEST_P(PlantedLogFileTest, IsMovedAsideAndTheToolRuns) {
  SystemLog systemLog;
  const Stick stick(recordingDisk());
  const Daemon daemon(withTools());
  ASSERT_TRUE(GetParam().put(logFile.c_str()));
  UsbClient client;
  EXPECT_TRUE(client->RunDiskRepair(1)) << daemon.log();

  expectMovedUnharmed(GetParam(), logFile);
  EXPECT_EQ(readFile(logFile), "repaired\n");
  struct stat status {};
  ASSERT_EQ(lstat(logFile.c_str(), &status), 0);
  EXPECT_TRUE(S_ISREG(status.st_mode));
  EXPECT_EQ(status.st_uid, 0U);
  EXPECT_EQ(status.st_mode & 07777U, 0644U);
  EXPECT_THAT(systemLog.text(), HasSubstr("Dockhand: repaired"));
  EXPECT_THAT(systemLog.text(), Not(HasSubstr("root's own words")));
  EXPECT_THAT(systemLog.text(), Not(HasSubstr("forged")));
  EXPECT_THAT(daemon.log(), HasSubstr(logFile + " was not ours and has been moved aside"));
}

INSTANTIATE_TEST_SUITE_P(Kinds, PlantedLogFileTest, testing::ValuesIn(plants), nameOf<Plant>);

class PlantedVersionFileTest : public PlantedFilesTest, public testing::WithParamInterface<Plant> {};

TEST_P(PlantedVersionFileTest, IsMovedAsideAndTheVersionIsTheScripts) {
  const Stick stick({});
  const Daemon daemon(withTools());
  ASSERT_TRUE(GetParam().put(versionFile.c_str()));
  UsbClient client;
  const ravel::rpc::ReturnValueWithString version = client.usbVersion(1);
  EXPECT_TRUE(version.success) << daemon.log();
  EXPECT_EQ(version.text, "2.00");

  expectMovedUnharmed(GetParam(), versionFile);
  EXPECT_FALSE(fs::exists(fs::symlink_status(versionFile)));
  EXPECT_THAT(daemon.log(), HasSubstr(versionFile + " was not ours and has been moved aside"));
}

INSTANTIATE_TEST_SUITE_P(Kinds, PlantedVersionFileTest, testing::ValuesIn(plants), nameOf<Plant>);

TEST_F(PlantedFilesTest, LogFileThatTheDaemonHasMadeIsUsedAgainAndOutOfAUsersReach) {
  auto [stick, daemon, client] = serve(recordingDisk(), withTools());
  ASSERT_TRUE(client->RunDiskRepair(1)) << daemon.log();
  struct stat first {};
  ASSERT_EQ(lstat(logFile.c_str(), &first), 0);
  EXPECT_FALSE(asPlanter([] { return unlink(logFile.c_str()) == 0; }));
  EXPECT_FALSE(asPlanter([] { return rename(logFile.c_str(), noFile.c_str()) == 0; }));
  EXPECT_FALSE(asPlanter([] { return truncate(logFile.c_str(), 0) == 0; }));

  makeTool("xfs_repair", "echo again\n");
  ASSERT_TRUE(client->RunDiskRepair(1)) << daemon.log();
  struct stat second {};
  ASSERT_EQ(lstat(logFile.c_str(), &second), 0);
  EXPECT_EQ(second.st_ino, first.st_ino);
  EXPECT_EQ(readFile(logFile), "again\n");
  EXPECT_THAT(placesOfMoved(logFile), IsEmpty());
}

/// A mount, which cannot be moved. A user makes it with fusermount on a file or directory of their own; here
/// root makes it.
struct MountPlant {
  using IsRow = void;
  std::string name;
  std::function<void(const std::string& path)> put;
};

const std::string fuseNode = "/dev/fuse";

/// A file that looks like root's, on a file system that never replies.
void mountSilentFile(const std::string& path) {
  ASSERT_TRUE(asPlanter([&] { return putFile(path.c_str(), 0644); }));
  ASSERT_EQ(mknod(fuseNode.c_str(), S_IFCHR | 0600, makedev(10, 229)), 0);
  const int descriptor = open(fuseNode.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(descriptor, 0);
  const std::string options =
      "fd=" + std::to_string(descriptor) + ",rootmode=100644,user_id=0,group_id=0,allow_other";
  ASSERT_EQ(mount("silent", path.c_str(), "fuse", MS_NOSUID | MS_NODEV, options.c_str()), 0);
  // Keep it open, because a closed one makes every access fail at once.
  silentFileSystem = descriptor;
}

const std::vector<MountPlant> mountPlants = {
    {"OverADirectory",
     [](const std::string& path) {
       ASSERT_TRUE(asPlanter([&] { return mkdir(path.c_str(), 0755) == 0; }));
       ASSERT_EQ(mount("planted", path.c_str(), "tmpfs", 0, "mode=0777"), 0);
       ASSERT_TRUE(asPlanter([&] { return putFile((path + "/inside").c_str(), 0644); }));
     }},
    {"OverAFile",
     [](const std::string& path) {
       writeFile(rootsFile, rootsWords);
       ASSERT_TRUE(asPlanter([&] { return putFile(path.c_str(), 0644); }));
       ASSERT_EQ(mount(rootsFile.c_str(), path.c_str(), nullptr, MS_BIND, nullptr), 0);
     }},
    {"OverAFileAndNeverAnswers", mountSilentFile},
};

class MountedPlantTest : public PlantedFilesTest, public testing::WithParamInterface<MountPlant> {
 protected:
  void SetUp() override {
    if (GetParam().name == "OverAFileAndNeverAnswers" && !kernelKnowsFileSystem("fuse")) {
      GTEST_SKIP() << "the kernel knows no file systems of users";
    }
    PlantedFilesTest::SetUp();
  }
  void TearDown() override {
    if (silentFileSystem >= 0) {
      // Waiting accesses fail now.
      close(silentFileSystem);
      silentFileSystem = -1;
    }
    fs::remove(fuseNode);
    PlantedFilesTest::TearDown();
  }
};

TEST_P(MountedPlantTest, KeepsToolsFromBeingRunWhileItIsTheLogFile) {
  const Stick stick(recordingDisk());
  const Daemon daemon(withTools());
  GetParam().put(logFile);
  UsbClient client;
  EXPECT_FALSE(client->RunDiskRepair(1));
  EXPECT_FALSE(fs::exists("/tmp/ran"));
  EXPECT_THAT(daemon.log(), HasSubstr("Not executed, since " + logFile + " is not ours"));
  EXPECT_EQ(mountsAt(logFile).size(), 1U);
  EXPECT_EQ(readFile(rootsFile), rootsWords);
  EXPECT_THAT(placesOfMoved(logFile), IsEmpty());

  // Without the mount, the daemon works again.
  ASSERT_EQ(umount(logFile.c_str()), 0);
  EXPECT_TRUE(client->RunDiskRepair(1));
}

TEST_P(MountedPlantTest, KeepsTheVersionFromBeingReadWhileItIsItsFile) {
  const Stick stick({});
  const Daemon daemon(withTools());
  GetParam().put(versionFile);
  UsbClient client;
  EXPECT_FALSE(client.usbVersion(1).success);
  EXPECT_FALSE(fs::exists("/tmp/ran"));
  EXPECT_THAT(daemon.log(), HasSubstr("Not executed, since " + versionFile + " is not ours"));
  EXPECT_EQ(mountsAt(versionFile).size(), 1U);
  EXPECT_EQ(readFile(rootsFile), rootsWords);

  ASSERT_EQ(umount(versionFile.c_str()), 0);
  EXPECT_EQ(client.usbVersion(1).text, "2.00");
}

INSTANTIATE_TEST_SUITE_P(Kinds, MountedPlantTest, testing::ValuesIn(mountPlants), nameOf<MountPlant>);

TEST_F(PlantedFilesTest, UsersCanPutNothingWhereSticksAreMounted) {
  auto [stick, daemon, client] = serve({}, withTools());
  const auto plantFails = [](const std::string& path) {
    return asPlanter([&] {
      return symlink("/etc", path.c_str()) == -1 && errno == EACCES && mkdir(path.c_str(), 0755) == -1 &&
             errno == EACCES && !putFile(path.c_str(), 0644);
    });
  };
  EXPECT_TRUE(plantFails("/media/disk_1"));
  ASSERT_TRUE(client->OpenDevice(1));
  // They cannot remove the mounted stick either.
  EXPECT_TRUE(asPlanter([] { return umount2("/media/disk_1", MNT_DETACH) == -1 && errno == EPERM; }));
  EXPECT_TRUE(asPlanter([] { return rename("/media/disk_1", "/media/mine") == -1; }));
  EXPECT_EQ(mountsAt("/media/disk_1").size(), 1U);
  ASSERT_TRUE(client->CloseDevice(1));
  EXPECT_TRUE(plantFails("/media/disk_1"));
  EXPECT_TRUE(plantFails("/media/disk_tmp"));
}

}  // namespace
}  // namespace systest
