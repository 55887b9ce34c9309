#include "SimulatedSystem.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "NoSystem.h"

namespace soak {

namespace {

int descriptorOf(const std::string& content) {
  const int descriptor = memfd_create("dockhand-soak", MFD_CLOEXEC);
  if (descriptor < 0 ||
      ::write(descriptor, content.data(), content.size()) != static_cast<ssize_t>(content.size()) ||
      lseek(descriptor, 0, SEEK_SET) != 0) {
    throw std::runtime_error(std::string("memfd: ") + std::strerror(errno));
  }
  return descriptor;
}

class SimulatedSystem : public World, private NoSystem {
 public:
  Dockhand::Platform& platform() override { return *this; }
  void plug(const Stick& stick) override {
    const Guard guard(mutex_);
    machine_.plug(stick);
  }
  void unplug(const Stick& stick) override {
    const Guard guard(mutex_);
    machine_.unplug(stick);
  }
  void fillMountTable(std::size_t size) override {
    const Guard guard(mutex_);
    machine_.tableHead = "proc /proc proc rw 0 0\nsysfs /sys sysfs rw 0 0\ntmpfs /media tmpfs rw 0 0\n";
    for (int number = 0; machine_.tableHead.size() < size; ++number) {
      machine_.tableHead += "tmpfs /mnt/other" + std::to_string(number) + " tmpfs rw,relatime 0 0\n";
    }
  }
  std::string tableHead() override {
    const Guard guard(mutex_);
    return machine_.tableHead;
  }
  std::string underMedia() override {
    const Guard guard(mutex_);
    return soak::underMedia(machine_);
  }
  std::string heldByHandler() override {
    const Guard guard(mutex_);
    if (descriptors_.empty() && openDirectories_.empty() && probes_.size() <= 1) {
      return {};
    }
    return std::to_string(descriptors_.size()) + " descriptors, " + std::to_string(openDirectories_.size()) +
           " directories, " + std::to_string(probes_.size()) + " probes";
  }

 private:
  using Guard = std::lock_guard<std::mutex>;
  struct OpenDirectory {
    std::vector<std::string> names;
    std::size_t position = 0;
    dirent entry{};
  };

  int mount(const std::string& source, const std::string& target, const char* fileSystemType,
            unsigned long flags, const char* options) override {
    const Guard guard(mutex_);
    return resultOf(machine_.mount(source, target, fileSystemType, flags, options));
  }
  int umount(const std::string& target) override {
    const Guard guard(mutex_);
    return resultOf(machine_.unmount(target));
  }
  int umount2(const std::string& target, int /*flags*/) override { return umount(target); }
  int mkdir(const std::string& path, mode_t /*mode*/) override {
    const Guard guard(mutex_);
    return resultOf(machine_.makeDirectory(path));
  }
  int rmdir(const std::string& path) override {
    const Guard guard(mutex_);
    return resultOf(machine_.removeDirectory(path));
  }
  int access(const std::string& path, int /*mode*/) override {
    const Guard guard(mutex_);
    return resultOf(machine_.exists(path) ? 0 : ENOENT);
  }
  int scandir(const std::string& /*path*/, dirent*** entries, int (*filter)(const dirent*),
              int (*compare)(const dirent**, const dirent**)) override {
    const Guard guard(mutex_);
    return scan(machine_.nodes(), entries, filter, compare);
  }
  DIR* opendir(const std::string& path) override {
    const Guard guard(mutex_);
    const auto names = machine_.list(path);
    if (!names) {
      errno = ENOENT;
      return nullptr;
    }
    auto directory = std::make_unique<OpenDirectory>();
    directory->names = {".", ".."};
    directory->names.insert(directory->names.end(), names->begin(), names->end());
    auto* const handle = reinterpret_cast<DIR*>(directory.get());
    openDirectories_.emplace(handle, std::move(directory));
    return handle;
  }
  dirent* readdir(DIR* directory) override {
    const Guard guard(mutex_);
    OpenDirectory& opened = *openDirectories_.at(directory);
    if (opened.position == opened.names.size()) {
      return nullptr;
    }
    setName(opened.entry, opened.names[opened.position++]);
    return &opened.entry;
  }
  int closedir(DIR* directory) override {
    const Guard guard(mutex_);
    return resultOf(openDirectories_.erase(directory) != 0 ? 0 : EBADF);
  }
  int open(const std::string& path, int /*flags*/) override {
    const Guard guard(mutex_);
    const Disk* const disk = machine_.diskAt(path);
    const auto content = machine_.read(path);
    if (disk == nullptr && !content) {
      return resultOf(ENOENT);
    }
    const int descriptor = descriptorOf(content ? *content : "");
    descriptors_[descriptor] = disk != nullptr ? disk->bytes : -1;
    return descriptor;
  }
  ssize_t read(int descriptor, void* buffer, size_t size) override {
    return ::read(descriptor, buffer, size);
  }
  int close(int descriptor) override {
    const Guard guard(mutex_);
    descriptors_.erase(descriptor);
    return ::close(descriptor);
  }
  int system(const std::string& command) override {
    const Guard guard(mutex_);
    return machine_.shell(command);
  }
  blkid_probe blkid_new_probe_from_filename(const std::string& path) override {
    const Guard guard(mutex_);
    const Disk* const disk = machine_.diskAt(path);
    if (disk == nullptr) {
      errno = ENOENT;
      return nullptr;
    }
    auto probed = std::make_unique<Disk>(*disk);
    auto* const handle = reinterpret_cast<blkid_probe>(probed.get());
    probes_.emplace(handle, std::move(probed));
    return handle;
  }
  int blkid_do_probe(blkid_probe probe) override {
    const Guard guard(mutex_);
    return probes_.at(probe)->type.empty() ? 1 : 0;
  }
  int blkid_probe_lookup_value(blkid_probe probe, const char* name, const char** value) override {
    const Guard guard(mutex_);
    const Disk& disk = *probes_.at(probe);
    const std::string key = name;
    const std::string& found = key == "LABEL" ? disk.label : key == "UUID" ? disk.uuid : disk.type;
    *value = found.c_str();
    return found.empty() ? -1 : 0;
  }
  void blkid_free_probe(blkid_probe probe) override {
    const Guard guard(mutex_);
    if (probes_.erase(probe) == 0) {
      throw std::logic_error("a probe is freed twice, or was never made");
    }
  }
  blkid_loff_t blkid_get_dev_size(int descriptor) override {
    const Guard guard(mutex_);
    return descriptors_.at(descriptor);
  }

  std::mutex mutex_;
  Machine machine_;
  /// Open descriptors, with the size of the disk; -1 for a file.
  std::map<int, std::int64_t> descriptors_;
  std::map<const void*, std::unique_ptr<OpenDirectory>> openDirectories_;
  /// The disks of open probes, as they were then.
  std::map<const void*, std::unique_ptr<Disk>> probes_;
};

}  // namespace

std::unique_ptr<World> simulatedSystem() {
  return std::make_unique<SimulatedSystem>();
}

}  // namespace soak
