#ifndef DOCKHANDCTL_DOCTOR_SPARSEFILE_H
#define DOCKHANDCTL_DOCTOR_SPARSEFILE_H

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "../Failure.h"
#include "FileDescriptor.h"

namespace dockhandctl::doctor {

/// An empty file to try disk tools on. It takes no room, and is removed with this object.
class SparseFile {
 public:
  explicit SparseFile(off_t size) : path_(std::filesystem::temp_directory_path() / "dockhandctl-XXXXXX") {
    file_.reset(::mkostemp(path_.data(), O_CLOEXEC));
    if (!file_.valid()) {
      throw Failure(ownFailure, path_ + ": " + std::strerror(errno));
    }
    if (::ftruncate(file_.get(), size) != 0) {
      const int error = errno;
      ::unlink(path_.c_str());
      throw Failure(ownFailure, path_ + ": " + std::strerror(error));
    }
  }
  SparseFile(const SparseFile&) = delete;
  SparseFile& operator=(const SparseFile&) = delete;
  ~SparseFile() { ::unlink(path_.c_str()); }

  const std::string& path() const { return path_; }

  /// The byte at `offset`; 0 if there is none.
  unsigned char byteAt(off_t offset) const {
    unsigned char byte = 0;
    return ::pread(file_.get(), &byte, 1, offset) == 1 ? byte : static_cast<unsigned char>(0);
  }

 private:
  std::string path_;
  ravel::rpc::FileDescriptor file_;
};

}  // namespace dockhandctl::doctor

#endif  // DOCKHANDCTL_DOCTOR_SPARSEFILE_H
