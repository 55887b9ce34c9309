// The real platform, in a private directory and without mounts.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "LinuxPlatform.h"
#include "ModuleLog.h"
#include "Sleep.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

namespace {

class LinuxPlatformTest : public ::testing::Test {
 protected:
  LinuxPlatformTest() {
    std::array<char, 32> name{"/tmp/dockhand-test-XXXXXX"};
    EXPECT_NE(mkdtemp(name.data()), nullptr);
    directory_ = name.data();
  }
  ~LinuxPlatformTest() override { std::filesystem::remove_all(directory_); }

  std::string path(const std::string& name) const { return directory_ + "/" + name; }
  std::string makeFile(const std::string& name, const std::string& content = "") const {
    std::ofstream(path(name)) << content;
    return path(name);
  }

  /// A regular file with the part of an ext2 superblock that libblkid reads.
  std::string makeExt2Image(const std::string& label) const {
    std::string image(64 * 1024, '\0');
    constexpr std::size_t superblock = 1024;
    image.replace(superblock + 56, 2, "\x53\xEF");
    image.replace(superblock + 104, 16, "0123456789ABCDEF");
    image.replace(superblock + 120, label.size(), label);
    return makeFile("image", image);
  }

  /// errno of a call that fails.
  static int errorOf(const std::function<bool()>& fails) {
    errno = 0;
    EXPECT_TRUE(fails());
    return errno;
  }

  Dockhand::LinuxPlatform platform_;
  std::string directory_;
};

TEST_F(LinuxPlatformTest, MakesAndRemovesDirectories) {
  const mode_t mask = umask(0);
  EXPECT_EQ(platform_.mkdir(path("made"), 0775), 0);
  umask(mask);
  struct stat status {};
  ASSERT_EQ(stat(path("made").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, S_IFDIR | 0775U);
  EXPECT_EQ(errorOf([this] { return platform_.mkdir(path("made"), 0775) == -1; }), EEXIST);

  EXPECT_EQ(platform_.rmdir(path("made")), 0);
  EXPECT_FALSE(std::filesystem::exists(path("made")));
  EXPECT_EQ(errorOf([this] { return platform_.rmdir(path("made")) == -1; }), ENOENT);
}

TEST_F(LinuxPlatformTest, ReportsWhichPathsMayBeAccessed) {
  const std::string file = makeFile("file");
  EXPECT_EQ(platform_.access(file, F_OK), 0);
  EXPECT_EQ(errorOf([this] { return platform_.access(path("none"), F_OK) == -1; }), ENOENT);
  // Not even root may execute a file without an x bit.
  EXPECT_EQ(errorOf([&] { return platform_.access(file, X_OK) == -1; }), EACCES);
}

int beginsWithA(const dirent* entry) {
  return entry->d_name[0] == 'a' ? 1 : 0;
}

TEST_F(LinuxPlatformTest, ScansADirectoryThroughTheFilterAndInOrder) {
  for (const std::string name : {"a2", "b", "a1", "a3"}) {
    makeFile(name);
  }
  dirent** entries = nullptr;
  const int count = platform_.scandir(directory_, &entries, beginsWithA, alphasort);
  std::vector<std::string> names;
  for (int i = 0; i < count; ++i) {
    names.emplace_back(entries[i]->d_name);
    std::free(entries[i]);
  }
  std::free(entries);
  EXPECT_THAT(names, ElementsAre("a1", "a2", "a3"));
  EXPECT_EQ(errorOf([&] { return platform_.scandir(path("none"), &entries, beginsWithA, alphasort) == -1; }),
            ENOENT);
}

TEST_F(LinuxPlatformTest, ReadsADirectoryEntryByEntry) {
  makeFile("one");
  makeFile("two");
  DIR* const opened = platform_.opendir(directory_);
  ASSERT_NE(opened, nullptr);
  std::vector<std::string> names;
  while (const dirent* entry = platform_.readdir(opened)) {
    names.emplace_back(entry->d_name);
  }
  EXPECT_EQ(platform_.closedir(opened), 0);
  EXPECT_THAT(names, UnorderedElementsAre(".", "..", "one", "two"));
  EXPECT_EQ(errorOf([this] { return platform_.opendir(path("none")) == nullptr; }), ENOENT);
}

TEST_F(LinuxPlatformTest, EndsADirectoryWithTooManyNamesAndLogsItOnce) {
  struct Case {
    std::size_t entries;
    std::size_t nameBytes;
    std::size_t read;
    const char* ending;
  };
  // "." and ".." are names too: 5 of them, of 11 bytes.
  for (const std::string name : {"one", "two", "abc"}) {
    makeFile(name);
  }
  // The default threshold, whatever the environment says.
  TlogContext* const context = Dockhand::usbClientLog.context;
  const std::int32_t threshold = context->threshold();
  context->setThreshold(3);
  for (const Case& limited : {Case{5, 12, 5, nullptr}, Case{4, 12, 4, ") ended after 4 entries, with "},
                              Case{5, 11, 4, ") ended after 4 entries, with "},
                              Case{0, 12, 0, ") ended after 0 entries, with 0 "}}) {
    Dockhand::LinuxPlatform platform({limited.entries, limited.nameBytes});
    DIR* const opened = platform.opendir(directory_);
    ASSERT_NE(opened, nullptr);
    ::testing::internal::CaptureStderr();
    errno = EXDEV;
    std::size_t read = 0;
    while (platform.readdir(opened) != nullptr) {
      ++read;
    }
    // Further reads return nothing either.
    EXPECT_EQ(platform.readdir(opened), nullptr);
    EXPECT_EQ(errno, EXDEV);
    const std::string log = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(read, limited.read);
    if (limited.ending == nullptr) {
      EXPECT_EQ(log, "");
    } else {
      EXPECT_THAT(log, HasSubstr("readdir(" + directory_ + limited.ending));
      EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
    }
    EXPECT_EQ(platform.closedir(opened), 0);
  }
  context->setThreshold(threshold);
}

TEST_F(LinuxPlatformTest, CountsEachDirectoryByItself) {
  makeFile("one");
  Dockhand::LinuxPlatform platform({3, 6});
  DIR* const first = platform.opendir(directory_);
  DIR* const second = platform.opendir(directory_);
  for (int i = 0; i < 3; ++i) {
    EXPECT_NE(platform.readdir(first), nullptr);
    EXPECT_NE(platform.readdir(second), nullptr);
  }
  EXPECT_EQ(platform.closedir(first), 0);
  EXPECT_EQ(platform.closedir(second), 0);
}

TEST_F(LinuxPlatformTest, ReadsAFileToItsEnd) {
  const int file = platform_.open(makeFile("file", "0123456"), O_RDONLY);
  ASSERT_GE(file, 0);
  std::array<char, 4> block{};
  EXPECT_EQ(platform_.read(file, block.data(), block.size()), 4);
  EXPECT_EQ(std::string(block.data(), 4), "0123");
  EXPECT_EQ(platform_.read(file, block.data(), block.size()), 3);
  EXPECT_EQ(std::string(block.data(), 3), "456");
  EXPECT_EQ(platform_.read(file, block.data(), block.size()), 0);
  EXPECT_EQ(platform_.close(file), 0);
}

TEST_F(LinuxPlatformTest, ReportsWhyAFileCannotBeOpenedReadOrClosed) {
  std::array<char, 1> block{};
  EXPECT_EQ(errorOf([this] { return platform_.open(path("none"), O_RDONLY) == -1; }), ENOENT);
  EXPECT_EQ(errorOf([&] { return platform_.read(-1, block.data(), block.size()) == -1; }), EBADF);
  EXPECT_EQ(errorOf([this] { return platform_.close(-1) == -1; }), EBADF);
}

TEST_F(LinuxPlatformTest, OpensFilesWithTheGivenFlagsAndClosesThemInChildren) {
  const std::string name = makeFile("file");
  EXPECT_EQ(errorOf([&] { return platform_.open(name, O_RDONLY | O_DIRECTORY) == -1; }), ENOTDIR);
  const int file = platform_.open(name, O_RDONLY);
  EXPECT_NE(fcntl(file, F_GETFD) & FD_CLOEXEC, 0);
  platform_.close(file);
}

TEST_F(LinuxPlatformTest, RunsACommandInTheShellAndReturnsItsRawStatus) {
  EXPECT_EQ(platform_.system("echo said >" + path("said")), 0);
  std::string said;
  std::ifstream(path("said")) >> said;
  EXPECT_EQ(said, "said");
  EXPECT_EQ(platform_.system("exit 3"), 3 * 256);
  EXPECT_EQ(platform_.system("kill -KILL $$"), SIGKILL);
}

TEST_F(LinuxPlatformTest, ContinuesToSleepAfterASignal) {
  std::vector<unsigned int> asked;
  onSleep = [&asked](unsigned int seconds) {
    asked.push_back(seconds);
    return asked.size() < 3 ? seconds - 1 : 0;
  };
  platform_.sleep(4);
  EXPECT_THAT(asked, ElementsAre(4, 3, 2));
  asked.clear();
  platform_.sleep(0);
  EXPECT_THAT(asked, IsEmpty());
  onSleep = nullptr;
}

TEST_F(LinuxPlatformTest, ReportsWhyAMountOrUnmountFails) {
  const std::string none = path("none");
  EXPECT_EQ(errorOf([&] { return platform_.mount("none", none, "tmpfs", MS_NOSUID, "") == -1; }), ENOENT);
  EXPECT_EQ(errorOf([&] { return platform_.umount(none) == -1; }), ENOENT);
  EXPECT_EQ(errorOf([&] { return platform_.umount2(none, MNT_DETACH) == -1; }), ENOENT);
  // The kernel checks the flags before it looks up the path.
  EXPECT_EQ(errorOf([&] { return platform_.umount2(none, 0x40000000) == -1; }), EINVAL);
}

TEST_F(LinuxPlatformTest, ReadsTheValuesOfAFileSystem) {
  const blkid_probe probe = platform_.blkid_new_probe_from_filename(makeExt2Image("STICK"));
  ASSERT_NE(probe, nullptr);
  EXPECT_EQ(platform_.blkid_do_probe(probe), 0);
  const char* value = "";
  EXPECT_EQ(platform_.blkid_probe_lookup_value(probe, "TYPE", &value), 0);
  EXPECT_STREQ(value, "ext2");
  EXPECT_EQ(platform_.blkid_probe_lookup_value(probe, "LABEL", &value), 0);
  EXPECT_STREQ(value, "STICK");
  EXPECT_EQ(platform_.blkid_probe_lookup_value(probe, "UUID", &value), 0);
  EXPECT_STREQ(value, "30313233-3435-3637-3839-414243444546");
  EXPECT_EQ(platform_.blkid_probe_lookup_value(probe, "NO_SUCH_KEY", &value), -1);
  platform_.blkid_free_probe(probe);
}

TEST_F(LinuxPlatformTest, FindsNothingInAFileWithoutAFileSystem) {
  const blkid_probe probe =
      platform_.blkid_new_probe_from_filename(makeFile("empty", std::string(64 * 1024, '\0')));
  ASSERT_NE(probe, nullptr);
  EXPECT_EQ(platform_.blkid_do_probe(probe), 1);
  const char* value = "";
  EXPECT_EQ(platform_.blkid_probe_lookup_value(probe, "TYPE", &value), -1);
  platform_.blkid_free_probe(probe);
  EXPECT_EQ(platform_.blkid_new_probe_from_filename(path("none")), nullptr);
}

TEST_F(LinuxPlatformTest, MeasuresTheFileOfADescriptor) {
  const int image = platform_.open(makeFile("disk", std::string(12345, '\0')), O_RDONLY);
  EXPECT_EQ(platform_.blkid_get_dev_size(image), 12345);
  platform_.close(image);
}

TEST_F(LinuxPlatformTest, MeasuresADiskOfFourTerabytes) {
  const std::string disk = makeFile("disk");
  constexpr std::int64_t bytes = 4000787030016;
  ASSERT_EQ(truncate(disk.c_str(), bytes), 0);
  const int image = platform_.open(disk, O_RDONLY);
  ASSERT_GE(image, 0);
  EXPECT_EQ(platform_.blkid_get_dev_size(image), bytes);
  platform_.close(image);
}

TEST_F(LinuxPlatformTest, TreatsAPathWithANulByteAsMissing) {
  const std::string existing = makeFile("existing");
  ASSERT_EQ(platform_.mkdir(path("directory"), 0775), 0);
  const std::string file = existing + std::string("\0cut", 4);
  const std::string directory = path("directory") + std::string("\0cut", 4);
  const std::string absent = path("absent") + std::string("\0cut", 4);
  dirent** entries = nullptr;

  const std::vector<std::function<bool()>> calls = {
      [&] { return platform_.mount(file, path("directory"), "ext3", 0, "") == -1; },
      [&] { return platform_.mount(existing, directory, "ext3", 0, "") == -1; },
      [&] { return platform_.umount(directory) == -1; },
      [&] { return platform_.umount2(directory, 0) == -1; },
      [&] { return platform_.mkdir(absent, 0775) == -1; },
      [&] { return platform_.rmdir(directory) == -1; },
      [&] { return platform_.access(file, F_OK) == -1; },
      [&] { return platform_.scandir(directory, &entries, beginsWithA, alphasort) == -1; },
      [&] { return platform_.opendir(directory) == nullptr; },
      [&] { return platform_.open(file, O_RDONLY) == -1; },
      [&] { return platform_.blkid_new_probe_from_filename(file) == nullptr; },
  };
  for (std::size_t i = 0; i < calls.size(); ++i) {
    EXPECT_EQ(errorOf(calls[i]), ENOENT) << i;
  }
  EXPECT_FALSE(std::filesystem::exists(path("absent")));
  EXPECT_TRUE(std::filesystem::exists(path("directory")));
}

}  // namespace
