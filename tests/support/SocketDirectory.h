#ifndef TESTS_SUPPORT_SOCKETDIRECTORY_H
#define TESTS_SUPPORT_SOCKETDIRECTORY_H

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

/// A private directory for the local sockets of a test, so that the test needs no root and meets no other
/// service.
class SocketDirectory {
 public:
  SocketDirectory() {
    std::string name = std::filesystem::temp_directory_path() / "dockhand-test-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
      throw std::runtime_error("cannot make a directory for sockets");
    }
    path_ = name;
    setenv("RAVEL_SOCKET_DIR", name.c_str(), 1);
  }
  SocketDirectory(const SocketDirectory&) = delete;
  SocketDirectory& operator=(const SocketDirectory&) = delete;
  ~SocketDirectory() {
    unsetenv("RAVEL_SOCKET_DIR");
    std::filesystem::remove_all(path_);
  }

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

#endif  // TESTS_SUPPORT_SOCKETDIRECTORY_H
