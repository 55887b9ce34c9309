#include "FaultyPlatform.h"

#include <cerrno>
#include <sstream>

namespace soak {

bool FaultyPlatform::fails(const std::string& call) const {
  // The function may change errno; the caller must not see that.
  const int before = errno;
  const int error = decide_(call);
  errno = error != 0 ? error : before;
  return error != 0;
}

int FaultyPlatform::mount(const std::string& source, const std::string& target, const char* fileSystemType,
                          unsigned long flags, const char* options) {
  std::ostringstream call;
  call << "mount " << source << ' ' << target << ' ' << fileSystemType << ' ' << std::hex << flags << ' '
       << options;
  return fails(call.str()) ? -1 : below_.mount(source, target, fileSystemType, flags, options);
}

int FaultyPlatform::umount(const std::string& target) {
  return fails("umount " + target) ? -1 : below_.umount(target);
}

int FaultyPlatform::umount2(const std::string& target, int flags) {
  return fails("umount2 " + target + ' ' + std::to_string(flags)) ? -1 : below_.umount2(target, flags);
}

int FaultyPlatform::mkdir(const std::string& path, mode_t mode) {
  std::ostringstream call;
  call << "mkdir " << path << ' ' << std::oct << mode;
  return fails(call.str()) ? -1 : below_.mkdir(path, mode);
}

int FaultyPlatform::rmdir(const std::string& path) {
  return fails("rmdir " + path) ? -1 : below_.rmdir(path);
}

int FaultyPlatform::access(const std::string& path, int mode) {
  return fails("access " + path) ? -1 : below_.access(path, mode);
}

int FaultyPlatform::scandir(const std::string& path, dirent*** entries, int (*filter)(const dirent*),
                            int (*compare)(const dirent**, const dirent**)) {
  return fails("scandir " + path) ? -1 : below_.scandir(path, entries, filter, compare);
}

DIR* FaultyPlatform::opendir(const std::string& path) {
  return fails("opendir " + path) ? nullptr : below_.opendir(path);
}

dirent* FaultyPlatform::readdir(DIR* directory) {
  return below_.readdir(directory);
}

int FaultyPlatform::closedir(DIR* directory) {
  return below_.closedir(directory);
}

int FaultyPlatform::open(const std::string& path, int flags) {
  return fails("open " + path) ? -1 : below_.open(path, flags);
}

ssize_t FaultyPlatform::read(int descriptor, void* buffer, size_t size) {
  return below_.read(descriptor, buffer, size);
}

int FaultyPlatform::close(int descriptor) {
  return below_.close(descriptor);
}

Dockhand::Claim FaultyPlatform::claimFile(const std::string& path) {
  return below_.claimFile(path);
}

int FaultyPlatform::system(const std::string& command) {
  return fails("system " + command) ? -1 : below_.system(command);
}

void FaultyPlatform::sleep(unsigned int seconds) {
  below_.sleep(seconds);
}

blkid_probe FaultyPlatform::blkid_new_probe_from_filename(const std::string& path) {
  return fails("new_probe " + path) ? nullptr : below_.blkid_new_probe_from_filename(path);
}

int FaultyPlatform::blkid_do_probe(blkid_probe probe) {
  return fails("do_probe") ? -1 : below_.blkid_do_probe(probe);
}

int FaultyPlatform::blkid_probe_lookup_value(blkid_probe probe, const char* name, const char** value) {
  return fails(std::string("lookup ") + name) ? -1 : below_.blkid_probe_lookup_value(probe, name, value);
}

void FaultyPlatform::blkid_free_probe(blkid_probe probe) {
  below_.blkid_free_probe(probe);
}

blkid_loff_t FaultyPlatform::blkid_get_dev_size(int descriptor) {
  return fails("dev_size") ? -1 : below_.blkid_get_dev_size(descriptor);
}

}  // namespace soak
