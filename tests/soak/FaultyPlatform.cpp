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
  return fails(call.str()) ? -1 : below().mount(source, target, fileSystemType, flags, options);
}

int FaultyPlatform::umount(const std::string& target) {
  return fails("umount " + target) ? -1 : below().umount(target);
}

int FaultyPlatform::umount2(const std::string& target, int flags) {
  return fails("umount2 " + target + ' ' + std::to_string(flags)) ? -1 : below().umount2(target, flags);
}

int FaultyPlatform::mkdir(const std::string& path, mode_t mode) {
  std::ostringstream call;
  call << "mkdir " << path << ' ' << std::oct << mode;
  return fails(call.str()) ? -1 : below().mkdir(path, mode);
}

int FaultyPlatform::rmdir(const std::string& path) {
  return fails("rmdir " + path) ? -1 : below().rmdir(path);
}

int FaultyPlatform::access(const std::string& path, int mode) {
  return fails("access " + path) ? -1 : below().access(path, mode);
}

int FaultyPlatform::scandir(const std::string& path, dirent*** entries, int (*filter)(const dirent*),
                            int (*compare)(const dirent**, const dirent**)) {
  return fails("scandir " + path) ? -1 : below().scandir(path, entries, filter, compare);
}

DIR* FaultyPlatform::opendir(const std::string& path) {
  return fails("opendir " + path) ? nullptr : below().opendir(path);
}

int FaultyPlatform::open(const std::string& path, int flags) {
  return fails("open " + path) ? -1 : below().open(path, flags);
}

int FaultyPlatform::system(const std::string& command) {
  return fails("system " + command) ? -1 : below().system(command);
}

blkid_probe FaultyPlatform::blkid_new_probe_from_filename(const std::string& path) {
  return fails("new_probe " + path) ? nullptr : below().blkid_new_probe_from_filename(path);
}

int FaultyPlatform::blkid_do_probe(blkid_probe probe) {
  return fails("do_probe") ? -1 : below().blkid_do_probe(probe);
}

int FaultyPlatform::blkid_probe_lookup_value(blkid_probe probe, const char* name, const char** value) {
  return fails(std::string("lookup ") + name) ? -1 : below().blkid_probe_lookup_value(probe, name, value);
}

blkid_loff_t FaultyPlatform::blkid_get_dev_size(int descriptor) {
  return fails("dev_size") ? -1 : below().blkid_get_dev_size(descriptor);
}

}  // namespace soak
