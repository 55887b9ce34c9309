#include "SimulatedSystem.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace soak {

namespace {

int answer(int error) {
  if (error == 0) {
    return 0;
  }
  errno = error;
  return -1;
}

void setName(dirent& entry, const std::string& name) {
  std::memset(entry.d_name, 0, sizeof(entry.d_name));
  name.copy(entry.d_name, sizeof(entry.d_name) - 1);
}

int descriptorOf(const std::string& content) {
  const int descriptor = memfd_create("dockhand-soak", MFD_CLOEXEC);
  if (descriptor < 0 ||
      ::write(descriptor, content.data(), content.size()) != static_cast<ssize_t>(content.size()) ||
      lseek(descriptor, 0, SEEK_SET) != 0) {
    throw std::runtime_error(std::string("memfd: ") + std::strerror(errno));
  }
  return descriptor;
}

}  // namespace

SimulatedSystem::~SimulatedSystem() = default;

void SimulatedSystem::plug(const Stick& stick) {
  const std::lock_guard<std::mutex> lock(mutex_);
  machine_.plug(stick);
}

void SimulatedSystem::unplug(const Stick& stick) {
  const std::lock_guard<std::mutex> lock(mutex_);
  machine_.unplug(stick);
}

void SimulatedSystem::fillMountTable(std::size_t size) {
  const std::lock_guard<std::mutex> lock(mutex_);
  machine_.tableHead = "proc /proc proc rw 0 0\nsysfs /sys sysfs rw 0 0\ntmpfs /media tmpfs rw 0 0\n";
  for (int number = 0; machine_.tableHead.size() < size; ++number) {
    machine_.tableHead += "tmpfs /mnt/other" + std::to_string(number) + " tmpfs rw,relatime 0 0\n";
  }
}

std::string SimulatedSystem::tableHead() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return machine_.tableHead;
}

std::string SimulatedSystem::underMedia() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return soak::underMedia(machine_);
}

std::string SimulatedSystem::heldByHandler() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (descriptors_.empty() && openDirectories_.empty() && probes_.size() <= 1) {
    return {};
  }
  return std::to_string(descriptors_.size()) + " descriptors, " + std::to_string(openDirectories_.size()) +
         " directories, " + std::to_string(probes_.size()) + " probes";
}

int SimulatedSystem::mount(const std::string& source, const std::string& target, const char* fileSystemType,
                           unsigned long flags, const char* options) {
  const std::lock_guard<std::mutex> lock(mutex_);
  return answer(machine_.mount(source, target, fileSystemType, flags, options));
}

int SimulatedSystem::umount(const std::string& target) {
  const std::lock_guard<std::mutex> lock(mutex_);
  return answer(machine_.unmount(target));
}

int SimulatedSystem::umount2(const std::string& target, int /*flags*/) {
  const std::lock_guard<std::mutex> lock(mutex_);
  return answer(machine_.unmount(target));
}

int SimulatedSystem::mkdir(const std::string& path, mode_t /*mode*/) {
  const std::lock_guard<std::mutex> lock(mutex_);
  return answer(machine_.makeDirectory(path));
}

int SimulatedSystem::rmdir(const std::string& path) {
  const std::lock_guard<std::mutex> lock(mutex_);
  return answer(machine_.removeDirectory(path));
}

int SimulatedSystem::access(const std::string& path, int /*mode*/) {
  const std::lock_guard<std::mutex> lock(mutex_);
  return answer(machine_.exists(path) ? 0 : ENOENT);
}

int SimulatedSystem::scandir(const std::string& /*path*/, dirent*** entries, int (*filter)(const dirent*),
                             int (*compare)(const dirent**, const dirent**)) {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::vector<dirent*> accepted;
  for (const std::string& name : machine_.nodes()) {
    auto* const entry = static_cast<dirent*>(std::calloc(1, sizeof(dirent)));
    setName(*entry, name);
    if (filter(entry) != 0) {
      accepted.push_back(entry);
    } else {
      std::free(entry);
    }
  }
  std::sort(accepted.begin(), accepted.end(),
            [compare](const dirent* left, const dirent* right) { return compare(&left, &right) < 0; });
  *entries = static_cast<dirent**>(std::calloc(accepted.size() + 1, sizeof(dirent*)));
  std::copy(accepted.begin(), accepted.end(), *entries);
  return static_cast<int>(accepted.size());
}

DIR* SimulatedSystem::opendir(const std::string& path) {
  const std::lock_guard<std::mutex> lock(mutex_);
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

dirent* SimulatedSystem::readdir(DIR* directory) {
  const std::lock_guard<std::mutex> lock(mutex_);
  OpenDirectory& opened = *openDirectories_.at(directory);
  if (opened.position == opened.names.size()) {
    return nullptr;
  }
  setName(opened.entry, opened.names[opened.position++]);
  return &opened.entry;
}

int SimulatedSystem::closedir(DIR* directory) {
  const std::lock_guard<std::mutex> lock(mutex_);
  return answer(openDirectories_.erase(directory) != 0 ? 0 : EBADF);
}

int SimulatedSystem::open(const std::string& path, int /*flags*/) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const Disk* const disk = machine_.diskAt(path);
  const auto content = machine_.read(path);
  if (disk == nullptr && !content) {
    return answer(ENOENT);
  }
  const int descriptor = descriptorOf(content ? *content : "");
  descriptors_[descriptor] = disk != nullptr ? disk->bytes : -1;
  return descriptor;
}

ssize_t SimulatedSystem::read(int descriptor, void* buffer, size_t size) {
  return ::read(descriptor, buffer, size);
}

int SimulatedSystem::close(int descriptor) {
  const std::lock_guard<std::mutex> lock(mutex_);
  descriptors_.erase(descriptor);
  return ::close(descriptor);
}

int SimulatedSystem::system(const std::string& command) {
  const std::lock_guard<std::mutex> lock(mutex_);
  return machine_.shell(command);
}

blkid_probe SimulatedSystem::blkid_new_probe_from_filename(const std::string& path) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const Disk* const disk = machine_.diskAt(path);
  if (disk == nullptr) {
    errno = ENOENT;
    return nullptr;
  }
  auto probe = std::make_unique<OpenProbe>(OpenProbe{*disk});
  auto* const handle = reinterpret_cast<blkid_probe>(probe.get());
  probes_.emplace(handle, std::move(probe));
  return handle;
}

int SimulatedSystem::blkid_do_probe(blkid_probe probe) {
  const std::lock_guard<std::mutex> lock(mutex_);
  return probes_.at(probe)->disk.type.empty() ? 1 : 0;
}

int SimulatedSystem::blkid_probe_lookup_value(blkid_probe probe, const char* name, const char** value) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const Disk& disk = probes_.at(probe)->disk;
  const std::string key = name;
  const std::string& found = key == "LABEL" ? disk.label : key == "UUID" ? disk.uuid : disk.type;
  if (found.empty()) {
    return -1;
  }
  *value = found.c_str();
  return 0;
}

void SimulatedSystem::blkid_free_probe(blkid_probe probe) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (probes_.erase(probe) == 0) {
    throw std::logic_error("a probe is freed twice, or was never made");
  }
}

blkid_loff_t SimulatedSystem::blkid_get_dev_size(int descriptor) {
  const std::lock_guard<std::mutex> lock(mutex_);
  return descriptors_.at(descriptor);
}

}  // namespace soak
