#include "Bare.h"

#include <blkid/blkid.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string_view>

#include "Sampling.h"

namespace bench {

namespace {

int isStorageNode(const dirent* entry) {
  return std::strstr(entry->d_name, "usb_storage_") != nullptr ? 1 : 0;
}

/// Unmounts `path` if the beginning of the mount table has it, then removes the directory.
void clearMount(const std::string& path) {
  const int table = open("/proc/mounts", O_RDONLY | O_CLOEXEC);
  std::array<char, 1024> text;
  const ssize_t size = read(table, text.data(), text.size());
  const std::string_view mounts(text.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
  const bool unmounted = mounts.find(path + ' ') == std::string_view::npos || umount2(path.c_str(), 0) == 0;
  close(table);
  if (!unmounted) {
    throw std::runtime_error(errorText("umount2 of " + path));
  }
  if (access(path.c_str(), F_OK) == 0 && rmdir(path.c_str()) != 0) {
    throw std::runtime_error(errorText("rmdir of " + path));
  }
}

}  // namespace

int scanDev() {
  dirent** entries = nullptr;
  const int count = scandir("/dev", &entries, isStorageNode, alphasort);
  for (int i = 0; i < count; ++i) {
    std::free(entries[i]);
  }
  std::free(entries);
  return count;
}

std::string probe(const std::string& node, const char* key) {
  const blkid_probe reader = blkid_new_probe_from_filename(node.c_str());
  if (reader == nullptr) {
    throw std::runtime_error(errorText(node));
  }
  blkid_do_probe(reader);
  const char* value = "";
  blkid_probe_lookup_value(reader, key, &value, nullptr);
  std::string found = value;
  blkid_free_probe(reader);
  return found;
}

void bareOpen(const std::string& node, const std::string& target) {
  scanDev();
  // Held open, so that the second and third probe read from memory.
  const int held = open(node.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  clearMount("/media/" + probe(node, "LABEL"));
  clearMount("/media/" + probe(node, "UUID"));
  clearMount("/media/disk");
  clearMount(target);
  if (mkdir(target.c_str(), 0775) != 0) {
    throw std::runtime_error(errorText("mkdir of " + target));
  }
  const std::string type = probe(node, "TYPE");
  if (mount(node.c_str(), target.c_str(), type.c_str(), MS_MGC_VAL | MS_NOSUID, "") != 0) {
    throw std::runtime_error(errorText("mount of " + node));
  }
  close(held);
}

void bareClose(const std::string& target) {
  clearMount(target);
}

}  // namespace bench
