#ifndef DOCKHAND_TESTS_SYSTEM_STICK_H
#define DOCKHAND_TESTS_SYSTEM_STICK_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace systest {

/// A loop device over a part of an image. The kernel removes it after this object and its last mount end,
/// even if the test is killed.
class LoopDevice {
 public:
  /// A `size` of 0 means up to the end of the image, a `sectorSize` of 0 means 512 bytes.
  LoopDevice(const std::string& image, std::uint64_t offset, std::uint64_t size, bool readOnly,
             std::uint32_t sectorSize = 0);
  LoopDevice(const LoopDevice&) = delete;
  LoopDevice& operator=(const LoopDevice&) = delete;
  ~LoopDevice();

  dev_t deviceNumber() const { return deviceNumber_; }

 private:
  int descriptor_ = -1;
  dev_t deviceNumber_ = 0;
};

/// XFS takes no smaller partitioned disk.
constexpr std::uint64_t enoughForXfs = std::uint64_t{520} << 20;

/// Options for making a stick.
struct StickOptions {
  /// Kernel name of the whole disk; the nodes are /dev/usb_storage_NAME and, with a partition, ..._NAME1.
  std::string kernelName = "sda";
  /// Program and options that make the file system; the node follows. Empty: the stick has only zeros.
  std::vector<std::string> mkfs = {"mkfs.ext3", "-q", "-F", "-L", "HOLIDAY"};
  /// Files by their path on the stick, for ext3 and ext4 only.
  std::map<std::string, std::string> files;
  std::uint64_t bytes = std::uint64_t{16} << 20;
  /// Makes a partition table with one partition that begins at 1 MiB.
  bool partitioned = false;
  bool readOnly = false;
  /// An image to copy. It overrides the size, table and content of the options above.
  std::string copyOf;
};

/// A USB stick: an image, loop devices over it and, while it is plugged in, nodes in /dev. The test itself
/// changes the kernel's tables.
class Stick {
 public:
  /// Makes the stick and plugs it in.
  explicit Stick(const StickOptions& options);
  Stick(const Stick&) = delete;
  Stick& operator=(const Stick&) = delete;
  /// Unplugs it.
  ~Stick();

  void plug();
  void unplug();

  /// The image behind the stick.
  const std::string& image() const { return image_; }
  /// The offset of the partition on a partitioned stick, in bytes.
  static constexpr std::uint64_t partitionOffset = std::uint64_t{1} << 20;

  /// The node of the whole disk.
  std::string diskNode() const;
  /// The node with the file system.
  std::string node() const;
  /// The name in notifications: sda, or sda1 with a partition.
  std::string announcedName() const;

 private:
  void writePartitionTable() const;
  void makeFileSystem() const;

  StickOptions options_;
  std::string image_;
  std::optional<LoopDevice> disk_;
  std::optional<LoopDevice> partition_;
};

/// The options of a copy of an image.
StickOptions copyOf(const std::string& image, const std::string& kernelName = "sda");

/// Makes the image of a recording disk with these files. mkfs writes them, so they do not depend on the
/// journal, which a kernel without quota does not replay here.
std::string recordingImage(const std::map<std::string, std::string>& files);
/// A value of the image's first superblock.
std::uint64_t superblockValue(const std::string& image, const std::string& field);
void overwrite(const std::string& image, std::uint64_t offset, const std::string& bytes);
/// Mounts a recording disk read-only at /media/look for `action`: without quota, because this kernel may lack
/// it.
void lookInto(const Stick& stick, const std::function<void()>& action);

}  // namespace systest

#endif  // DOCKHAND_TESTS_SYSTEM_STICK_H
