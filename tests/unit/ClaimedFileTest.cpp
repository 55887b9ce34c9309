// Claiming a file, in a directory of the test's own. Files of other users are in the system tests.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "ClaimedFile.h"

namespace fs = std::filesystem;
using Dockhand::Claim;
using Dockhand::claimFile;
using ::testing::IsEmpty;

namespace {

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
  /// What has been moved aside, by its new paths.
  std::vector<fs::path> moved() const {
    std::vector<fs::path> found;
    for (const auto& entry : fs::recursive_directory_iterator(directory)) {
      if (entry.path().parent_path().filename().string().rfind("log.moved-", 0) == 0) {
        found.push_back(entry.path());
      }
    }
    return found;
  }
  /// That the file is a new one, and what was there is `type` at another place now.
  void expectMovedAside(fs::file_type type) const {
    EXPECT_EQ(claimFile(file), Claim::movedAside);
    ASSERT_TRUE(fs::is_regular_file(fs::symlink_status(file)));
    EXPECT_EQ(read(file), "");
    ASSERT_EQ(moved().size(), 1U);
    EXPECT_EQ(moved()[0].filename(), "log");
    EXPECT_EQ(fs::symlink_status(moved()[0]).type(), type);
    EXPECT_EQ(modeOf(moved()[0].parent_path()), 0700U);
    // Which is enough for good.
    EXPECT_EQ(claimFile(file), Claim::ours);
  }

  fs::path directory;
  fs::path file;
};

TEST_F(ClaimedFile, IsMadeWhereNothingIs) {
  EXPECT_EQ(claimFile(file), Claim::ours);
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(file)));
}

TEST_F(ClaimedFile, IsWritableForUsOnlyWhateverTheUmask) {
  const mode_t before = umask(0);
  EXPECT_EQ(claimFile(file), Claim::ours);
  umask(before);
  EXPECT_EQ(modeOf(file), 0644U);
}

TEST_F(ClaimedFile, IsKeptWithItsContentWhenItIsOursAlready) {
  write(file, "what the last tool said");
  chmod(file.c_str(), 0600);
  EXPECT_EQ(claimFile(file), Claim::ours);
  EXPECT_EQ(read(file), "what the last tool said");
  EXPECT_EQ(modeOf(file), 0600U);
  EXPECT_THAT(moved(), IsEmpty());
}

TEST_F(ClaimedFile, TakesThePlaceOfALink) {
  write(directory / "target", "precious");
  fs::create_symlink(directory / "target", file);
  expectMovedAside(fs::file_type::symlink);
  EXPECT_EQ(read(directory / "target"), "precious");
}

TEST_F(ClaimedFile, TakesThePlaceOfALinkToNothing) {
  fs::create_symlink(directory / "target", file);
  expectMovedAside(fs::file_type::symlink);
  EXPECT_FALSE(fs::exists(directory / "target"));
}

TEST_F(ClaimedFile, TakesThePlaceOfAFileThatHasAnotherName) {
  write(directory / "target", "precious");
  fs::create_hard_link(directory / "target", file);
  expectMovedAside(fs::file_type::regular);
  EXPECT_EQ(read(directory / "target"), "precious");
}

TEST_F(ClaimedFile, TakesThePlaceOfAFifo) {
  ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
  expectMovedAside(fs::file_type::fifo);
}

TEST_F(ClaimedFile, TakesThePlaceOfADirectory) {
  fs::create_directory(file);
  write(file / "inside", "precious");
  EXPECT_EQ(claimFile(file), Claim::movedAside);
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(file)));
  ASSERT_THAT(moved(), ::testing::SizeIs(1));
  EXPECT_EQ(read(moved()[0] / "inside"), "precious");
}

TEST_F(ClaimedFile, TakesThePlaceOfAFileThatOthersMayWriteTo) {
  for (const mode_t mode : {0664U, 0646U}) {
    fs::remove_all(directory);
    fs::create_directory(directory);
    write(file, "ours, and whose else?");
    ASSERT_EQ(chmod(file.c_str(), mode), 0);
    expectMovedAside(fs::file_type::regular);
    EXPECT_EQ(read(moved()[0]), "ours, and whose else?");
  }
}

TEST_F(ClaimedFile, IsLeftToWhoeverOpensItWhereNoneCanBeMade) {
  file = directory / "none" / "log";
  EXPECT_EQ(claimFile(file), Claim::ours);
  EXPECT_FALSE(fs::exists(directory / "none"));
}

TEST_F(ClaimedFile, IsRefusedWhereWhatIsThereCannotBeMoved) {
  const fs::path parent = directory / "parent";
  fs::create_directory(parent);
  // The directory of our own that it would be moved into would have too long a name.
  file = parent / std::string(NAME_MAX - 5, 'n');
  fs::create_symlink(directory / "target", file);
  EXPECT_EQ(claimFile(file), Claim::refused);
  EXPECT_TRUE(fs::is_symlink(file));
  EXPECT_EQ(std::distance(fs::directory_iterator(parent), fs::directory_iterator()), 1);
}

TEST_F(ClaimedFile, IsOursAlsoWhenSeveralThreadsClaimItAtATime) {
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
    EXPECT_THAT(moved(), ::testing::SizeIs(1));
  }
}

TEST_F(ClaimedFile, IsOursOrRefusedWhileSomebodyKeepsPuttingALinkInItsPlace) {
  std::atomic<bool> done{false};
  std::thread planter([&] {
    while (!done) {
      static_cast<void>(symlink((directory / "target").c_str(), file.c_str()));
    }
  });
  for (int round = 0; round < 200; ++round) {
    if (claimFile(file) != Claim::refused) {
      EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(file)));
    }
    EXPECT_FALSE(fs::exists(directory / "target"));
    unlink(file.c_str());
  }
  done = true;
  planter.join();
}

}  // namespace
