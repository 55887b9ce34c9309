// The scripts that stand before the real tools in the daemon's PATH, run by the real shell. The "real" tools
// behind them are stand-ins that write down what they get.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "ArgumentVector.h"

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;

namespace {

class ImageTools : public ::testing::Test {
 protected:
  ImageTools() {
    std::string name = fs::temp_directory_path() / "dockhand-image-XXXXXX";
    EXPECT_NE(mkdtemp(name.data()), nullptr);
    directory = name;
    fs::create_directory(directory / "real");
    for (const char* tool : {"fdisk", "mkfs.xfs"}) {
      write(directory / "real" / tool,
            "#!/bin/sh\n"
            "printf '%s\\0' \"$@\" >\"$RECORD/arguments\"\n"
            "cat >\"$RECORD/input\"\n"
            "echo output; echo complaint >&2\n"
            "exit \"${REAL_STATUS:-0}\"\n");
      fs::permissions(directory / "real" / tool, fs::perms::owner_all);
    }
    write(directory / "given", "");
  }
  ~ImageTools() override { fs::remove_all(directory); }

  static void write(const fs::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
  }
  static std::string read(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }

  /// Runs a tool by its name, the image's folder first in the PATH. Its exit status.
  int run(std::vector<std::string> command, const std::string& input = "", const std::string& path = "") {
    write(directory / "given", input);
    const pid_t child = fork();
    if (child == 0) {
      const std::string search =
          path.empty() ? std::string(IMAGE_TOOLS) + ":" + (directory / "real").string() + ":/usr/bin:/bin"
                       : path;
      setenv("PATH", search.c_str(), 1);
      setenv("RECORD", directory.c_str(), 1);
      setenv("SYSFS", (directory / "sys").c_str(), 1);
      EXPECT_NE(freopen((directory / "given").c_str(), "r", stdin), nullptr);
      EXPECT_NE(freopen((directory / "stdout").c_str(), "w", stdout), nullptr);
      EXPECT_NE(freopen((directory / "stderr").c_str(), "w", stderr), nullptr);
      const std::vector<char*> words = argumentVector(command);
      execvp(words[0], words.data());
      _exit(126);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  std::vector<std::string> arguments() const {
    std::vector<std::string> found;
    std::string current;
    for (const char c : read(directory / "arguments")) {
      if (c == '\0') {
        found.push_back(current);
        current.clear();
      } else {
        current += c;
      }
    }
    return found;
  }
  std::string received() const { return read(directory / "input"); }
  std::string output() const { return read(directory / "stdout"); }
  std::string complaint() const { return read(directory / "stderr"); }

  fs::path directory;
};

using Fdisk = ImageTools;
using MkfsXfs = ImageTools;
using ReadUsbVersion = ImageTools;

const std::vector<std::string> oddArguments = {"",     " ",          "a b",  "*",           "$HOME",
                                               "`id`", "\"quoted\"", "it's", "back\\slash", "line\nbreak",
                                               "-l",   "\xC3\xA9",   "\xFF"};

TEST_F(Fdisk, TakesTheOptionOfEchoOutOfTheFirstAnswer) {
  EXPECT_EQ(run({"fdisk", "/dev/some disk"}, "-e n\np\n1\n\n\nw\n"), 0);
  EXPECT_EQ(received(), "n\np\n1\n\n\nw\n");
  EXPECT_THAT(arguments(), ElementsAre("/dev/some disk"));
}

TEST_F(Fdisk, GetsTheDaemonsAnswersWhateverTheEchoOfTheShell) {
  EXPECT_EQ(run({"sh", "-c", "echo -e 'n\\np\\n1\\n\\n\\nw' | fdisk /dev/usb_storage_sda"}), 0);
  EXPECT_EQ(received(), "n\np\n1\n\n\nw\n");
}

TEST_F(Fdisk, LeavesOtherAnswersAlone) {
  for (const std::string& answers :
       {std::string("n\n-e p\nw\n"), std::string(" -e n\n"), std::string("-en\n"), std::string("-e\tn\n"),
        std::string(), std::string("p -e n\nq\n")}) {
    EXPECT_EQ(run({"fdisk", "/dev/sda"}, answers), 0);
    EXPECT_EQ(received(), answers);
  }
}

TEST_F(Fdisk, PassesOtherCallsOnUnchanged) {
  std::vector<std::string> command = {"fdisk", "-l"};
  command.insert(command.end(), oddArguments.begin(), oddArguments.end());
  EXPECT_EQ(run(command, "-e n\n"), 0);
  EXPECT_EQ(received(), "-e n\n");
  EXPECT_THAT(arguments(), ElementsAreArray(command.begin() + 1, command.end()));
  EXPECT_EQ(run({"fdisk", "--list"}, "-e n\n"), 0);
  EXPECT_EQ(received(), "-e n\n");
}

TEST_F(Fdisk, PassesTheDiskOnWhateverItsName) {
  for (const std::string& disk : oddArguments) {
    if (disk == "-l") {
      continue;
    }
    run({"fdisk", disk}, "-e n\n");
    EXPECT_THAT(arguments(), ElementsAre(disk));
  }
}

TEST_F(Fdisk, AnswersWithTheStatusAndTheWordsOfTheRealTool) {
  setenv("REAL_STATUS", "3", 1);
  EXPECT_EQ(run({"fdisk", "/dev/sda"}, "-e n\n"), 3);
  EXPECT_EQ(output(), "output\n");
  EXPECT_EQ(complaint(), "complaint\n");
  EXPECT_EQ(run({"fdisk", "-l"}), 3);
  unsetenv("REAL_STATUS");
}

TEST_F(Fdisk, SaysSoWhenThereIsNoRealTool) {
  fs::remove(directory / "real" / "fdisk");
  EXPECT_EQ(run({"fdisk", "/dev/sda"}, "", std::string(IMAGE_TOOLS) + ":" + directory.string()), 127);
  EXPECT_THAT(complaint(), HasSubstr("fdisk: not found"));
}

TEST_F(Fdisk, FindsTheRealToolAlsoWhenItsOwnFolderIsTwiceInThePath) {
  const std::string path = std::string(IMAGE_TOOLS) + ":" + IMAGE_TOOLS +
                           "/../tools:" + (directory / "real").string() + ":/usr/bin:/bin";
  EXPECT_EQ(run({"fdisk", "-l"}, "", path), 0);
  EXPECT_THAT(arguments(), ElementsAre("-l"));
}

TEST_F(MkfsXfs, DropsTheOptionThatTodaysToolRefuses) {
  EXPECT_EQ(run({"mkfs.xfs", "-f", "-l", "lazy-count=0", "-L", "MY DISK", "/dev/usb_storage_sda1"}), 0);
  EXPECT_THAT(arguments(), ElementsAre("-f", "-L", "MY DISK", "/dev/usb_storage_sda1"));
}

TEST_F(MkfsXfs, KeepsTheOptionForAFileSystemWithoutChecksums) {
  for (const std::string metadata : {"crc=0", "crc=0,finobt=0", "finobt=0,crc=0", "uuid=1,crc=0,finobt=0"}) {
    EXPECT_EQ(run({"mkfs.xfs", "-m", metadata, "-l", "lazy-count=0", "disk"}), 0);
    EXPECT_THAT(arguments(), ElementsAre("-m", metadata, "-l", "lazy-count=0", "disk"));
  }
}

TEST_F(MkfsXfs, PassesOtherArgumentsOnUnchanged) {
  const std::vector<std::vector<std::string>> calls = {
      oddArguments,           {"-l", "size=64m", "disk"},
      {"-l", "lazy-count=1"}, {"-l", "size=64m,lazy-count=0"},
      {"-L", "lazy-count=0"}, {"-l"},
      {"-llazy-count=0"},     {"-l", "-l"},
  };
  for (const auto& call : calls) {
    std::vector<std::string> command = {"mkfs.xfs"};
    command.insert(command.end(), call.begin(), call.end());
    EXPECT_EQ(run(command, "input"), 0);
    EXPECT_THAT(arguments(), ElementsAreArray(call));
    EXPECT_EQ(received(), "input");
  }
}

TEST_F(MkfsXfs, AnswersWithTheStatusAndTheWordsOfTheRealTool) {
  setenv("REAL_STATUS", "3", 1);
  EXPECT_EQ(run({"mkfs.xfs", "-l", "lazy-count=0", "disk"}), 3);
  EXPECT_EQ(output(), "output\n");
  EXPECT_EQ(complaint(), "complaint\n");
  unsetenv("REAL_STATUS");
}

TEST_F(MkfsXfs, SaysSoWhenThereIsNoRealTool) {
  EXPECT_EQ(run({"mkfs.xfs", "disk"}, "", std::string(IMAGE_TOOLS) + ":" + directory.string()), 127);
  EXPECT_THAT(complaint(), HasSubstr("mkfs.xfs: not found"));
}

/// A sysfs in which the disk `name` hangs below a USB device, as the kernel arranges it.
void makeSysfs(const fs::path& sysfs, const std::string& name, const std::string& version) {
  const fs::path usbDevice = sysfs / "devices/pci0000:00/usb1/1-2";
  const fs::path disk = usbDevice / "1-2:1.0/host2/target2:0:0/2:0:0:0";
  fs::create_directories(disk / "block" / name);
  std::ofstream(usbDevice / "idVendor") << "1234\n";
  if (!version.empty()) {
    std::ofstream(usbDevice / "version") << version;
  }
  fs::create_directories(sysfs / "block");
  fs::create_directory_symlink(disk / "block" / name, sysfs / "block" / name);
  fs::create_directory_symlink(disk, disk / "block" / name / "device");
}

TEST_F(ReadUsbVersion, PrintsTheVersionWithoutItsLeadingBlank) {
  makeSysfs(directory / "sys", "sdb", " 2.00\n");
  EXPECT_EQ(run({"readUsbVersion.sh", "sdb"}), 0);
  EXPECT_EQ(output(), "2.00\n");
  EXPECT_EQ(complaint(), "");
}

TEST_F(ReadUsbVersion, FailsForAnUnknownDisk) {
  makeSysfs(directory / "sys", "sdb", " 2.00\n");
  for (const std::string name : {"sdc", "s d", "*", "$HOME", "sd\nb"}) {
    EXPECT_EQ(run({"readUsbVersion.sh", name}), 1) << name;
    EXPECT_EQ(output(), "");
    EXPECT_THAT(complaint(), HasSubstr("no such disk"));
  }
}

TEST_F(ReadUsbVersion, FailsForADiskThatIsNotOnUsb) {
  const fs::path disk = directory / "sys/devices/virtual/1:0:0:0";
  fs::create_directories(disk / "block/sda");
  fs::create_directories(directory / "sys/block");
  fs::create_directory_symlink(disk / "block/sda", directory / "sys/block/sda");
  fs::create_directory_symlink(disk, disk / "block/sda/device");
  EXPECT_EQ(run({"readUsbVersion.sh", "sda"}), 1);
  EXPECT_THAT(complaint(), HasSubstr("not a USB device"));
}

TEST_F(ReadUsbVersion, SaysHowItIsUsed) {
  EXPECT_EQ(run({"readUsbVersion.sh"}), 2);
  EXPECT_EQ(run({"readUsbVersion.sh", ""}), 2);
  EXPECT_EQ(run({"readUsbVersion.sh", "sda", "sdb"}), 2);
  EXPECT_THAT(complaint(), HasSubstr("usage"));
}

}  // namespace
