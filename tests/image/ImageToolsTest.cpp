// The programs that come before the real tools in the daemon's PATH. The "real" tools here are fakes that
// write down their arguments, except those that make partitions on images.

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
#include "Emulator.h"

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;

namespace {

const std::vector<std::string> wrappers = {"dd", "fdisk", "logger", "mkfs.xfs", "umount"};

class ImageTools : public ::testing::Test {
 protected:
  ImageTools() {
    std::string name = fs::temp_directory_path() / "dockhand-image-XXXXXX";
    EXPECT_NE(mkdtemp(name.data()), nullptr);
    directory = name;
    fs::create_directory(directory / "real");
    for (const std::string& tool : wrappers) {
      makeTool("real/" + tool,
               "printf '%s\\0' \"$@\" >\"$RECORD/arguments\"\n"
               "cat >\"$RECORD/input\"\n"
               "[ ! -e \"$RECORD/table\" ] || cat \"$RECORD/table\" 1<>\"$1\"\n"
               "echo output; echo complaint >&2\n"
               "exit \"${REAL_STATUS:-0}\"\n");
    }
    write(directory / "given", "");
  }
  ~ImageTools() override { fs::remove_all(directory); }

  static void write(const fs::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
  }
  void makeTool(const std::string& path, const std::string& script) const {
    write(directory / path, "#!/bin/sh\n" + script);
    fs::permissions(directory / path, fs::perms::owner_all);
  }
  static std::string read(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }

  /// Runs a tool by its name, with the image's folder first in the PATH; returns its exit status.
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

using ReadUsbVersion = ImageTools;

/// Tests of compiled programs.
class Wrappers : public ImageTools {
 protected:
  void SetUp() override {
    if (isEmulated()) {
      GTEST_SKIP() << "a wrapper for another processor cannot be started by its name";
    }
  }
};

using Fdisk = Wrappers;
using Logger = Wrappers;
using MkfsXfs = Wrappers;

const std::vector<std::string> oddArguments = {"",     " ",          "a b",  "*",           "$HOME",
                                               "`id`", "\"quoted\"", "it's", "back\\slash", "line\nbreak",
                                               "-l",   "\xC3\xA9",   "\xFF"};

TEST_F(Wrappers, PassOtherCallsOnUnchangedAndReturnTheRealToolsStatus) {
  setenv("REAL_STATUS", "3", 1);
  for (const std::string& wrapper : wrappers) {
    std::vector<std::string> command = {wrapper, "-l"};
    command.insert(command.end(), oddArguments.begin(), oddArguments.end());
    EXPECT_EQ(run(command, "-e n\n"), 3) << wrapper;
    EXPECT_EQ(received(), "-e n\n") << wrapper;
    EXPECT_THAT(arguments(), ElementsAreArray(command.begin() + 1, command.end())) << wrapper;
    EXPECT_EQ(output(), "output\n") << wrapper;
    EXPECT_EQ(complaint(), "complaint\n") << wrapper;
  }
  unsetenv("REAL_STATUS");
}

TEST_F(Wrappers, PassCallsOnThatAlmostMatchTheDaemons) {
  const std::vector<std::vector<std::string>> calls = {
      {"dd", "if=/dev/zero", "of=/tmp/disk", "bs=512", "count=1"},
      {"dd", "if=/dev/zero", "of=/dev/usb_storage_sda", "bs=512", "count=2"},
      {"dd", "if=/dev/null", "of=/dev/usb_storage_sda", "bs=512", "count=1"},
      {"dd", "if=/dev/zero", "of=/dev/usb_storage_sda", "bs=512", "count=1", "seek=1"},
      {"umount", "-f", "/media/disk_1"},
      {"umount", "-l", "/dev/usb_storage_sda1"},
      {"umount", "/dev/usb_storage_sda1"},
      {"logger", "-t", "Dockhand"},
      {"logger", "-s", "-t", "Dockhand", "text"},
  };
  for (const auto& call : calls) {
    EXPECT_EQ(run(call, "\x1b[31m"), 0) << call[0];
    EXPECT_THAT(arguments(), ElementsAreArray(call.begin() + 1, call.end()));
    EXPECT_EQ(received(), "\x1b[31m");
  }
}

TEST_F(Wrappers, ReportThatThereIsNoRealTool) {
  for (const std::string& wrapper : wrappers) {
    EXPECT_EQ(run({wrapper, "-l"}, "", std::string(IMAGE_TOOLS) + ":" + directory.string()), 127);
    EXPECT_THAT(complaint(), HasSubstr(wrapper + ": not found in "));
  }
}

TEST_F(Wrappers, FindTheRealToolByAnyPathToThemselves) {
  const std::string own = IMAGE_TOOLS;
  const std::string real = (directory / "real").string();
  const std::string links = (directory / "links").string();
  const std::string copies = (directory / "copies").string();
  fs::create_directory(links);
  fs::copy(own, copies);
  for (const std::string& wrapper : wrappers) {
    fs::create_symlink(own + "/" + wrapper, links + "/" + wrapper);
  }
  // An empty folder is the current one.
  fs::current_path(own);
  for (const std::string& path :
       {own + ":" + own + "/../image-tools:" + real, ":" + real, own + "::" + real, links + ":" + real,
        links + ":" + own + ":" + real, own + ":" + links + ":" + real, own + ":" + copies + ":" + real,
        own + ":" + copies + ":" + own + ":" + real, "/nowhere:" + own + ":" + real}) {
    for (const std::string& wrapper : wrappers) {
      fs::remove(directory / "arguments");
      EXPECT_EQ(run({wrapper, "-l"}, "", path + ":/usr/bin:/bin"), 0) << wrapper << " " << path << "\n"
                                                                      << complaint();
      EXPECT_THAT(arguments(), ElementsAre("-l")) << wrapper << " " << path;
    }
  }
  fs::current_path("/");
}

const std::string daemonsAnswers = "n\np\n1\n\n\nw\n";

/// Returns the first sector of a disk with a DOS table.
std::string dosTable(const std::vector<std::uint32_t>& sectorsOfPartitions) {
  std::string table(512, '\0');
  for (std::size_t i = 0; i < sectorsOfPartitions.size(); ++i) {
    table[446 + 16 * i + 4] = '\x83';
    for (std::size_t byte = 0; byte < 4; ++byte) {
      table[446 + 16 * i + 12 + byte] = static_cast<char>(sectorsOfPartitions[i] >> (8 * byte));
    }
  }
  return table.replace(510, 2, "\x55\xaa");
}

class Partitioning : public Wrappers {
 protected:
  std::string makeDisk(std::uintmax_t bytes, const std::string& name = "disk") const {
    write(directory / name, "");
    fs::resize_file(directory / name, bytes);
    return directory / name;
  }
  /// Answers fdisk as the daemon does, with the real tools.
  int partition(const std::string& disk, const std::string& tools = "/usr/sbin:/sbin") {
    return run({"fdisk", disk}, daemonsAnswers, std::string(IMAGE_TOOLS) + ":" + tools);
  }
  std::string tableOf(const std::string& disk) {
    run({"sfdisk", "--dump", disk}, "", "/usr/sbin:/sbin");
    return output();
  }
  static constexpr std::uintmax_t mib = 1 << 20;
  static constexpr std::uintmax_t tib = std::uintmax_t{1} << 40;
};

TEST_F(Partitioning, GetsTheDaemonsAnswersFromAnyShellsEcho) {
  write(directory / "table", dosTable({(16 * mib) / 512 - 2048}));
  const std::string disk = makeDisk(16 * mib, "some disk");
  EXPECT_EQ(run({"sh", "-c", "echo -e 'n\\np\\n1\\n\\n\\nw' | fdisk \"$0\"", disk}), 0) << complaint();
  EXPECT_EQ(received(), daemonsAnswers);
  EXPECT_THAT(arguments(), ElementsAre(disk));
  EXPECT_EQ(run({"fdisk", disk}, "-e " + daemonsAnswers), 0);
  EXPECT_EQ(received(), daemonsAnswers);
}

TEST_F(Partitioning, FailsUnlessOnePartitionCoversTheDisk) {
  const std::string disk = makeDisk(16 * mib);
  constexpr std::uint32_t whole = 32768 - 2048;
  std::string unsigned_ = dosTable({whole});
  unsigned_[511] = '\0';
  for (const std::string& table :
       {std::string(), dosTable({}), dosTable({0}), dosTable({whole / 2}), dosTable({whole, 1}), unsigned_}) {
    write(directory / "table", table);
    EXPECT_EQ(run({"fdisk", disk}, daemonsAnswers), 1);
    EXPECT_THAT(complaint(), HasSubstr("no partition over the whole disk"));
  }
  EXPECT_EQ(run({"fdisk", (directory / "gone").string()}, daemonsAnswers), 1);
  EXPECT_THAT(complaint(), HasSubstr("No such file"));
  setenv("REAL_STATUS", "3", 1);
  write(directory / "table", dosTable({whole}));
  EXPECT_EQ(run({"fdisk", disk}, daemonsAnswers), 3);
  unsetenv("REAL_STATUS");
}

TEST_F(Partitioning, NeedsNoOtherProgramThanTheRealOne) {
  const std::string disk = makeDisk(16 * mib);
  EXPECT_EQ(partition(disk), 0) << complaint();
  EXPECT_THAT(tableOf(disk), HasSubstr(": start=        2048, size=       30720, type=83\n"));
}

TEST_F(Partitioning, GivesADiskThatIsTooLargeForADosTableAGpt) {
  const std::string largest = makeDisk(2 * tib);
  EXPECT_EQ(partition(largest), 0) << complaint();
  EXPECT_THAT(tableOf(largest), HasSubstr("label: dos"));
  for (const std::uintmax_t bytes : {2 * tib + 512, 4 * tib}) {
    const std::string disk = makeDisk(bytes);
    EXPECT_EQ(partition(disk), 0) << complaint();
    const std::string table = tableOf(disk);
    EXPECT_THAT(table, HasSubstr("label: gpt"));
    // It ends before the last MiB of the disk, which holds the second table.
    EXPECT_THAT(table, HasSubstr("start=        2048, size=  " + std::to_string((bytes / mib - 2) * 2048)));
    EXPECT_THAT(table, HasSubstr("type=0FC63DAF-8483-4772-8E79-3D69D8477DE4"));
    EXPECT_EQ(table.find("start="), table.rfind("start=")) << table;
  }
}

TEST_F(Partitioning, LeavesALargeDiskAloneWithoutSfdisk) {
  const std::string disk = makeDisk(4 * tib);
  EXPECT_EQ(partition(disk, (directory / "real").string() + ":/usr/bin:/bin"), 1);
  EXPECT_THAT(complaint(), HasSubstr("fdisk: sfdisk: not found in "));
  EXPECT_FALSE(fs::exists(directory / "arguments"));
}

TEST_F(Fdisk, LeavesOtherAnswersAlone) {
  for (const std::string& answers :
       {std::string("n\n-e p\nw\n"), std::string(" -e n\n"), std::string("-en\n"), std::string("-e\tn\n"),
        std::string(), std::string("p -e n\nq\n")}) {
    EXPECT_EQ(run({"fdisk", "/dev/sda"}, answers), 0);
    EXPECT_EQ(received(), answers);
  }
  EXPECT_EQ(run({"fdisk", "/dev/sda"}, "-e p\nq\n"), 0);
  EXPECT_EQ(received(), "p\nq\n");
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

TEST_F(Logger, EscapesControlCharacters) {
  const std::vector<std::pair<std::string, std::string>> texts = {
      {"two\n\tlines \\ \xC3\x89\n", "two\n\tlines \\ \xC3\x89\n"},
      {"no end of the line", "no end of the line"},
      {"a\x1b[2J\rb\x7f\n", "a\\x1b[2J\\x0db\\x7f\n"},
      {std::string("nul\0\n", 5), "nul\\x00\n"},
      {"\xC2\x9B"
       "31m\t\xC2\x85\n",
       "\\xc2\\x9b31m\t\\xc2\\x85\n"},
      {std::string(100000, '\b'),
       [] {
         std::string escaped;
         for (int i = 0; i < 100000; ++i) {
           escaped += "\\x08";
         }
         return escaped;
       }()},
      {"", ""},
  };
  for (const auto& [text, escaped] : texts) {
    EXPECT_EQ(run({"logger", "-s", "-t", "Dockhand"}, text), 0);
    EXPECT_EQ(received(), escaped);
    EXPECT_THAT(arguments(), ElementsAre("-s", "-t", "Dockhand"));
    EXPECT_EQ(complaint(), "complaint\n");
  }
}

TEST_F(Logger, DoesNotWaitForASyslogThatNobodyReads) {
  makeTool("real/logger", "exec sleep 1000\n");
  for (const std::string& text : {std::string("a line\n"), std::string(100000, 'x')}) {
    EXPECT_NE(run({"logger", "-s", "-t", "Dockhand"}, text), 0);
    EXPECT_THAT(complaint(), HasSubstr("the system log does not take the text"));
  }
}

TEST_F(Logger, EndsWithTheStatusOfTheRealTool) {
  makeTool("real/logger", "exit 3\n");
  EXPECT_EQ(run({"logger", "-s", "-t", "Dockhand"}, "a line\n"), 3);
}

TEST_F(MkfsXfs, DropsTheOptionThatCurrentToolsRefuse) {
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

/// Makes a sysfs with the disk `name` below a USB device, as the kernel arranges it.
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

TEST_F(ReadUsbVersion, DoesNotPrintTheVersionOfTheHub) {
  makeSysfs(directory / "sys", "sdb", "");
  const fs::path hub = directory / "sys/devices/pci0000:00/usb1";
  write(hub / "idVendor", "1d6b\n");
  write(hub / "version", " 3.00\n");
  for (const char* version : {"", "\n"}) {
    EXPECT_EQ(run({"readUsbVersion.sh", "sdb"}), 1);
    EXPECT_EQ(output(), "");
    EXPECT_THAT(complaint(), HasSubstr("its USB version cannot be read"));
    write(hub / "1-2/version", version);
  }
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

TEST_F(ReadUsbVersion, PrintsItsUsage) {
  EXPECT_EQ(run({"readUsbVersion.sh"}), 2);
  EXPECT_EQ(run({"readUsbVersion.sh", ""}), 2);
  EXPECT_EQ(run({"readUsbVersion.sh", "sda", "sdb"}), 2);
  EXPECT_THAT(complaint(), HasSubstr("usage"));
}

}  // namespace
