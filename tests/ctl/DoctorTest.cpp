// The checks of doctor on fake systems, and doctor itself on this system.

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <set>

#include "CtlTest.h"
#include "ExpectedMounts.h"
#include "FileDescriptor.h"
#include "doctor/Checks.h"

namespace dockhandctl::doctor {

// GoogleTest prints findings of failed tests.
static void PrintTo(const Finding& finding, std::ostream* out) {
  *out << finding.check << " [" << static_cast<int>(finding.state) << "] " << finding.message << " / "
       << finding.remedy;
}

namespace {

namespace filesystem = std::filesystem;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

MATCHER_P2(Is, state, message, "") {
  return arg.state == state && ::testing::Matches(message)(arg.message) &&
         arg.remedy.empty() == (state == State::ok);
}

/// One finding, with this text in its message.
auto Finds(State state, const std::string& text) {
  return ElementsAre(Is(state, HasSubstr(text)));
}

MATCHER_P3(IsFor, check, state, message, "") {
  return arg.check == check && ::testing::Matches(Is(state, message))(arg);
}

class Doctor : public ::testing::Test {
 protected:
  Doctor() {
    std::string name = filesystem::temp_directory_path() / "dockhandctl-test-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
      throw std::runtime_error("cannot make a directory");
    }
    machine.root = name;
    machine.socket = "/run/ravel/9020.sock";
    machine.owner = getuid();
    machine.path = {"/usr/sbin", "/usr/bin"};
    machine.kernelRelease = "6.1.0";
    machine.run = [this](const std::vector<std::string>& command) {
      std::string words;
      for (const std::string& word : command) {
        words += (words.empty() ? "" : " ") + word;
      }
      commands.push_back(words);
      for (const auto& [beginning, result] : results) {
        if (words.rfind(beginning, 0) == 0) {
          return result;
        }
      }
      return CommandResult{127, ""};
    };
    machine.isOnReadOnlyFileSystem = [](const std::string&) { return false; };
    machine.isBlockDevice = [this](const std::string& file) {
      return blockDevices.count(file.substr(machine.root.size())) != 0;
    };
  }
  ~Doctor() override { filesystem::remove_all(machine.root); }
  Doctor(const Doctor&) = delete;
  Doctor& operator=(const Doctor&) = delete;

  void write(const std::string& path, const std::string& text) const {
    makeDirectory(filesystem::path(path).parent_path());
    std::ofstream(machine.root + path) << text;
  }
  void makeDirectory(const std::string& path, mode_t mode = 0755) const {
    filesystem::create_directories(machine.root + path);
    chmod((machine.root + path).c_str(), mode);
  }
  void makeProgram(const std::string& path) const {
    write(path, "#!/bin/sh\n");
    chmod((machine.root + path).c_str(), 0755);
  }
  void makeSocket(mode_t mode) {
    makeDirectory("/run/ravel");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (machine.root + machine.socket).copy(address.sun_path, sizeof(address.sun_path) - 1);
    socket.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    chmod((machine.root + machine.socket).c_str(), mode);
  }

  Machine machine;
  /// The results of commands by the text that they begin with.
  std::map<std::string, CommandResult> results;
  std::vector<std::string> commands;
  std::set<std::string> blockDevices;
  ravel::rpc::FileDescriptor socket;
};

TEST_F(Doctor, ReportsWhetherTheSocketIsServed) {
  EXPECT_THAT(checkSocket(machine), Finds(State::ok, "is served"));
  machine.connectionError = ENOENT;
  EXPECT_THAT(checkSocket(machine), Finds(State::problem, "does not exist"));
  machine.connectionError = ECONNREFUSED;
  EXPECT_THAT(checkSocket(machine), Finds(State::problem, "nobody serves"));
  machine.connectionError = EACCES;
  EXPECT_THAT(checkSocket(machine), Finds(State::problem, "permission denied"));
  machine.connectionError = ENOMEM;
  EXPECT_THAT(checkSocket(machine), Finds(State::problem, "memory"));
}

TEST_F(Doctor, DemandsThatOnlyRootAndTheGroupMayUseTheSocket) {
  EXPECT_THAT(checkSocketMode(machine), Finds(State::problem, "No such file"));
  makeSocket(0660);
  EXPECT_THAT(checkSocketMode(machine), Finds(State::ok, "mode 0660"));
  chmod((machine.root + machine.socket).c_str(), 0666);
  EXPECT_THAT(checkSocketMode(machine), Finds(State::problem, "everybody may wipe"));
  chmod((machine.root + machine.socket).c_str(), 0660);
  machine.owner = getuid() + 1;
  EXPECT_THAT(checkSocketMode(machine), Finds(State::problem, "owner"));
}

TEST_F(Doctor, FindsAFileInTheSocketsPlace) {
  write("/run/ravel/9020.sock", "");
  EXPECT_THAT(checkSocketMode(machine), Finds(State::problem, "not a socket"));
}

TEST_F(Doctor, DemandsThatTheSocketsDirectoryIsRoots) {
  EXPECT_THAT(checkSocketDirectory(machine), Finds(State::problem, "No such file"));
  makeDirectory("/run/ravel");
  EXPECT_THAT(checkSocketDirectory(machine), Finds(State::ok, "mode 0755"));
  makeDirectory("/run/ravel", 0775);
  EXPECT_THAT(checkSocketDirectory(machine), Finds(State::problem, "in the daemon's place"));
  makeDirectory("/run/ravel");
  machine.owner = getuid() + 1;
  EXPECT_THAT(checkSocketDirectory(machine), Finds(State::problem, "owner"));
}

TEST_F(Doctor, DemandsThatMediaIsWritable) {
  EXPECT_THAT(checkMedia(machine), Finds(State::problem, "not a directory"));
  makeDirectory("/media");
  EXPECT_THAT(checkMedia(machine), Finds(State::ok, "/media"));
  makeDirectory("/media", 0555);
  EXPECT_THAT(checkMedia(machine), Finds(State::warning, "the daemon may not write"));
  makeDirectory("/media");
  machine.isOnReadOnlyFileSystem = [this](const std::string& path) {
    return path == machine.root + "/media";
  };
  EXPECT_THAT(checkMedia(machine), Finds(State::problem, "read-only"));
}

TEST_F(Doctor, DemandsThatOnlyRootMayWriteToMedia) {
  for (const mode_t mode : {0775U, 0757U, 01777U}) {
    makeDirectory("/media", mode);
    EXPECT_THAT(checkMedia(machine), Finds(State::problem, "others than root"));
  }
}

TEST_F(Doctor, DemandsThatTmpIsRootsAndStickyIfOthersMayWriteToIt) {
  EXPECT_THAT(checkTmp(machine), Finds(State::problem, "not a directory"));
  for (const mode_t mode : {01777U, 01770U, 0755U}) {
    makeDirectory("/tmp", mode);
    EXPECT_THAT(checkTmp(machine), Finds(State::ok, "safe")) << mode;
  }
  for (const mode_t mode : {0777U, 0775U}) {
    makeDirectory("/tmp", mode);
    EXPECT_THAT(checkTmp(machine), Finds(State::problem, "put a link there")) << mode;
  }
  makeDirectory("/tmp", 01777);
  machine.owner = getuid() + 1;
  EXPECT_THAT(checkTmp(machine), Finds(State::problem, "put a link there"));
}

TEST_F(Doctor, DemandsThatTheKernelProtectsFilesInSharedDirectories) {
  EXPECT_THAT(checkProtectedFiles(machine), Finds(State::warning,
                                                  "fs.protected_symlinks, fs.protected_hardlinks, "
                                                  "fs.protected_fifos, fs.protected_regular"));
  for (const char* name : {"symlinks", "hardlinks", "fifos"}) {
    write(std::string("/proc/sys/fs/protected_") + name, "1\n");
  }
  write("/proc/sys/fs/protected_regular", "0\n");
  EXPECT_THAT(checkProtectedFiles(machine),
              ElementsAre(Is(State::warning, ::testing::EndsWith("are off: fs.protected_regular"))));
  write("/proc/sys/fs/protected_regular", "2\n");
  EXPECT_THAT(checkProtectedFiles(machine), Finds(State::ok, "their owners only"));
}

TEST_F(Doctor, SaysWhosePathItLooksAt) {
  EXPECT_THAT(checkPath(machine), Finds(State::ok, "the daemon looks"));
  machine.pathIsDaemons = false;
  machine.reasonForOtherPath = "the daemon was not found";
  EXPECT_THAT(checkPath(machine), Finds(State::warning, "the daemon was not found"));
}

TEST_F(Doctor, SplitsAPath) {
  EXPECT_THAT(splitPath("/a:/b/c"), ElementsAre("/a", "/b/c"));
  EXPECT_THAT(splitPath("/a::/b"), ElementsAre("/a", ".", "/b"));
}

TEST_F(Doctor, FindsEachToolInThePath) {
  makeProgram("/usr/bin/dd");
  write("/usr/bin/rm", "");  // Not executable.
  makeProgram("/opt/sfdisk");
  const Findings findings = checkTools(machine);
  EXPECT_THAT(findings, Contains(IsFor("dd", State::ok, "/usr/bin/dd")));
  EXPECT_THAT(findings, Contains(IsFor("rm", State::problem, HasSubstr("not in the PATH"))));
  for (const std::string tool :
       {"umount", "sfdisk", "fdisk", "mkfs.xfs", "xfs_repair", "logger", "readUsbVersion.sh"}) {
    EXPECT_THAT(findings, Contains(IsFor(tool, State::problem, HasSubstr("not in the PATH"))));
  }
  EXPECT_THAT(findings, Contains(IsFor("udevadm", State::ok, HasSubstr("not in the PATH"))));
}

TEST_F(Doctor, FindsToolsThatAreRunWithoutTheirWrappers) {
  machine.path = {"/opt/lib/dockhand/tools", "/usr/bin"};
  makeProgram("/usr/bin/fdisk");
  EXPECT_THAT(checkWrappers(machine), Finds(State::warning, "before /usr/bin/fdisk, so"));
  makeProgram("/usr/bin/dd");
  EXPECT_THAT(checkWrappers(machine), Finds(State::warning, "/usr/bin/dd, /usr/bin/fdisk"));
  makeProgram("/opt/lib/dockhand/tools/dd");
  makeProgram("/opt/lib/dockhand/tools/fdisk");
  EXPECT_THAT(checkWrappers(machine), Finds(State::ok, "wrappers come before"));
}

TEST_F(Doctor, RunsTheDaemonsFdiskCommandOnAFile) {
  makeProgram("/usr/sbin/fdisk");
  machine.run = [](const std::vector<std::string>& command) {
    EXPECT_EQ(command.at(2), R"(echo -e 'n\np\n1\n\n\nw' | fdisk "$1")");
    std::fstream disk(command.at(4), std::ios::in | std::ios::out | std::ios::binary);
    disk.seekp(446 + 4);
    disk.put('\x83');
    return CommandResult{0, ""};
  };
  EXPECT_THAT(checkPartitioning(machine), Finds(State::ok, "/usr/sbin/fdisk makes the"));
}

TEST_F(Doctor, ReportsWhyFdiskMakesNoPartition) {
  EXPECT_THAT(checkPartitioning(machine), Finds(State::problem, "there is no fdisk"));
  makeProgram("/usr/sbin/fdisk");
  results["/bin/sh -c echo -e 'n\\np"] = {0, ""};
  results["/bin/sh -c echo -e 'n'"] = {0, "-e n\n"};
  EXPECT_THAT(checkPartitioning(machine), Finds(State::problem, "prints the -e"));
  results["/bin/sh -c echo -e 'n'"] = {0, "n\n"};
  EXPECT_THAT(checkPartitioning(machine), Finds(State::problem, "makes no partition"));
}

TEST_F(Doctor, RunsMkfsWithTheDaemonsOptions) {
  EXPECT_THAT(checkFormatting(machine), Finds(State::problem, "there is no mkfs.xfs"));
  makeProgram("/usr/sbin/mkfs.xfs");
  results["mkfs.xfs -N -f -l lazy-count=0 -L PVR_DISK /"] = {0, "meta-data=..."};
  EXPECT_THAT(checkFormatting(machine), Finds(State::ok, "/usr/sbin/mkfs.xfs accepts"));
  results = {{"mkfs.xfs", {1, "Lazy superblock counters always enabled\nUsage: mkfs.xfs\n"}}};
  EXPECT_THAT(checkFormatting(machine),
              Finds(State::problem, "lazy-count=0): Lazy superblock counters always enabled"));
}

TEST_F(Doctor, RemovesTheFilesThatItRunsDiskToolsOn) {
  makeProgram("/usr/sbin/mkfs.xfs");
  std::string file;
  machine.run = [&file](const std::vector<std::string>& command) {
    file = command.back();
    EXPECT_EQ(filesystem::file_size(file), std::uintmax_t{512} << 20);
    return CommandResult{0, ""};
  };
  checkFormatting(machine);
  EXPECT_FALSE(filesystem::exists(file));
}

class DoctorOnKernels : public Doctor {
 protected:
  void setFileSystems(const std::string& text) const { write("/proc/filesystems", text); }
  void configure(const std::string& text) const { write("/boot/config-6.1.0", text); }
  Finding fileSystem(const std::string& name) {
    for (const Finding& finding : checkFileSystems(machine)) {
      if (finding.check == name) {
        return finding;
      }
    }
    throw std::runtime_error("no finding for " + name);
  }

  const std::string all = "nodev\tproc\n\tvfat\n\tntfs\n\text3\n\thfs\n\thfsplus\n\txfs\n";
};

TEST_F(DoctorOnKernels, FindsMissingFileSystems) {
  setFileSystems("nodev\tproc\n\text4\n");
  std::vector<std::string> names;
  for (const Finding& finding : checkFileSystems(machine)) {
    EXPECT_THAT(finding, Is(State::problem, HasSubstr("the kernel has no " + finding.check)));
    names.push_back(finding.check);
  }
  EXPECT_EQ(names, testsupport::expectedFileSystems());
}

TEST_F(DoctorOnKernels, SaysThatNtfs3IsNotTried) {
  setFileSystems("\tntfs3\n");
  EXPECT_THAT(fileSystem("ntfs"), Is(State::problem, HasSubstr("ntfs3, which dockhand does not try")));
}

TEST_F(DoctorOnKernels, CountsModulesThatTheKernelWouldLoadAsPresent) {
  setFileSystems("");
  results["/sbin/modprobe -n -q fs-ext3"] = {0, ""};
  EXPECT_THAT(fileSystem("ext3"), Is(State::ok, HasSubstr("mounts it")));
}

TEST_F(DoctorOnKernels, ChecksTheMountOptions) {
  setFileSystems(all);
  configure("CONFIG_XFS_QUOTA=y\nCONFIG_NLS_UTF8=m\nCONFIG_NLS_CODEPAGE_437=y\nCONFIG_NLS_ASCII=m\n");
  EXPECT_THAT(fileSystem("vfat"), Is(State::ok, HasSubstr("utf8")));
  EXPECT_THAT(fileSystem("ntfs"), Is(State::ok, HasSubstr("nls=utf8")));
  EXPECT_THAT(fileSystem("hfs"), Is(State::warning, HasSubstr("does not know the mount option")));
  EXPECT_THAT(fileSystem("hfsplus"), Is(State::ok, HasSubstr("nls=utf8")));
  EXPECT_THAT(fileSystem("xfs"), Is(State::ok, HasSubstr("prjquota")));
}

TEST_F(DoctorOnKernels, FindsMissingOptionsOfTheKernel) {
  setFileSystems(all);
  configure("# CONFIG_XFS_QUOTA is not set\n# CONFIG_NLS_UTF8 is not set\n");
  EXPECT_THAT(fileSystem("vfat"), Is(State::warning, HasSubstr("character tables")));
  EXPECT_THAT(fileSystem("ntfs"), Is(State::problem, HasSubstr("nls=utf8")));
  EXPECT_THAT(fileSystem("hfsplus"), Is(State::problem, HasSubstr("nls=utf8")));
  EXPECT_THAT(fileSystem("xfs"), Is(State::problem, HasSubstr("prjquota")));
}

TEST_F(DoctorOnKernels, SaysWhatItCannotCheck) {
  setFileSystems(all);
  EXPECT_THAT(fileSystem("ntfs"), Is(State::warning, HasSubstr("cannot tell")));
  EXPECT_THAT(fileSystem("hfsplus"), Is(State::warning, HasSubstr("cannot tell")));
  EXPECT_THAT(fileSystem("xfs"), Is(State::warning, HasSubstr("cannot tell")));
}

TEST_F(DoctorOnKernels, LooksForTheTablesOfLargeDisks) {
  EXPECT_THAT(checkPartitionTables(machine), Finds(State::warning, "cannot tell"));
  configure("# CONFIG_EFI_PARTITION is not set\n");
  EXPECT_THAT(checkPartitionTables(machine), Finds(State::warning, "no GPT"));
  configure("CONFIG_EFI_PARTITION=y\n");
  EXPECT_THAT(checkPartitionTables(machine), Finds(State::ok, "above 2 TiB"));
}

TEST_F(DoctorOnKernels, ReadsTheConfigurationInsideTheKernel) {
  setFileSystems(all);
  write("/proc/config.gz", "compressed");
  results["gzip -d -c " + machine.root + "/proc/config.gz"] = {0, "CONFIG_A=y\nCONFIG_XFS_QUOTA=y\n"};
  EXPECT_THAT(fileSystem("xfs"), Is(State::ok, HasSubstr("prjquota")));
}

class DoctorOnMountPolicies : public DoctorOnKernels {
 protected:
  DoctorOnMountPolicies() { setFileSystems(all + "\texfat\n\text4\nnodev\ttmpfs\n"); }
  void setPolicy(const std::string& text) const { write("/etc/dockhand/mounts", text); }
};

TEST_F(DoctorOnMountPolicies, SaysWhichPolicyTheDaemonFollows) {
  EXPECT_THAT(checkMountPolicy(machine), Finds(State::ok, "there is no mount policy: sticks of other types"));
  machine.mountPolicy = "";
  EXPECT_THAT(checkMountPolicy(machine), Finds(State::ok, "there is no mount policy"));
  setPolicy("* refuse -\n");
  EXPECT_THAT(checkMountPolicy(machine), Finds(State::warning, "does not follow /etc/dockhand/mounts"));
  machine.mountPolicy = "/etc/dockhand/mounts";
  EXPECT_THAT(checkMountPolicy(machine), Finds(State::ok, "sticks of all other types are refused (line 1)"));
  machine.mountPolicy.reset();
  EXPECT_THAT(checkMountPolicy(machine), Finds(State::ok, "sticks of all other types are refused (line 1)"));
  machine.mountPolicy = "/opt/mounts";
  EXPECT_THAT(checkMountPolicy(machine), Finds(State::problem, "/opt/mounts: it is not a regular file"));
  write("/opt/mounts", "* ext4 nosuid,nodev\n");
  EXPECT_THAT(checkMountPolicy(machine),
              Finds(State::ok, "sticks of all other types are mounted as ext4 (line 1)"));
}

TEST_F(DoctorOnMountPolicies, ChecksEachRowAndSaysWhatHappensToTheOtherTypes) {
  setPolicy(
      "exfat exfat nosuid,nodev\next3 ext4 nosuid\next4 ext4 nodev\nntfs ntfs3 nosuid,nodev\nvfat vfat ro\n"
      "any tmpfs nosuid,nodev\nhfs refuse -\n");
  EXPECT_THAT(
      checkMountPolicy(machine),
      ElementsAre(Is(State::ok, "exfat sticks are mounted as exfat (line 1)"),
                  Is(State::warning, HasSubstr("ext3 sticks are mounted without nodev (line 2)")),
                  Is(State::warning, HasSubstr("ext4 sticks are mounted without nosuid (line 3)")),
                  Is(State::problem, "the kernel has no ntfs3: ntfs sticks cannot be opened (line 4)"),
                  Is(State::warning, HasSubstr("vfat sticks are mounted without nosuid,nodev (line 5)")),
                  Is(State::problem, "the kernel has no tmpfs: any sticks cannot be opened (line 6)"),
                  Is(State::ok, "hfs sticks are refused (line 7)"),
                  Is(State::ok, HasSubstr("/etc/dockhand/mounts has no row for sticks of other types"))));
}

TEST_F(DoctorOnMountPolicies, SaysWhyTheDaemonDoesNotStart) {
  const std::string beginning = "the daemon does not start with the mount policy /etc/dockhand/mounts: ";
  setPolicy("exfat exfat -\nvfat\n");
  EXPECT_THAT(checkMountPolicy(machine),
              Finds(State::problem, beginning + "line 2: a row has three columns"));
  setPolicy("exfat exfat -\n");
  const std::string file = machine.root + "/etc/dockhand/mounts";
  for (const mode_t mode : {0664U, 0646U}) {
    chmod(file.c_str(), mode);
    EXPECT_THAT(checkMountPolicy(machine), Finds(State::problem, beginning + "it must be root's")) << mode;
  }
  chmod(file.c_str(), 0644);
  machine.owner = getuid() + 1;
  EXPECT_THAT(checkMountPolicy(machine), Finds(State::problem, beginning + "it must be root's"));
  machine.owner = getuid();
  filesystem::remove(file);
  filesystem::create_symlink("nowhere", file);
  EXPECT_THAT(checkMountPolicy(machine), Finds(State::problem, beginning + "it is not a regular file"));
}

TEST_F(DoctorOnMountPolicies, ChecksTheDaemonsOwnRowsOnlyIfThePolicyMountsAsTheyDo) {
  struct Row {
    const char* description;
    const char* policy;
    std::vector<std::string> checked;
  };
  const std::vector<Row> rows = {
      {"no row", "exfat exfat -\n", {"vfat", "ntfs", "ext3", "hfs", "hfsplus", "xfs"}},
      {"refused", "ntfs refuse -\n", {"vfat", "ext3", "hfs", "hfsplus", "xfs"}},
      {"another driver", "ntfs ntfs3 nls=utf8\n", {"vfat", "ext3", "hfs", "hfsplus", "xfs"}},
      {"other options", "xfs xfs quota\n* refuse -\n", {}},
      {"its options", "xfs xfs ro,prjquota,quota\nvfat vfat utf8\n* refuse -\n", {"vfat", "xfs"}},
      {"part of an option", "xfs xfs noprjquota\nvfat vfat utf88\n* refuse -\n", {}},
      {"bad policy", "* refuse\n", {"vfat", "ntfs", "ext3", "hfs", "hfsplus", "xfs"}},
  };
  for (const Row& row : rows) {
    setPolicy(row.policy);
    std::vector<std::string> checked;
    for (const Finding& finding : checkFileSystems(machine)) {
      checked.push_back(finding.check);
    }
    EXPECT_EQ(checked, row.checked) << row.description;
  }
}

TEST_F(DoctorOnMountPolicies, FindsNothingToSayAgainstTheExample) {
  std::ifstream file(DOCKHAND_SOURCE_DIR "/integration/mounts/mounts.example");
  std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  // The group need not exist here.
  for (std::size_t at = 0; (at = text.find("gid=dockhand", at)) != std::string::npos;) {
    text.replace(at, 12, "gid=root");
  }
  setPolicy(text);
  setFileSystems(all + "\text4\n\texfat\n\tntfs3\n\tiso9660\n\tudf\n");
  const Findings findings = checkMountPolicy(machine);
  for (const Finding& finding : findings) {
    EXPECT_EQ(finding.state, State::ok) << finding.message;
  }
  ASSERT_EQ(findings.size(), 11U);
  EXPECT_THAT(findings.back().message, HasSubstr("sticks of all other types are refused"));
}

TEST_F(Doctor, LooksForTheUdevRules) {
  EXPECT_THAT(checkUdevRules(machine), Finds(State::warning, "not installed"));
  write("/usr/lib/udev/rules.d/60-dockhand.rules", "");
  EXPECT_THAT(checkUdevRules(machine), Finds(State::ok, "/usr/lib/udev/rules.d"));
}

TEST_F(Doctor, FindsNodesThatAreNoBlockDevices) {
  EXPECT_THAT(checkNodes(machine), Finds(State::problem, "/dev cannot be read"));
  makeDirectory("/dev");
  write("/dev/sda", "");
  EXPECT_THAT(checkNodes(machine), Finds(State::ok, "nothing is plugged in"));
  write("/dev/usb_storage_sda", "");
  blockDevices.insert("/dev/usb_storage_sda");
  EXPECT_THAT(checkNodes(machine), Finds(State::ok, "are block devices"));
  write("/dev/old-usb_storage_sdb", "");
  EXPECT_THAT(checkNodes(machine), Finds(State::problem, "/dev/old-usb_storage_sdb is not a block device"));
}

TEST_F(Doctor, MeasuresTheMountTableOfTheDaemon) {
  machine.daemon = 42;
  EXPECT_THAT(checkMountTable(machine), Finds(State::problem, "no mount table"));
  write("/proc/42/mounts", std::string("none / ") + std::string(200, 'x') + "\n");
  EXPECT_THAT(checkMountTable(machine), Finds(State::ok, "the daemon's mount table has 208"));
  write("/proc/42/mounts", std::string("none / ") + std::string(900, 'x') + "\n");
  EXPECT_THAT(checkMountTable(machine), Finds(State::warning, "one more device only"));
  write("/proc/42/mounts", std::string("none / ") + std::string(1000, 'x') + "\n");
  EXPECT_THAT(checkMountTable(machine), Finds(State::problem, "will lie beyond"));
}

TEST_F(Doctor, FindsADeviceBeyondThePartOfTheMountTableThatIsRead) {
  const std::string stick = "/dev/usb_storage_sda1 /media/disk_1 vfat rw 0 0\n";
  const std::size_t upToBlank = stick.find(" vfat") + 1;
  machine.daemon = 42;
  const auto tableWithStickAt = [&](std::size_t offset) {
    return std::string(offset - 1, 'x') + "\n" + stick;
  };
  write("/proc/42/mounts", tableWithStickAt(1024 - upToBlank));
  EXPECT_THAT(checkMountTable(machine), Finds(State::problem, "the next device"));
  write("/proc/42/mounts", tableWithStickAt(1024 - upToBlank + 1));
  EXPECT_THAT(checkMountTable(machine), Finds(State::problem, "/media/disk_1 lies beyond"));
}

TEST_F(Doctor, FallsBackOnItsOwnMountTable) {
  write("/proc/self/mounts", "none / overlay rw 0 0\n");
  EXPECT_THAT(checkMountTable(machine), Finds(State::ok, "dockhandctl's own mount table"));
}

TEST_F(Doctor, FindsALogFileThatIsNotTheDaemons) {
  EXPECT_THAT(checkLogFile(machine), Finds(State::ok, "does not exist yet"));
  write("/tmp/Dockhand.log", "");
  EXPECT_THAT(checkLogFile(machine), Finds(State::ok, "is the daemon's"));
  machine.owner = getuid() + 1;
  EXPECT_THAT(checkLogFile(machine), Finds(State::problem, "belongs to user"));
  filesystem::remove(machine.root + "/tmp/Dockhand.log");
  filesystem::create_symlink("/etc/passwd", machine.root + "/tmp/Dockhand.log");
  EXPECT_THAT(checkLogFile(machine), Finds(State::problem, "not a regular file"));
}

class DoctorProgram : public ctltest::CtlTest {};

nlohmann::json checkOf(const nlohmann::json& report, const std::string& name) {
  for (const auto& check : report.at("checks")) {
    if (check.at("check") == name) {
      return check;
    }
  }
  throw std::runtime_error("no check " + name);
}

TEST_F(DoctorProgram, FindsTheDaemonAndItsPath) {
  const ctltest::Outcome outcome = ctltest::run({"doctor", "--json"});
  const auto report = nlohmann::json::parse(outcome.out);
  EXPECT_EQ(checkOf(report, "socket").at("state"), "ok");
  EXPECT_THAT(checkOf(report, "path").at("message").get<std::string>(), HasSubstr("the daemon looks"));
  EXPECT_EQ(outcome.exitCode, report.at("ok").get<bool>() ? 0 : 1);
}

TEST_F(DoctorProgram, LooksAtItsOwnPathWithoutADaemon) {
  const std::string directory = ctltest::service().sockets.path() / "none";
  const ctltest::Outcome outcome =
      ctltest::run({"doctor"}, {{{"RAVEL_SOCKET_DIR", directory}, {"PATH", "/nowhere"}}});
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_THAT(outcome.out,
              HasSubstr("problem  socket: " + directory + "/9020.sock does not exist. Fix: start"));
  EXPECT_THAT(outcome.out, HasSubstr("warning  path: the checks use dockhandctl's own PATH, /nowhere,"));
  EXPECT_THAT(outcome.out, HasSubstr("problem  mkfs.xfs: not in the PATH"));
}

TEST_F(DoctorProgram, SucceedsWhenEveryProblemIsIgnored) {
  const auto report = nlohmann::json::parse(ctltest::run({"doctor", "--json"}).out);
  ctltest::Arguments arguments = {"doctor"};
  for (const auto& check : report.at("checks")) {
    if (check.at("state") != "ok") {
      arguments.insert(arguments.end(), {"--ignore", check.at("check")});
    }
  }
  EXPECT_EQ(ctltest::run(arguments).exitCode, 0);
}

}  // namespace
}  // namespace dockhandctl::doctor
