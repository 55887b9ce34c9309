#ifndef DOCKHAND_TESTS_SOAK_SIMULATEDSYSTEM_H
#define DOCKHAND_TESTS_SOAK_SIMULATEDSYSTEM_H

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "NoSystem.h"
#include "World.h"

namespace soak {

/// A Platform over a Machine. Its open files are real descriptors (of memory), so that a leaked one shows
/// among the descriptors of the process.
///
/// Threads: any. Each call holds the mutex and takes no other lock.
class SimulatedSystem : public World, private NoSystem {
 public:
  SimulatedSystem() = default;
  ~SimulatedSystem() override;

  Dockhand::Platform& platform() override { return *this; }
  void plug(const Stick& stick) override;
  void unplug(const Stick& stick) override;
  void fillMountTable(std::size_t size) override;
  std::string tableHead() override;
  std::string underMedia() override;
  std::string heldByHandler() override;

 private:
  struct OpenDirectory {
    std::vector<std::string> names;
    std::size_t position = 0;
    dirent entry{};
  };
  struct OpenProbe {
    Disk disk;
  };

  int mount(const std::string& source, const std::string& target, const char* fileSystemType,
            unsigned long flags, const char* options) override;
  int umount(const std::string& target) override;
  int umount2(const std::string& target, int flags) override;
  int mkdir(const std::string& path, mode_t mode) override;
  int rmdir(const std::string& path) override;
  int access(const std::string& path, int mode) override;
  int scandir(const std::string& path, dirent*** entries, int (*filter)(const dirent*),
              int (*compare)(const dirent**, const dirent**)) override;
  DIR* opendir(const std::string& path) override;
  dirent* readdir(DIR* directory) override;
  int closedir(DIR* directory) override;
  int open(const std::string& path, int flags) override;
  ssize_t read(int descriptor, void* buffer, size_t size) override;
  int close(int descriptor) override;
  int system(const std::string& command) override;
  blkid_probe blkid_new_probe_from_filename(const std::string& path) override;
  int blkid_do_probe(blkid_probe probe) override;
  int blkid_probe_lookup_value(blkid_probe probe, const char* name, const char** value) override;
  void blkid_free_probe(blkid_probe probe) override;
  blkid_loff_t blkid_get_dev_size(int descriptor) override;

  std::mutex mutex_;
  Machine machine_;
  /// Open descriptors, with the size of the disk; -1 for a file.
  std::map<int, std::int64_t> descriptors_;
  std::map<const void*, std::unique_ptr<OpenDirectory>> openDirectories_;
  std::map<const void*, std::unique_ptr<OpenProbe>> probes_;
};

}  // namespace soak

#endif  // DOCKHAND_TESTS_SOAK_SIMULATEDSYSTEM_H
