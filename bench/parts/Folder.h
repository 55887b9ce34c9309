#ifndef DOCKHAND_BENCH_FOLDER_H
#define DOCKHAND_BENCH_FOLDER_H

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

namespace bench {

/// A folder of empty files, which ends with this object. It is in /dev/shm if the machine has it, so that no
/// disk is measured.
class Folder {
 public:
  explicit Folder(const std::vector<std::string>& names);
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  ~Folder();

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

/// Names like those in the /dev of a device: `nodes` storage nodes and 150 others.
std::vector<std::string> deviceNames(std::size_t nodes);

/// Names of songs: one in ten ends in ".mp3", the others in ".ogg".
std::vector<std::string> songNames(std::size_t count);

}  // namespace bench

#endif  // DOCKHAND_BENCH_FOLDER_H
