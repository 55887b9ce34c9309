#include "LinuxPlatform.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "ModuleLog.h"

namespace Dockhand {

namespace {

/// What opendir returns as a DIR*. Only readdir and closedir look into it.
struct CountedDirectory {
  DIR* directory = nullptr;
  std::string path;
  std::size_t entries = 0;
  std::size_t nameBytes = 0;
  bool hasEnded = false;
};

/// True, with errno set, for a path with a NUL byte: the kernel would end it there and take another path.
bool namesNoFile(const std::string& path) {
  if (path.find('\0') == std::string::npos) {
    return false;
  }
  errno = ENOENT;
  return true;
}

}  // namespace

int LinuxPlatform::mount(const std::string& source, const std::string& target, const char* fileSystemType,
                         unsigned long flags, const char* options) {
  if (namesNoFile(source) || namesNoFile(target)) {
    return -1;
  }
  return ::mount(source.c_str(), target.c_str(), fileSystemType, flags, options);
}

int LinuxPlatform::umount(const std::string& target) {
  return namesNoFile(target) ? -1 : ::umount(target.c_str());
}

int LinuxPlatform::umount2(const std::string& target, int flags) {
  return namesNoFile(target) ? -1 : ::umount2(target.c_str(), flags);
}

int LinuxPlatform::mkdir(const std::string& path, mode_t mode) {
  return namesNoFile(path) ? -1 : ::mkdir(path.c_str(), mode);
}

int LinuxPlatform::rmdir(const std::string& path) {
  return namesNoFile(path) ? -1 : ::rmdir(path.c_str());
}

char* LinuxPlatform::mkdtemp(char* path) {
  return ::mkdtemp(path);
}

int LinuxPlatform::access(const std::string& path, int mode) {
  return namesNoFile(path) ? -1 : ::access(path.c_str(), mode);
}

int LinuxPlatform::scandir(const std::string& path, dirent*** entries, int (*filter)(const dirent*),
                           int (*compare)(const dirent**, const dirent**)) {
  return namesNoFile(path) ? -1 : ::scandir(path.c_str(), entries, filter, compare);
}

DIR* LinuxPlatform::opendir(const std::string& path) {
  if (namesNoFile(path)) {
    return nullptr;
  }
  auto opened = std::make_unique<CountedDirectory>();
  opened->path = path;
  opened->directory = ::opendir(path.c_str());
  if (opened->directory == nullptr) {
    const int error = errno;
    opened.reset();
    errno = error;
    return nullptr;
  }
  return reinterpret_cast<DIR*>(opened.release());
}

dirent* LinuxPlatform::readdir(DIR* directory) {
  CountedDirectory& counted = *reinterpret_cast<CountedDirectory*>(directory);
  dirent* const entry = counted.hasEnded ? nullptr : ::readdir(counted.directory);
  if (entry == nullptr) {
    return nullptr;
  }
  const std::size_t length = std::strlen(entry->d_name);
  if (counted.entries < directoryLimits_.entries &&
      counted.nameBytes + length <= directoryLimits_.nameBytes) {
    ++counted.entries;
    counted.nameBytes += length;
    return entry;
  }
  counted.hasEnded = true;
  const int error = errno;
  usbClientLog.error(1410, "readdir(", counted.path, ") ended after ", counted.entries, " entries, with ",
                     counted.nameBytes, " bytes of names: the rest is left out");
  errno = error;
  return nullptr;
}

int LinuxPlatform::closedir(DIR* directory) {
  const std::unique_ptr<CountedDirectory> counted(reinterpret_cast<CountedDirectory*>(directory));
  return ::closedir(counted->directory);
}

int LinuxPlatform::open(const std::string& path, int flags) {
  return namesNoFile(path) ? -1 : ::open(path.c_str(), flags | O_CLOEXEC);
}

ssize_t LinuxPlatform::read(int descriptor, void* buffer, size_t size) {
  return ::read(descriptor, buffer, size);
}

int LinuxPlatform::close(int descriptor) {
  return ::close(descriptor);
}

int LinuxPlatform::mknod(const std::string& path, mode_t mode) {
  return namesNoFile(path) ? -1 : ::mknod(path.c_str(), mode, 0);
}

int LinuxPlatform::rename(const std::string& from, const std::string& to) {
  return namesNoFile(from) || namesNoFile(to) ? -1 : ::rename(from.c_str(), to.c_str());
}

int LinuxPlatform::statx(int directory, const std::string& path, int flags, unsigned int mask,
                         struct statx* status) {
  return namesNoFile(path) ? -1 : ::statx(directory, path.c_str(), flags, mask, status);
}

uid_t LinuxPlatform::geteuid() {
  return ::geteuid();
}

int LinuxPlatform::system(const std::string& command) {
  return std::system(command.c_str());
}

void LinuxPlatform::sleep(unsigned int seconds) {
  // A signal ends a sleep early.
  while (seconds > 0) {
    seconds = ::sleep(seconds);
  }
}

blkid_probe LinuxPlatform::blkid_new_probe_from_filename(const std::string& path) {
  return namesNoFile(path) ? nullptr : ::blkid_new_probe_from_filename(path.c_str());
}

int LinuxPlatform::blkid_do_probe(blkid_probe probe) {
  return ::blkid_do_probe(probe);
}

int LinuxPlatform::blkid_probe_lookup_value(blkid_probe probe, const char* name, const char** value) {
  return ::blkid_probe_lookup_value(probe, name, value, nullptr);
}

void LinuxPlatform::blkid_free_probe(blkid_probe probe) {
  ::blkid_free_probe(probe);
}

blkid_loff_t LinuxPlatform::blkid_get_dev_size(int descriptor) {
  return ::blkid_get_dev_size(descriptor);
}

}  // namespace Dockhand
