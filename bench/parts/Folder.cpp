#include "Folder.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace bench {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

Folder::Folder(const std::vector<std::string>& names) {
  std::string made = (fs::is_directory("/dev/shm") ? "/dev/shm" : "/tmp") + std::string("/folder-XXXXXX");
  if (mkdtemp(made.data()) == nullptr) {
    fail(made);
  }
  path_ = made;
  // A hard link is faster to make than a file. ext4 allows 65000 links to a file.
  constexpr std::size_t maxLinks = 60000;
  std::string first;
  for (std::size_t i = 0; i < names.size(); ++i) {
    const std::string file = made + '/' + names[i];
    if (i % maxLinks == 0) {
      const int descriptor = open(file.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0644);
      if (descriptor < 0) {
        fail(file);
      }
      close(descriptor);
      first = file;
    } else if (link(first.c_str(), file.c_str()) != 0) {
      fail(file);
    }
  }
}

Folder::~Folder() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::vector<std::string> deviceNames(std::size_t nodes) {
  constexpr std::size_t others = 150;
  constexpr std::size_t letters = 26;
  std::vector<std::string> names;
  for (std::size_t i = 0; i < others; ++i) {
    names.push_back("tty" + std::to_string(i));
  }
  for (std::size_t i = 0; i < nodes; ++i) {
    const char first = static_cast<char>('a' + i / letters);
    const char second = static_cast<char>('a' + i % letters);
    names.push_back(std::string("usb_storage_sd") + first + second + '1');
  }
  return names;
}

std::vector<std::string> songNames(std::size_t count) {
  std::vector<std::string> names;
  names.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    names.push_back("song" + std::to_string(i) + (i % 10 == 0 ? ".mp3" : ".ogg"));
  }
  return names;
}

}  // namespace bench
