// The image's wrappers of dd, fdisk and umount, with kernel partitions, mounts elsewhere and several nodes.

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "SystemLog.h"
#include "SystemTest.h"

namespace systest {
namespace {

namespace fs = std::filesystem;

const std::string node = "/dev/usb_storage_sda1";

StickOptions partitioned() {
  StickOptions options;
  options.bytes = enoughForXfs;
  options.partitioned = true;
  return options;
}

void makeNode(const std::string& path, dev_t number) {
  fs::remove(path);
  if (mknod(path.c_str(), S_IFBLK | 0660, number) != 0) {
    throw std::runtime_error("cannot make " + path);
  }
}

dev_t numberOf(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    throw std::runtime_error("cannot look at " + path);
  }
  return status.st_rdev;
}

std::string firstMib(const std::string& image) {
  std::string bytes(Stick::partitionOffset, '\0');
  std::ifstream(image, std::ios::binary).read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return bytes;
}

/// Lets the node of the stick's partition name a partition that the kernel itself has made on the disk.
void useKernelsPartition(const Stick& stick) {
  run({"partx", "--add", "--nr", "1", stick.diskNode()});
  const dev_t disk = numberOf(stick.diskNode());
  const std::string folder =
      "/sys/dev/block/" + std::to_string(major(disk)) + ":" + std::to_string(minor(disk));
  for (const auto& entry : fs::directory_iterator(folder)) {
    if (fs::exists(entry.path() / "partition")) {
      unsigned majorNumber = 0;
      unsigned minorNumber = 0;
      char colon = 0;
      std::ifstream(entry.path() / "dev") >> majorNumber >> colon >> minorNumber;
      makeNode(stick.node(), makedev(majorNumber, minorNumber));
    }
  }
}

/// A mount that only another process sees.
class MountElsewhere {
 public:
  MountElsewhere(const std::string& source, const std::string& target) {
    int ends[2] = {-1, -1};
    EXPECT_EQ(pipe(ends), 0);
    process_ = fork();
    if (process_ == 0) {
      const bool mounted = unshare(CLONE_NEWNS) == 0 &&
                           mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                           mount(source.c_str(), target.c_str(), "ext3", 0, "") == 0;
      if (mounted && write(ends[1], "m", 1) == 1) {
        pause();
      }
      _exit(1);
    }
    close(ends[1]);
    char byte = 0;
    EXPECT_EQ(read(ends[0], &byte, 1), 1) << "nothing was mounted";
    close(ends[0]);
  }
  MountElsewhere(const MountElsewhere&) = delete;
  MountElsewhere& operator=(const MountElsewhere&) = delete;
  ~MountElsewhere() {
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
  }

 private:
  pid_t process_ = -1;
};

class WrappersTest : public SystemTest {
 protected:
  void SetUp() override {
    SystemTest::SetUp();
    if (!IsSkipped()) {
      // Behind the wrappers, the tools of a small image.
      fs::create_symlink(run({"/bin/sh", "-c", "printf %s \"$(command -v busybox)\""}), "/tmp/bin/umount");
    }
  }

  /// The exit status of a shell command, a blank, and its output.
  static std::string outcome(const std::string& command) {
    return run({"/bin/sh", "-c",
                "PATH=" + withImageTools().at("PATH") + "; text=$(" + command + " 2>&1); echo $? \"$text\""});
  }

  static void mountAt(const std::string& source, const std::string& target) {
    fs::create_directory(target);
    ASSERT_EQ(mount(source.c_str(), target.c_str(), "ext3", 0, ""), 0) << target;
  }
};

TEST_F(WrappersTest, DiskThatIsMountedInAnotherNamespaceIsNotPrepared) {
  SystemLog systemLog;
  const Stick stick(partitioned());
  useKernelsPartition(stick);
  fs::create_directory("/media/elsewhere");
  const std::string before = firstMib(stick.image());
  const MountElsewhere mounted(stick.node(), "/media/elsewhere");
  const Daemon daemon(withImageTools());
  UsbClient client;
  EXPECT_THAT(mountsAt("/media/elsewhere"), IsEmpty());
  EXPECT_FALSE(client->PrepareDeviceForPvr(1));
  EXPECT_THAT(systemLog.text(), HasSubstr("dd: \"/dev/usb_storage_sda\" is in use"));
  EXPECT_THAT(systemLog.text(), HasSubstr("fdisk: \"/dev/usb_storage_sda\" is in use"));
  EXPECT_THAT(daemon.log(), Not(HasSubstr("Executing: mkfs.xfs")));
  run({"sync"});
  EXPECT_TRUE(firstMib(stick.image()) == before);
}

TEST_F(WrappersTest, DdWritesToABlockDeviceOrNotAtAll) {
  const std::string daemonsOwn = "dd if=/dev/zero of=/dev/usb_storage_sda bs=512 count=1";
  EXPECT_THAT(outcome(daemonsOwn), StartsWith("1 dd: \"/dev/usb_storage_sda\": No such file"));
  EXPECT_FALSE(fs::exists("/dev/usb_storage_sda"));
  writeFile("/dev/usb_storage_sda", "text");
  EXPECT_THAT(outcome(daemonsOwn), StartsWith("1 dd: \"/dev/usb_storage_sda\" is not a block device"));
  EXPECT_EQ(readFile("/dev/usb_storage_sda"), "text");
}

TEST_F(WrappersTest, FdiskMakesOnePartitionWhateverTheSectorSize) {
  constexpr std::uintmax_t mib = 1 << 20;
  // A DOS table names 2^32 sectors, which are 16 TiB here.
  for (const std::uintmax_t size : {300 * mib, (std::uintmax_t{16} << 40) + 300 * mib}) {
    const std::string image = "/tmp/large.img";
    writeFile(image, "");
    fs::resize_file(image, size);
    const LoopDevice loop(image, 0, 0, false, 4096);
    makeNode("/dev/usb_storage_sda", loop.deviceNumber());
    EXPECT_THAT(outcome("dd if=/dev/zero of=/dev/usb_storage_sda bs=512 count=1"), StartsWith("0"));
    EXPECT_THAT(outcome("echo -e 'n\\np\\n1\\n\\n\\nw' | fdisk /dev/usb_storage_sda"), StartsWith("0"));
    const std::string table = run({"sfdisk", "--dump", "/dev/usb_storage_sda"});
    EXPECT_THAT(table, HasSubstr(size > (std::uintmax_t{1} << 44) ? "label: gpt" : "label: dos"));
    EXPECT_THAT(table, HasSubstr("sector-size: 4096"));
    EXPECT_THAT(table, HasSubstr("start=         256, size="));
    EXPECT_EQ(table.find("start="), table.rfind("start=")) << table;
    fs::remove("/dev/usb_storage_sda");
    fs::remove(image);
  }
}

TEST_F(WrappersTest, EveryMountOfADiskIsTakenAwayByWhateverNameItWasMounted) {
  const Stick stick(partitioned());
  // As udev makes it: the node has the kernel's name, and a link has ours.
  makeNode("/dev/sda1", numberOf(node));
  fs::remove(node);
  fs::create_symlink("sda1", node);
  mountAt("/dev/sda1", "/media/by the kernel's name");
  mountAt(node, "/media/by\tour\nname\\040\\");
  mountAt("/dev/sda1", "/media/twice");
  for (const char* target : {"/media/bound", "/media/twice"}) {
    fs::create_directory(target);
    ASSERT_EQ(mount("/media/twice/lost+found", target, nullptr, MS_BIND, nullptr), 0);
  }
  // Its path is the beginning of another mount's path.
  fs::create_directory("/media/by");
  ASSERT_EQ(mount("none", "/media/by", "tmpfs", 0, ""), 0);

  const Daemon daemon(withImageTools());
  UsbClient client;
  EXPECT_TRUE(client->PrepareDeviceForPvr(1)) << daemon.log();
  std::vector<std::string> unmounted;
  for (const std::string& line : daemon.logLines()) {
    if (line.find("unmounted: " + node) != std::string::npos) {
      unmounted.push_back(line);
    }
  }
  EXPECT_EQ(unmounted.size(), 5U) << daemon.log();
  EXPECT_THAT(readFile("/proc/self/mounts"), Not(HasSubstr("sda1")));
  EXPECT_EQ(mountsAt("/media/by").size(), 1U);
}

TEST_F(WrappersTest, UmountTakesAwayNoMountOfAnother) {
  const Stick stick(partitioned());
  const std::string complaint = "1 umount: \"" + node + "\": ";
  EXPECT_THAT(outcome("umount -f " + node), StartsWith(complaint + "not mounted"));
  mountAt(node, "/media/covered");
  ASSERT_EQ(mount("none", "/media/covered", "tmpfs", 0, ""), 0);
  EXPECT_THAT(outcome("umount -f " + node), StartsWith(complaint + "another mount is on top of it"));
  EXPECT_EQ(mountsAt("/media/covered").size(), 2U);
  ASSERT_EQ(umount("/media/covered"), 0);

  const int kept = open("/media/covered", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  EXPECT_THAT(outcome("umount -f " + node),
              StartsWith(complaint + "\"/media/covered\": Device or resource busy"));
  close(kept);
  // A removed disk still has a name, but no device number.
  fs::remove(node);
  EXPECT_EQ(outcome("umount -f " + node), "0 \n");
  EXPECT_THAT(mountsAt("/media/covered"), IsEmpty());
  EXPECT_THAT(outcome("umount -f " + node), StartsWith(complaint + "not mounted"));
}

}  // namespace
}  // namespace systest
