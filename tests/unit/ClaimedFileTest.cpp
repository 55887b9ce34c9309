// Claiming a file, in a directory of the test's own. Files of other users are in the system tests.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "ClaimedFile.h"
#include "Emulator.h"
#include "FakePlatform.h"
#include "Journal.h"
#include "LinuxPlatform.h"

namespace fs = std::filesystem;
using Dockhand::Claim;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

namespace {

Claim claimFile(const std::string& path) {
  static Dockhand::LinuxPlatform platform;
  return Dockhand::claimFile(platform, path);
}

class ClaimedFile : public ::testing::Test {
 protected:
  ClaimedFile() {
    std::string name = fs::temp_directory_path() / "dockhand-claim-XXXXXX";
    EXPECT_NE(mkdtemp(name.data()), nullptr);
    directory = name;
    file = directory / "log";
  }
  ~ClaimedFile() override { fs::remove_all(directory); }

  static void write(const fs::path& path, const std::string& text) { std::ofstream(path) << text; }
  static std::string read(const fs::path& path) {
    std::ifstream stream(path);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
  }
  static mode_t modeOf(const fs::path& path) {
    struct stat status {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777U;
  }
  /// The new paths of files that were moved aside.
  std::vector<fs::path> moved() const {
    std::vector<fs::path> found;
    for (const auto& entry : fs::recursive_directory_iterator(directory)) {
      if (entry.path().parent_path().filename().string().rfind("log.moved-", 0) == 0) {
        found.push_back(entry.path());
      }
    }
    return found;
  }
  /// Claims the file: it is new, and the former one, of type `type`, was moved aside.
  void expectMovedAside(fs::file_type type) const {
    EXPECT_EQ(claimFile(file), Claim::movedAside);
    ASSERT_TRUE(fs::is_regular_file(fs::symlink_status(file)));
    EXPECT_EQ(read(file), "");
    ASSERT_EQ(moved().size(), 1U);
    EXPECT_EQ(moved()[0].filename(), "log");
    EXPECT_EQ(fs::symlink_status(moved()[0]).type(), type);
    EXPECT_EQ(modeOf(moved()[0].parent_path()), 0700U);
    // The next claim moves nothing.
    EXPECT_EQ(claimFile(file), Claim::ours);
  }

  fs::path directory;
  fs::path file;
};

TEST_F(ClaimedFile, IsMadeIfThePathIsFree) {
  EXPECT_EQ(claimFile(file), Claim::ours);
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(file)));
}

TEST_F(ClaimedFile, IsWritableForUsOnlyWhateverTheUmask) {
  const mode_t before = umask(0);
  EXPECT_EQ(claimFile(file), Claim::ours);
  umask(before);
  EXPECT_EQ(modeOf(file), 0644U);
}

TEST_F(ClaimedFile, IsKeptWithItsContentIfItIsAlreadyOurs) {
  write(file, "what the last tool said");
  chmod(file.c_str(), 0600);
  EXPECT_EQ(claimFile(file), Claim::ours);
  EXPECT_EQ(read(file), "what the last tool said");
  EXPECT_EQ(modeOf(file), 0600U);
  EXPECT_THAT(moved(), IsEmpty());
}

TEST_F(ClaimedFile, TakesThePlaceOfAFileThatMayBeSomeoneElses) {
  struct Row {
    const char* description;
    fs::file_type type;
    std::function<void(const fs::path& target)> put;
    /// Whether the target exists, with its content.
    bool hasTarget = false;
  };
  const auto putWritable = [this](mode_t mode) {
    write(file, "precious");
    ASSERT_EQ(chmod(file.c_str(), mode), 0);
  };
  for (const Row& row : {
           Row{"link", fs::file_type::symlink, [&](auto& target) { fs::create_symlink(target, file); }, true},
           Row{"link to nothing", fs::file_type::symlink,
               [&](auto& target) { fs::create_symlink(target, file); }},
           Row{"second name", fs::file_type::regular,
               [&](auto& target) { fs::create_hard_link(target, file); }, true},
           Row{"fifo", fs::file_type::fifo, [&](auto&) { ASSERT_EQ(mkfifo(file.c_str(), 0600), 0); }},
           Row{"group may write", fs::file_type::regular, [&](auto&) { putWritable(0664); }},
           Row{"others may write", fs::file_type::regular, [&](auto&) { putWritable(0646); }},
       }) {
    SCOPED_TRACE(row.description);
    fs::remove_all(directory);
    fs::create_directory(directory);
    const fs::path target = directory / "target";
    if (row.hasTarget) {
      write(target, "precious");
    }
    row.put(target);
    expectMovedAside(row.type);
    EXPECT_EQ(fs::exists(target), row.hasTarget);
    if (row.type == fs::file_type::regular || row.hasTarget) {
      EXPECT_EQ(read(row.hasTarget ? target : moved()[0]), "precious");
    }
  }
}

TEST_F(ClaimedFile, TakesThePlaceOfADirectory) {
  fs::create_directory(file);
  write(file / "inside", "precious");
  EXPECT_EQ(claimFile(file), Claim::movedAside);
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(file)));
  ASSERT_THAT(moved(), SizeIs(1));
  EXPECT_EQ(read(moved()[0] / "inside"), "precious");
}

TEST_F(ClaimedFile, IsNotMadeInAMissingDirectory) {
  file = directory / "none" / "log";
  EXPECT_EQ(claimFile(file), Claim::ours);
  EXPECT_FALSE(fs::exists(directory / "none"));
}

TEST_F(ClaimedFile, IsRefusedIfTheFormerFileCannotBeMoved) {
  const fs::path parent = directory / "parent";
  fs::create_directory(parent);
  // The name of the directory for it would be too long.
  file = parent / std::string(NAME_MAX - 5, 'n');
  fs::create_symlink(directory / "target", file);
  EXPECT_EQ(claimFile(file), Claim::refused);
  EXPECT_TRUE(fs::is_symlink(file));
  EXPECT_EQ(std::distance(fs::directory_iterator(parent), fs::directory_iterator()), 1);
}

TEST_F(ClaimedFile, IsOursEvenIfSeveralThreadsClaimItAtOnce) {
  for (int round = 0; round < 50; ++round) {
    fs::remove_all(directory);
    fs::create_directory(directory);
    fs::create_symlink(directory / "target", file);
    std::atomic<int> movers{0};
    std::atomic<int> owners{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&] {
        const Claim claim = claimFile(file);
        movers += claim == Claim::movedAside ? 1 : 0;
        owners += claim == Claim::ours ? 1 : 0;
      });
    }
    std::for_each(threads.begin(), threads.end(), [](std::thread& thread) { thread.join(); });
    EXPECT_EQ(movers, 1);
    EXPECT_EQ(owners, 3);
    EXPECT_THAT(moved(), SizeIs(1));
  }
}

TEST_F(ClaimedFile, IsOursOrRefusedWhileSomeoneKeepsReplacingItByALink) {
  std::atomic<bool> done{false};
  std::thread planter([&] {
    while (!done) {
      static_cast<void>(symlink((directory / "target").c_str(), file.c_str()));
    }
  });
  for (int round = 0; round < 200; ++round) {
    const Claim claim = claimFile(file);
    if (claim == Claim::ours || claim == Claim::movedAside) {
      EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(file)));
    }
    for (const fs::path& link : moved()) {
      fs::remove_all(link.parent_path());
    }
    EXPECT_FALSE(fs::exists(directory / "target"));
    unlink(file.c_str());
  }
  done = true;
  planter.join();
}

TEST_F(ClaimedFile, IsRefusedWhileSixteenFormerFilesAreKept) {
  for (int round = 0; round < 16; ++round) {
    fs::create_symlink(directory / "target", file);
    EXPECT_EQ(claimFile(file), Claim::movedAside) << round;
    fs::remove(file);
  }
  fs::create_symlink(directory / "target", file);
  EXPECT_EQ(claimFile(file), Claim::tooManyMoved);
  EXPECT_TRUE(fs::is_symlink(file));
  EXPECT_THAT(moved(), SizeIs(16));
  // Another file can still be claimed.
  EXPECT_EQ(claimFile(directory / "other"), Claim::ours);

  fs::remove_all(moved()[7].parent_path());
  EXPECT_EQ(claimFile(file), Claim::movedAside);
}

TEST_F(ClaimedFile, CountsOnlyOurOwnDirectoriesAsMovedAside) {
  for (int i = 0; i < 20; ++i) {
    const std::string number = std::to_string(i);
    write(directory / ("log.moved-file" + number), "");
    fs::create_directory(directory / ("log.move" + number));
    fs::create_directory(directory / ("a_log.moved-" + number));
    const fs::path users = directory / ("log.moved-user" + number);
    fs::create_directory(users);
    // Only root can give a directory away.
    if (chown(users.c_str(), 4801, 4801) != 0) {
      fs::remove(users);
    }
  }
  fs::create_symlink(directory / "target", file);
  EXPECT_EQ(claimFile(file), Claim::movedAside);
}

/// Mounts at the path of the file. Each claim runs in a thread with its own mount namespace.
class MountedOver : public ClaimedFile, public ::testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "only root may mount";
    }
    if (beforeLinux58() && isEmulated()) {
      GTEST_SKIP() << "QEMU refuses no system call on request";
    }
  }
  static bool beforeLinux58() { return GetParam(); }

  /// The claim of the file after these mounts.
  Claim claimAfter(const std::function<void()>& mountAll) const {
    std::future<Claim> claim = std::async(std::launch::async, [&] {
      EXPECT_EQ(unshare(CLONE_NEWNS), 0);
      EXPECT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
      mountAll();
      if (beforeLinux58()) {
        refuseStatx();
      }
      return claimFile(file);
    });
    const bool waits = claim.wait_for(std::chrono::seconds(20)) == std::future_status::timeout;
    EXPECT_FALSE(waits);
    // Waiting accesses fail now.
    close(fuse);
    return claim.get();
  }
  /// Makes statx fail with ENOSYS in this thread.
  static void refuseStatx() {
    sock_filter program[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                             BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_statx, 0, 1),
                             BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
                             BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    const sock_fprog filter = {4, program};
    EXPECT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    EXPECT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter), 0);
  }
  /// A file system that never replies. The kernel knows only this mode of its root.
  void mountSilent(const fs::path& target, const std::string& mode) {
    fuse = open("/dev/fuse", O_RDWR | O_CLOEXEC);
    const std::string options =
        "fd=" + std::to_string(fuse) + ",rootmode=" + mode + ",user_id=0,group_id=0,allow_other";
    EXPECT_EQ(mount("silent", target.c_str(), "fuse", MS_NOSUID | MS_NODEV, options.c_str()), 0);
  }

  int fuse = -1;
};

TEST_P(MountedOver, AFileThatLooksLikeOursIsNotOurs) {
  write(directory / "target", "precious");
  write(file, "planted");
  const auto mountTarget = [this] {
    EXPECT_EQ(mount((directory / "target").c_str(), file.c_str(), nullptr, MS_BIND, nullptr), 0);
  };
  EXPECT_EQ(claimAfter(mountTarget), Claim::refused);
  EXPECT_EQ(read(file), "planted");
  EXPECT_THAT(moved(), IsEmpty());
}

TEST_P(MountedOver, AFileOnAFileSystemThatNeverRepliesIsNotWaitedFor) {
  write(file, "planted");
  EXPECT_EQ(claimAfter([this] { mountSilent(file, "100644"); }), Claim::refused);
  EXPECT_EQ(read(file), "planted");
  EXPECT_THAT(moved(), IsEmpty());
}

TEST_P(MountedOver, ADirectoryStays) {
  fs::create_directory(file);
  const auto mountDirectory = [this] { EXPECT_EQ(mount("planted", file.c_str(), "tmpfs", 0, nullptr), 0); };
  EXPECT_EQ(claimAfter(mountDirectory), Claim::refused);
  EXPECT_THAT(moved(), IsEmpty());
}

TEST_P(MountedOver, ADirectoryIsNotWaitedForAndNotCountedAsMovedAside) {
  for (int i = 0; i < 16; ++i) {
    fs::create_directory(directory / ("log.moved-" + std::to_string(i)));
  }
  fs::create_symlink(directory / "target", file);
  EXPECT_EQ(claimAfter([this] { mountSilent(directory / "log.moved-7", "40755"); }), Claim::movedAside);
  EXPECT_THAT(moved(), SizeIs(1));
}

TEST_P(MountedOver, FilesWithoutAMountAreJudgedAsUsual) {
  const auto mountNothing = [] {};
  EXPECT_EQ(claimAfter(mountNothing), Claim::ours);
  write(file, "what the last tool said");
  EXPECT_EQ(claimAfter(mountNothing), Claim::ours);
  EXPECT_EQ(read(file), "what the last tool said");
  fs::create_hard_link(file, directory / "target");
  EXPECT_EQ(claimAfter(mountNothing), Claim::movedAside);
  fs::remove(file);
  fs::create_symlink(directory / "target", file);
  EXPECT_EQ(claimAfter(mountNothing), Claim::movedAside);
  ASSERT_EQ(chmod(file.c_str(), 0666), 0);
  EXPECT_EQ(claimAfter(mountNothing), Claim::movedAside);
  ASSERT_EQ(chown(file.c_str(), 4801, 4801), 0);
  EXPECT_EQ(claimAfter(mountNothing), Claim::movedAside);
  EXPECT_EQ(claimAfter(mountNothing), Claim::ours);
  file = directory / "none" / "log";
  EXPECT_EQ(claimAfter(mountNothing), Claim::ours);
}

TEST_P(MountedOver, NothingIsOursOrMovedWithoutAFreeDescriptor) {
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const auto claimWithoutDescriptors = [&] {
    const Claim claim = claimAfter([&before] {
      const rlimit none{0, before.rlim_max};
      EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    });
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    return claim;
  };
  write(file, "what the last tool said");
  // statx needs no descriptor.
  EXPECT_EQ(claimWithoutDescriptors(), beforeLinux58() ? Claim::refused : Claim::ours);
  EXPECT_EQ(read(file), "what the last tool said");
  fs::remove(file);
  // The files that were moved aside cannot be counted.
  fs::create_symlink(directory / "target", file);
  EXPECT_EQ(claimWithoutDescriptors(), Claim::refused);
  EXPECT_TRUE(fs::is_symlink(file));
  EXPECT_THAT(moved(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Kernels, MountedOver, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& kernel) {
                           return kernel.param ? "Before58" : "Today";
                         });

// Over a fake system: what a race or an old kernel brings about.

class ClaimSteps : public ::testing::Test {
 protected:
  ClaimSteps() { journal().clear(); }
  ~ClaimSteps() override { EXPECT_EQ(platform.openDescriptors(), 0U); }

  Claim claim() { return Dockhand::claimFile(platform, file); }

  const std::string file = "/tmp/log";
  FakePlatform platform;
};

TEST_F(ClaimSteps, RemoveTheNewDirectoryIfNothingWasMovedIntoIt) {
  for (const auto& [error, result] :
       std::map<int, Claim>{{ENOENT, Claim::movedAside}, {EBUSY, Claim::refused}}) {
    platform.claims[file] = Claim::movedAside;
    platform.renameError = error;
    platform.onCall = [&](const std::string& event) {
      if (event.rfind("rmdir ", 0) == 0) {
        platform.claims.clear();
      }
    };
    journal().clear();
    EXPECT_EQ(claim(), result);
    EXPECT_THAT(
        journal().events(),
        ElementsAre("statx /tmp/log", "opendir /tmp/", "closedir /tmp/", "mkdtemp /tmp/log.moved-XXXXXX",
                    "rename /tmp/log /tmp/log.moved-XXXXXX/log", "rmdir /tmp/log.moved-XXXXXX"));
  }
}

TEST_F(ClaimSteps, AreTriedTwentyTimesWhileSomeoneElseMakesTheFile) {
  platform.statxErrors[file] = ENOENT;
  platform.mknodError = EEXIST;
  EXPECT_EQ(claim(), Claim::refused);
  EXPECT_THAT(journal().eventsBeginning("mknod /tmp/log 100644"), SizeIs(20));
}

TEST_F(ClaimSteps, AreDoneOnceTheFileIsMadeWhateverErrnoWas) {
  platform.statxErrors[file] = ENOENT;
  platform.onCall = [](const std::string&) { errno = EEXIST; };
  EXPECT_EQ(claim(), Claim::ours);
  EXPECT_THAT(journal().eventsBeginning("mknod"), SizeIs(1));
}

TEST_F(ClaimSteps, LeaveTheErrorToWhoeverOpensAFileThatCannotBeMade) {
  platform.statxErrors[file] = ENOENT;
  platform.mknodError = EACCES;
  EXPECT_EQ(claim(), Claim::ours);
  EXPECT_THAT(journal().eventsBeginning("mknod"), SizeIs(1));
}

TEST_F(ClaimSteps, CompareTheMountsOfFileAndDirectoryWhereStatxDoesNotKnowThem) {
  struct Row {
    const char* ofFile;
    const char* ofDirectory;
    Claim result;
  };
  for (const Row& row : {Row{"mnt_id:\t21", "mnt_id:\t21", Claim::ours},
                         Row{"mnt_id:\t21", "mnt_id:\t22", Claim::refused}, Row{"", "", Claim::refused}}) {
    platform.statxKnowsMounts = false;
    platform.nextDescriptor = 0;
    platform.files = {{file, ""}, {"/tmp/", ""}};
    platform.files["/proc/self/fdinfo/0"] = std::string("pos:\t0\n") + row.ofFile + "\n";
    platform.files["/proc/self/fdinfo/2"] = std::string("pos:\t0\n") + row.ofDirectory + "\n";
    EXPECT_EQ(claim(), row.result);
    EXPECT_EQ(platform.openFlags.at(file), O_PATH | O_NOFOLLOW);
    EXPECT_EQ(platform.openFlags.at("/tmp/"), O_PATH | O_DIRECTORY);
    EXPECT_EQ(platform.openFlags.at("/proc/self/fdinfo/0"), O_RDONLY);
    EXPECT_THAT(journal().eventsBeginning("read /proc/self/fdinfo/0 256"), Not(IsEmpty()));
    EXPECT_EQ(platform.openDescriptors(), 0U);
  }
}

}  // namespace
