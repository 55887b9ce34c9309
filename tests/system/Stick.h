#ifndef DOCKHAND_TESTS_SYSTEM_STICK_H
#define DOCKHAND_TESTS_SYSTEM_STICK_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace systest {

/// A loop device over a part of an image, gone with this object or once the last mount of it is gone, also
/// when the test is killed.
class LoopDevice {
 public:
  /// `size` 0 means up to the end of the image.
  LoopDevice(const std::string& image, std::uint64_t offset, std::uint64_t size, bool readOnly);
  LoopDevice(const LoopDevice&) = delete;
  LoopDevice& operator=(const LoopDevice&) = delete;
  ~LoopDevice();

  dev_t deviceNumber() const { return deviceNumber_; }

 private:
  int descriptor_ = -1;
  dev_t deviceNumber_ = 0;
};

/// How a stick is made.
struct StickOptions {
  /// Kernel name of the whole disk; the nodes are /dev/usb_storage_NAME and, with a partition, ..._NAME1.
  std::string kernelName = "sda";
  /// Program and options that make the file system; the node follows. Empty: the stick holds zeros only.
  std::vector<std::string> mkfs = {"mkfs.ext3", "-q", "-F", "-L", "HOLIDAY"};
  /// Files by their path on the stick; only an ext3 or ext4 stick can be filled.
  std::map<std::string, std::string> files;
  std::uint64_t bytes = std::uint64_t{16} << 20;
  /// A partition table with one partition from 1 MiB on.
  bool partitioned = false;
  bool readOnly = false;
  /// An image to start from: as it is, whatever the options above say of size, table and content.
  std::string copyOf;
};

/// A USB stick: an image, loop devices over it and, while it is plugged in, nodes in /dev. What the kernel's
/// tables say of it is up to the test.
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
  /// Where on a partitioned stick the partition begins, in bytes.
  static constexpr std::uint64_t partitionOffset = std::uint64_t{1} << 20;

  /// The node of the whole disk.
  std::string diskNode() const;
  /// The node that holds the file system.
  std::string node() const;
  /// What the daemon is told when the stick is plugged in or out: sda, or sda1 with a partition.
  std::string announcedName() const;

 private:
  void writePartitionTable() const;
  void makeFileSystem() const;

  StickOptions options_;
  std::string image_;
  std::optional<LoopDevice> disk_;
  std::optional<LoopDevice> partition_;
};

}  // namespace systest

#endif  // DOCKHAND_TESTS_SYSTEM_STICK_H
