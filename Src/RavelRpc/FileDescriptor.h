#ifndef RAVELRPC_FILEDESCRIPTOR_H
#define RAVELRPC_FILEDESCRIPTOR_H

#include <unistd.h>

#include <utility>

namespace ravel::rpc {

/// Owns a file descriptor and closes it at the end. One thread at a time.
class FileDescriptor {
 public:
  /// Takes over `number`; negative (the result of a failed system call) means none.
  explicit FileDescriptor(int number = -1) : number_(number) {}
  ~FileDescriptor() { reset(); }
  FileDescriptor(FileDescriptor&& other) noexcept : number_(other.release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    reset(other.release());
    return *this;
  }

  bool valid() const { return number_ >= 0; }
  int get() const { return number_; }

  /// Hands the descriptor over to the caller.
  int release() { return std::exchange(number_, -1); }

  /// Closes the descriptor and takes over `number` in its place.
  void reset(int number = -1) {
    if (valid()) {
      // Linux frees the number even when close reports an error, so there is nothing left to do about one.
      ::close(number_);
    }
    number_ = number;
  }

 private:
  int number_;
};

}  // namespace ravel::rpc

#endif  // RAVELRPC_FILEDESCRIPTOR_H
