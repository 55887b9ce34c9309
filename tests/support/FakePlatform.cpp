#include "FakePlatform.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>
#include <stdexcept>

#include "Journal.h"

void FakePlatform::record(const std::string& event) const {
  journal().record(event);
  if (onCall) {
    onCall(event);
  }
}

int FakePlatform::mount(const std::string& source, const std::string& target, const char* fileSystemType,
                        unsigned long flags, const char* options) {
  std::ostringstream event;
  event << "mount " << source << " " << target << " " << fileSystemType << " " << std::hex << flags << " "
        << options;
  record(event.str());
  return resultOf(mountError({source, target, fileSystemType, flags, options}));
}

int FakePlatform::umount(const std::string& target) {
  record("umount " + target);
  return resultOf(umountError);
}

int FakePlatform::umount2(const std::string& target, int flags) {
  record("umount2 " + target + " " + std::to_string(flags));
  return resultOf(umount2Error);
}

int FakePlatform::mkdir(const std::string& path, mode_t mode) {
  std::ostringstream event;
  event << "mkdir " << path << " " << std::oct << mode;
  record(event.str());
  if (mkdirError == 0 && existing.count(path) != 0) {
    return resultOf(EEXIST);
  }
  if (mkdirError == 0) {
    existing.insert(path);
  }
  return resultOf(mkdirError);
}

int FakePlatform::rmdir(const std::string& path) {
  record("rmdir " + path);
  if (rmdirError == 0) {
    existing.erase(path);
  }
  return resultOf(rmdirError);
}

int FakePlatform::access(const std::string& path, int mode) {
  record("access " + path);
  if (mode != F_OK) {
    return resultOf(EACCES);
  }
  return resultOf(existing.count(path) != 0 ? 0 : ENOENT);
}

int FakePlatform::scandir(const std::string& path, dirent*** entries, int (*filter)(const dirent*),
                          int (*compare)(const dirent**, const dirent**)) {
  record("scandir " + path);
  if (scandirError != 0) {
    return resultOf(scandirError);
  }
  const auto accepts = [&](const dirent* entry) { return scandirIgnoresFilter || filter(entry) != 0; };
  return scan(deviceNodes, entries, accepts, compare);
}

DIR* FakePlatform::opendir(const std::string& path) {
  record("opendir " + path);
  for (const auto& [file, claim] : claims) {
    const std::size_t nameAt = file.rfind('/') + 1;
    if (path == file.substr(0, nameAt)) {
      const std::size_t moved = claim == Dockhand::Claim::tooManyMoved ? Dockhand::maxMovedAside : 0;
      directories[path].assign(moved, file.substr(nameAt) + ".moved-000000");
    }
  }
  if (directories.count(path) == 0) {
    errno = ENOENT;
    return nullptr;
  }
  openDirectories_.push_back({path});
  return reinterpret_cast<DIR*>(&openDirectories_.back());
}

dirent* FakePlatform::readdir(DIR* directory) {
  auto& opened = *reinterpret_cast<OpenDirectory*>(directory);
  const auto& names = directories.at(opened.path);
  if (opened.position == names.size()) {
    return nullptr;
  }
  setName(opened.entry, names[opened.position++]);
  return &opened.entry;
}

int FakePlatform::closedir(DIR* directory) {
  auto* opened = reinterpret_cast<OpenDirectory*>(directory);
  record("closedir " + opened->path);
  openDirectories_.remove_if([opened](const OpenDirectory& candidate) { return &candidate == opened; });
  return 0;
}

int FakePlatform::open(const std::string& path, int flags) {
  record("open " + path);
  openFlags[path] = flags;
  if ((flags & O_ACCMODE) != O_RDONLY) {
    return resultOf(EACCES);
  }
  if (files.count(path) == 0 && readErrors.count(path) == 0 && disks.count(path) == 0) {
    return resultOf(openError);
  }
  descriptors_[nextDescriptor] = {path};
  return nextDescriptor++;
}

ssize_t FakePlatform::read(int descriptor, void* buffer, size_t size) {
  OpenFile& file = descriptors_.at(descriptor);
  record("read " + file.path + " " + std::to_string(size));
  const auto failing = readErrors.find(file.path);
  if (failing != readErrors.end()) {
    return resultOf(failing->second);
  }
  const std::string& content = files.at(file.path);
  const std::size_t count = content.copy(static_cast<char*>(buffer), size, file.position);
  file.position += count;
  return static_cast<ssize_t>(count);
}

int FakePlatform::close(int descriptor) {
  const auto file = descriptors_.find(descriptor);
  record("close " + (file != descriptors_.end() ? file->second.path : std::to_string(descriptor)));
  if (file == descriptors_.end() && descriptor >= 0) {
    throw std::logic_error("a descriptor was closed that was never opened, or was closed before");
  }
  if (file == descriptors_.end()) {
    return resultOf(EBADF);
  }
  descriptors_.erase(file);
  return resultOf(closeError);
}

char* FakePlatform::mkdtemp(char* path) {
  record(std::string("mkdtemp ") + path);
  return path;
}

int FakePlatform::mknod(const std::string& path, mode_t mode) {
  std::ostringstream event;
  event << "mknod " << path << " " << std::oct << mode;
  record(event.str());
  return resultOf(mknodError);
}

int FakePlatform::rename(const std::string& from, const std::string& to) {
  record("rename " + from + " " + to);
  if (renameError == 0) {
    moved_.insert(from);
  }
  return resultOf(renameError);
}

int FakePlatform::statx(int directory, const std::string& path, int flags, unsigned int mask,
                        struct statx* status) {
  NoSystem::statx(directory, path, flags, mask, status);
  if (!statxKnowsMounts) {
    status->stx_attributes_mask = 0;
  }
  if (path.find(".moved-") != std::string::npos) {
    status->stx_mode = S_IFDIR | 0700;
  }
  const auto error = statxErrors.find(path);
  if (error != statxErrors.end()) {
    record("statx " + path);
    return resultOf(error->second);
  }
  const auto claim = claims.find(path);
  if (claim == claims.end()) {
    return 0;
  }
  record("statx " + path);
  if (claim->second == Dockhand::Claim::refused) {
    return resultOf(EACCES);
  }
  status->stx_mode = S_IFLNK | 0777;
  return resultOf(moved_.count(path) != 0 ? ENOENT : 0);
}

int FakePlatform::system(const std::string& command) {
  record("system " + command);
  return systemStatus(command);
}

void FakePlatform::sleep(unsigned int seconds) {
  record("sleep " + std::to_string(seconds));
}

FakePlatform::OpenProbe& FakePlatform::openProbe(blkid_probe probe) {
  for (OpenProbe& candidate : probes_) {
    if (reinterpret_cast<blkid_probe>(&candidate) == probe) {
      return candidate;
    }
  }
  throw std::logic_error("a probe was used that was never made, or was freed before");
}

blkid_probe FakePlatform::blkid_new_probe_from_filename(const std::string& path) {
  record("new_probe " + path);
  const auto disk = disks.find(path);
  if (disk == disks.end() || !disk->second.opens) {
    errno = ENOENT;
    return nullptr;
  }
  probes_.push_back({path});
  return reinterpret_cast<blkid_probe>(&probes_.back());
}

int FakePlatform::blkid_do_probe(blkid_probe probe) {
  const OpenProbe& opened = openProbe(probe);
  record("do_probe " + opened.path);
  const Disk& disk = disks.at(opened.path);
  if (disk.probeResult == -1 && disk.probeError != 0) {
    errno = disk.probeError;
  }
  return disk.probeResult;
}

int FakePlatform::blkid_probe_lookup_value(blkid_probe probe, const char* name, const char** value) {
  const OpenProbe& opened = openProbe(probe);
  record("lookup " + opened.path + " " + name);
  const Disk& disk = disks.at(opened.path);
  const auto found = disk.values.find(name);
  if (disk.probeResult != 0 || found == disk.values.end()) {
    if (disk.lookupError != 0) {
      errno = disk.lookupError;
    }
    return -1;
  }
  *value = found->second.c_str();
  return 0;
}

void FakePlatform::blkid_free_probe(blkid_probe probe) {
  const OpenProbe* opened = &openProbe(probe);
  record("free_probe " + opened->path);
  probes_.remove_if([opened](const OpenProbe& candidate) { return &candidate == opened; });
}

blkid_loff_t FakePlatform::blkid_get_dev_size(int descriptor) {
  const std::string& path = descriptors_.at(descriptor).path;
  record("dev_size " + path);
  return disks.at(path).size;
}
