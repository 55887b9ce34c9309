#ifndef INTEGRATION_TOOLS_DISK_H
#define INTEGRATION_TOOLS_DISK_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace image {

/// An open disk, or an open image of a disk.
class Disk {
 public:
  /// Opens a block device exclusively. The kernel refuses that if the device or one of its partitions is in
  /// use, in any mount namespace. Never makes a file. `flags` is O_RDONLY or O_RDWR. On failure it complains
  /// in the name of `tool`, and isOpen() is false.
  Disk(const std::string& tool, const std::string& path, int flags);
  Disk(const Disk&) = delete;
  Disk& operator=(const Disk&) = delete;
  ~Disk();

  bool isOpen() const { return file_ >= 0; }
  bool isBlockDevice() const { return isBlockDevice_; }
  /// In bytes.
  std::uint64_t size() const { return size_; }
  /// Size of a logical sector in bytes; 512 for an image.
  std::uint32_t sectorSize() const { return sectorSize_; }

  /// Writes zeros. Returns false on failure, after a complaint.
  bool wipe(std::uint64_t offset, std::size_t bytes) const;
  /// Waits until all written data is on the disk. Returns false on failure, after a complaint.
  bool flush() const;
  /// Returns false on failure, after a complaint.
  bool read(std::uint64_t offset, void* buffer, std::size_t bytes) const;

 private:
  bool measure();

  std::string tool_;
  std::string path_;
  int file_ = -1;
  bool isBlockDevice_ = false;
  std::uint64_t size_ = 0;
  std::uint32_t sectorSize_ = 512;
};

}  // namespace image

#endif  // INTEGRATION_TOOLS_DISK_H
