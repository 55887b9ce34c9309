#ifndef RAVELRPC_FILEDESCRIPTOR_H
#define RAVELRPC_FILEDESCRIPTOR_H

#include <unistd.h>

#include <utility>

namespace ravel::rpc {

/// Owns a file descriptor and closes it when it is destroyed. Threads: one at a time.
class FileDescriptor {
 public:
  /// Takes ownership of `number`. A negative number (the result of a failed system call) means none.
  explicit FileDescriptor(int number = -1) : number_(number) {}
  ~FileDescriptor() { reset(); }
  FileDescriptor(FileDescriptor&& other) noexcept : number_(other.release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    reset(other.release());
    return *this;
  }

  bool valid() const { return number_ >= 0; }
  int get() const { return number_; }

  /// Passes ownership to the caller.
  int release() { return std::exchange(number_, -1); }

  /// Closes the descriptor and takes ownership of `number`.
  void reset(int number = -1) {
    if (valid()) {
      // Ignore an error: Linux frees the number even if close reports one.
      ::close(number_);
    }
    number_ = number;
  }

 private:
  int number_;
};

}  // namespace ravel::rpc

#endif  // RAVELRPC_FILEDESCRIPTOR_H
