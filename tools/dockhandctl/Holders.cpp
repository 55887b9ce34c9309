#include "Holders.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>

#include "Text.h"

namespace dockhandctl {
namespace {

namespace fs = std::filesystem;

bool isBelow(const std::string& path, const std::string& directory) {
  return path.rfind(directory, 0) == 0 && (path.size() == directory.size() || path[directory.size()] == '/');
}

/// Looks for paths below a directory in one process.
class Process {
 public:
  Process(fs::path folder, const std::string& directory)
      : folder_(std::move(folder)), directory_(directory) {}

  /// The first use that is found, as a text for people. Empty if there is none.
  std::string find() {
    for (const auto& [name, title] :
         {std::pair("cwd", "working directory"), {"root", "root directory"}, {"exe", "program"}}) {
      if (linkIsBelow(folder_ / name, title)) {
        return found_;
      }
    }
    std::error_code error;
    for (fs::directory_iterator file(folder_ / "fd", error), end; !error && file != end;
         file.increment(error)) {
      if (linkIsBelow(file->path(), "open file")) {
        return found_;
      }
    }
    note(error);
    findMapping();
    return found_;
  }

  /// False if the kernel has refused access to a part.
  bool wasOpen() const { return open_; }

 private:
  void note(const std::error_code& error) {
    open_ = open_ && error != std::errc::permission_denied && error != std::errc::operation_not_permitted;
  }

  bool linkIsBelow(const fs::path& link, const char* title) {
    std::error_code error;
    const std::string path = fs::read_symlink(link, error);
    note(error);
    return !error && isFound(path, title);
  }

  void findMapping() {
    std::ifstream maps(folder_ / "maps");
    for (std::string line; std::getline(maps, line);) {
      const auto path = line.find('/');
      if (path != std::string::npos && isFound(line.substr(path), "mapped file")) {
        return;
      }
    }
  }

  bool isFound(const std::string& path, const char* title) {
    if (!isBelow(path, directory_)) {
      return false;
    }
    found_ = std::string(title) + " \"" + printable(path) + "\"";
    return true;
  }

  const fs::path folder_;
  const std::string& directory_;
  std::string found_;
  bool open_ = true;
};

std::string nameOf(const fs::path& folder) {
  std::ifstream file(folder / "comm");
  std::string name;
  std::getline(file, name);
  return "process " + folder.filename().string() + " (" + printable(name) + ")";
}

}  // namespace

Holders holdersOf(const std::string& directory) {
  Holders result;
  // With the mount option hidepid, other users do not even see that there are more processes.
  result.complete = ::geteuid() == 0;
  std::error_code error;
  for (fs::directory_iterator entry("/proc", error), end; !error && entry != end; entry.increment(error)) {
    const std::string name = entry->path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) {
      continue;
    }
    Process process(entry->path(), directory);
    const std::string what = process.find();
    if (!what.empty()) {
      result.lines.push_back(nameOf(entry->path()) + ": " + what);
    }
    result.complete = result.complete && process.wasOpen();
  }
  return result;
}

}  // namespace dockhandctl
