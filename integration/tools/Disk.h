#ifndef INTEGRATION_TOOLS_DISK_H
#define INTEGRATION_TOOLS_DISK_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace image {

/// A disk, or an image of one, that is open.
class Disk {
 public:
  /// Opens a block device exclusively. The kernel refuses that for one that is in use, or has a partition
  /// that is, in whatever mount namespace. Never makes a file. `flags` is O_RDONLY or O_RDWR. After a
  /// failure, and a complaint in the name of `tool`, isOpen() is false.
  Disk(const std::string& tool, const std::string& path, int flags);
  Disk(const Disk&) = delete;
  Disk& operator=(const Disk&) = delete;
  ~Disk();

  bool isOpen() const { return file_ >= 0; }
  bool isBlockDevice() const { return isBlockDevice_; }
  /// In bytes.
  std::uint64_t size() const { return size_; }
  /// Logical sectors, in bytes; 512 for an image.
  std::uint32_t sectorSize() const { return sectorSize_; }

  /// Writes zeros; false after a failure and a complaint.
  bool wipe(std::uint64_t offset, std::size_t bytes) const;
  /// Waits until all that was written is on the disk; false after a failure and a complaint.
  bool flush() const;
  /// False after a failure and a complaint.
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
