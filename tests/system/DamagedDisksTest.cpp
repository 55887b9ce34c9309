// Disks with damaged headers: whatever libblkid and the kernel do with them, the daemon replies and keeps
// serving.

#include <signal.h>
#include <sys/stat.h>
#include <thrift/transport/TTransportException.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "SystemTest.h"

namespace systest {
namespace {

/// Bytes by their offset in the image.
using Bytes = std::map<std::uint64_t, std::uint8_t>;

/// Damages an image in a new way each time, at places where a fresh file system has data.
class Damager {
 public:
  explicit Damager(const std::string& image)
      : image_(image, std::ios::in | std::ios::out | std::ios::binary) {
    constexpr std::size_t maxSectors = 64;
    std::string sector(sectorSize, '\0');
    for (std::uint64_t at = 0; at < searched && sectors_.size() < maxSectors; at += sectorSize) {
      image_.seekg(static_cast<std::streamoff>(at));
      if (image_.read(sector.data(), sectorSize) && sector.find_first_not_of('\0') != std::string::npos) {
        sectors_.push_back(at);
      }
      image_.clear();
    }
    if (sectors_.size() < 2) {
      throw std::runtime_error(image + " holds no file system");
    }
  }

  /// Never damages these bytes.
  void spare(std::uint64_t begin, std::uint64_t end) {
    for (std::uint64_t at = begin; at < end; ++at) {
      spared_[at] = 0;
    }
  }

  /// Damages 1 to 64 bytes, usually few. Half of them are in the first two sectors with data, which contain
  /// the superblock.
  void damage() {
    repair();
    const std::uint64_t count = std::uint64_t{1} << random_() % 7;
    for (std::uint64_t i = 0; i < count; ++i) {
      const std::uint64_t sector = sectors_[random_() % (random_() % 2 == 0 ? 2 : sectors_.size())];
      const std::uint64_t at = sector + random_() % sectorSize;
      if (spared_.count(at) == 0) {
        original_.emplace(at, byteAt(at));
        write(at, otherByte(byteAt(at)));
      }
    }
    image_.flush();
  }

  void repair() {
    for (const auto& [at, byte] : original_) {
      write(at, byte);
    }
    original_.clear();
    image_.flush();
  }

 private:
  static constexpr std::uint64_t sectorSize = 512;
  static constexpr std::uint64_t searched = std::uint64_t{4} << 20;

  std::uint8_t byteAt(std::uint64_t at) {
    image_.seekg(static_cast<std::streamoff>(at));
    return static_cast<std::uint8_t>(image_.get());
  }

  void write(std::uint64_t at, std::uint8_t byte) {
    image_.seekp(static_cast<std::streamoff>(at));
    if (!image_.put(static_cast<char>(byte))) {
      throw std::runtime_error("an image cannot be written");
    }
  }

  /// Flips a bit, or returns a byte that makes lengths and counts wrong.
  std::uint8_t otherByte(std::uint8_t byte) {
    constexpr std::uint8_t edges[] = {0x00, 0x7F, 0x80, 0xFF};
    const auto choice = random_() % 12;
    return choice < 8 ? static_cast<std::uint8_t>(byte ^ 1U << choice) : edges[choice - 8];
  }

  // The same damage on every run.
  std::mt19937_64 random_{20240229};
  std::fstream image_;
  std::vector<std::uint64_t> sectors_;
  Bytes original_;
  Bytes spared_;
};

std::size_t openDescriptors(const Daemon& daemon) {
  return namesIn("/proc/" + std::to_string(daemon.pid()) + "/fd").size();
}

/// File systems of the mount table, and related ones that sticks have.
class DamagedFileSystemTest : public SystemTest, public testing::WithParamInterface<const char*> {};

TEST_P(DamagedFileSystemTest, IsProbedAndRefusedAndTheDaemonKeepsServing) {
  constexpr int variants = 400;
  std::filesystem::create_directory("/tmp/damaged");
  run({"/usr/bin/python3", "-B", DOCKHAND_SOURCE_DIR "/tests/vm/disks.py", "/tmp/damaged", GetParam(),
       "HOLIDAY"});
  const std::string image = "/tmp/damaged/stick.img";
  // Not a block device: libblkid reads it anyway, but the kernel does not.
  ASSERT_EQ(symlink(image.c_str(), "/dev/usb_storage_sda"), 0);
  {
    Damager damager(image);
    const Daemon daemon;
    UsbClient client;
    ASSERT_EQ(client.label(1).text, "HOLIDAY");
    ASSERT_FALSE(client->OpenDevice(1));
    const std::size_t descriptors = openDescriptors(daemon);

    int labelled = 0;
    int identified = 0;
    for (int variant = 0; variant < variants; ++variant) {
      damager.damage();
      const auto label = client.label(1);
      ASSERT_TRUE(label.success);
      labelled += label.text != "NONAME" ? 1 : 0;
      identified += client.uuid(1).success ? 1 : 0;
      ASSERT_FALSE(client->OpenDevice(1));
    }
    ASSERT_TRUE(daemon.isRunning());
    // The daemon keeps a failed probe until the next one fails.
    EXPECT_LE(openDescriptors(daemon), descriptors + 1);
    damager.repair();
    EXPECT_EQ(client.label(1).text, "HOLIDAY");
    std::cout << GetParam() << ": " << variants << " damaged images, " << labelled << " with a label, "
              << identified << " with a UUID\n";
  }
  std::filesystem::remove_all("/tmp/damaged");
}

INSTANTIATE_TEST_SUITE_P(Each, DamagedFileSystemTest,
                         testing::Values("ext2", "ext3", "ext4", "vfat", "fat32", "ntfs", "hfs", "hfsplus",
                                         "xfs"),
                         [](const auto& each) { return std::string(each.param); });

class DamagedDisksTest : public SystemTest {};

// Only for ext3 does the machine's own kernel read the damage.
TEST_F(DamagedDisksTest, Ext3IsOpenedOrRefusedAndTheDaemonKeepsServing) {
  constexpr int variants = 150;
  StickOptions options;
  options.bytes = std::uint64_t{2} << 20;
  options.files = {{"song.mp3", "la la la"}};
  const Stick stick(options);
  const std::string sound = readFile(stick.node());
  Damager damager(stick.node());
  // These bytes tell the kernel what to do after an error. One value means panic.
  damager.spare(1024 + 0x3C, 1024 + 0x3E);

  const Daemon daemon;
  UsbClient client;
  int opened = 0;
  int mounted = 0;
  for (int variant = 0; variant < variants; ++variant) {
    writeFile(stick.node(), sound);
    damager.damage();
    opened += client->OpenDevice(1) ? 1 : 0;
    mounted += mountsAt("/media/disk_1").empty() ? 0 : 1;
    client.files(1, "", "mp3");
    client->CloseDevice(1);
    ASSERT_THAT(mountsAt("/media/disk_1"), IsEmpty());
  }
  ASSERT_TRUE(daemon.isRunning());
  std::cout << "ext3 on a loop device: " << variants << " damaged disks, " << opened << " opened, " << mounted
            << " mounted\n";

  writeFile(stick.node(), sound);
  ASSERT_TRUE(client->OpenDevice(1));
  EXPECT_EQ(readFile("/media/disk_1/song.mp3"), "la la la");
}

/// Makes the root directory of an ext3 disk 4 GiB long. All its blocks are the same block of the disk, which
/// holds one name as often as it fits.
void nameOneBlockOverAndOver(const std::string& node, const std::string& name) {
  constexpr std::uint64_t blockSize = 4096;
  constexpr std::uint64_t superblock = 1024;
  constexpr std::uint32_t rootInode = 2;
  std::fstream disk(node, std::ios::in | std::ios::out | std::ios::binary);
  disk.exceptions(std::ios::failbit | std::ios::badbit);
  const auto number = [&disk](std::uint64_t at, std::size_t bytes) {
    std::string text(bytes, '\0');
    disk.seekg(static_cast<std::streamoff>(at));
    disk.read(text.data(), static_cast<std::streamsize>(bytes));
    std::uint32_t value = 0;
    for (std::size_t i = bytes; i-- > 0;) {
      value = value << 8 | static_cast<std::uint8_t>(text[i]);
    }
    return value;
  };
  const auto append = [](std::string& text, std::uint32_t value, std::size_t bytes) {
    for (; bytes-- > 0; value >>= 8) {
      text += static_cast<char>(value);
    }
  };
  const auto put = [&disk](std::uint64_t at, const std::string& text) {
    disk.seekp(static_cast<std::streamoff>(at));
    disk.write(text.data(), static_cast<std::streamsize>(text.size()));
  };
  const auto blockOf = [&](std::uint32_t value) {
    std::string block;
    while (block.size() < blockSize) {
      append(block, value, 4);
    }
    return block;
  };

  const std::uint32_t blocks = number(superblock + 4, 4);
  const std::uint32_t bitmap = number(blockSize, 4);
  const std::uint64_t inode =
      number(blockSize + 8, 4) * blockSize + (rootInode - 1) * number(superblock + 88, 2);
  // Two free blocks for the block numbers.
  const std::uint32_t single = blocks - 1;
  const std::uint32_t twofold = blocks - 2;
  if (number(superblock + 24, 4) != 2 || blocks % 8 != 0 ||
      (number(bitmap * blockSize + blocks / 8 - 1, 1) & 0xC0U) != 0) {
    throw std::runtime_error(node + " is not as it was to be made");
  }
  const std::uint32_t directory = number(inode + 40, 4);
  put(single * blockSize, blockOf(directory));
  put(twofold * blockSize, blockOf(single));
  std::string numbers;
  for (int i = 0; i < 12; ++i) {
    append(numbers, directory, 4);
  }
  append(numbers, single, 4);
  append(numbers, twofold, 4);
  put(inode + 40, numbers);
  std::string size;
  append(size, 0xFFFFF000, 4);
  put(inode + 4, size);

  const std::size_t length = (8 + name.size() + 3) / 4 * 4;
  const std::size_t entries = blockSize / length;
  std::string names;
  for (std::size_t i = 0; i < entries; ++i) {
    append(names, rootInode, 4);
    append(names, static_cast<std::uint32_t>(i + 1 < entries ? length : blockSize - names.size() + 4), 2);
    append(names, static_cast<std::uint32_t>(name.size()), 2);
    names += name;
    names.resize((i + 1) * length);
  }
  names.resize(blockSize);
  put(directory * blockSize, names);
}

class DirectoryBombTest : public SystemTest {
 protected:
  static StickOptions smallDisk() {
    StickOptions options;
    options.bytes = std::uint64_t{8} << 20;
    options.mkfs = {"mkfs.ext3", "-q", "-F", "-b", "4096"};
    return options;
  }
};

TEST_F(DirectoryBombTest, EndsAfterSoManyNamesWhateverIsLookedFor) {
  const Stick stick(smallDisk());
  nameOneBlockOverAndOver(stick.node(), "a.mp3");
  const Daemon daemon;
  UsbClient client;
  ASSERT_TRUE(client->OpenDevice(1));
  EXPECT_THAT(client.files(1, "", "ogg"), IsEmpty());
  EXPECT_THAT(daemon.log(), HasSubstr("readdir(/media/disk_1/) ended after 4194304 entries, with "
                                      "20971520 bytes of names: the rest is left out"));
  EXPECT_TRUE(client->CloseDevice(1));
}

TEST_F(DirectoryBombTest, EndsAfterSoManyBytesOfNames) {
  const Stick stick(smallDisk());
  const std::string name = std::string(251, 'n') + ".mp3";
  nameOneBlockOverAndOver(stick.node(), name);
  const Daemon daemon;
  UsbClient client;
  ASSERT_TRUE(client->OpenDevice(1));
  constexpr std::size_t fitting = (std::size_t{64} << 20) / 255;
  const std::vector<std::string> files = client.files(1, "", "mp3");
  EXPECT_EQ(files.size(), fitting);
  EXPECT_EQ(std::count(files.begin(), files.end(), name), static_cast<std::ptrdiff_t>(fitting));
  EXPECT_THAT(daemon.log(), HasSubstr(") ended after " + std::to_string(fitting) + " entries, "));
  EXPECT_TRUE(client->CloseDevice(1));
}

// libblkid runs inside the daemon, so a fault in it would crash the daemon like this.
TEST_F(DamagedDisksTest, CrashClosesTheConnectionsAndTheNextStartFindsTheOpenStick) {
  StickOptions options;
  options.files = {{"song.mp3", "la la la"}};
  const Stick stick(options);
  const Daemon crashing;
  UsbClient client;
  ASSERT_TRUE(client->OpenDevice(1));

  ASSERT_EQ(kill(crashing.pid(), SIGSEGV), 0);
  // On a busy machine it takes a while to end.
  while (crashing.isRunning()) {
    std::this_thread::yield();
  }
  EXPECT_THROW(client->IsDeviceOpen(1), apache::thrift::transport::TTransportException);
  EXPECT_EQ(readFile("/media/disk_1/song.mp3"), "la la la");

  const Daemon restarted;
  UsbClient next;
  EXPECT_THAT(next.devices(), ElementsAre(1));
  EXPECT_FALSE(next->IsDeviceOpen(1));
  EXPECT_TRUE(next->OpenDevice(1));
  EXPECT_EQ(mountsAt("/media/disk_1").size(), 1U);
}

}  // namespace
}  // namespace systest
