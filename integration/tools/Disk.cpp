#include "Disk.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "Tool.h"

namespace image {

Disk::Disk(const std::string& tool, const std::string& path, int flags) : tool_(tool), path_(path) {
  // On Linux, O_EXCL without O_CREAT opens a block device exclusively. It has no effect on a file.
  file_ = open(path.c_str(), flags | O_EXCL | O_CLOEXEC);
  if (file_ < 0 && errno == EBUSY) {
    complain(tool,
             quoted(path) +
                 " is in use: it or one of its partitions is mounted, perhaps in another mount namespace; "
                 "unmount it");
  } else if (file_ < 0 || !measure()) {
    complainOfErrno(tool, quoted(path));
    close(file_);
    file_ = -1;
  }
}

Disk::~Disk() {
  close(file_);
}

bool Disk::measure() {
  struct stat status {};
  if (fstat(file_, &status) != 0) {
    return false;
  }
  isBlockDevice_ = S_ISBLK(status.st_mode);
  if (!isBlockDevice_) {
    size_ = static_cast<std::uint64_t>(status.st_size);
    return true;
  }
  int sectorSize = 0;
  if (ioctl(file_, BLKGETSIZE64, &size_) != 0 || ioctl(file_, BLKSSZGET, &sectorSize) != 0) {
    return false;
  }
  sectorSize_ = static_cast<std::uint32_t>(sectorSize);
  return true;
}

bool Disk::wipe(std::uint64_t offset, std::size_t bytes) const {
  const std::vector<char> zeros(bytes);
  for (std::size_t done = 0; done < bytes;) {
    const ssize_t count = pwrite(file_, zeros.data(), bytes - done, static_cast<off_t>(offset + done));
    if (count <= 0) {
      complainOfErrno(tool_, quoted(path_) + ": cannot write");
      return false;
    }
    done += static_cast<std::size_t>(count);
  }
  return true;
}

bool Disk::flush() const {
  if (fsync(file_) != 0) {
    complainOfErrno(tool_, quoted(path_) + ": cannot write");
    return false;
  }
  return true;
}

bool Disk::read(std::uint64_t offset, void* buffer, std::size_t bytes) const {
  if (pread(file_, buffer, bytes, static_cast<off_t>(offset)) != static_cast<ssize_t>(bytes)) {
    complain(tool_, quoted(path_) + ": cannot be read");
    return false;
  }
  return true;
}

}  // namespace image
