// Comes before the real umount in the daemon's PATH.
//
// Before the daemon prepares or repairs a disk, it calls `umount -f /dev/usb_storage_NAME` until a call
// fails. Each call removes one mount. That name is a link of udev's, but the mount table has the name that
// somebody mounted: umount of busybox follows the link, and then does not find the mount. This umount finds
// mounts by their device number. It passes every other call on.

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "Tool.h"

namespace {

const std::string tool = "umount";

/// A line of /proc/self/mountinfo.
struct Mount {
  std::string id;
  std::string device;  ///< Such as "8:1". A number 0:... does not tell the disk.
  std::string directory;
  std::string type;
  std::string source;
};

/// In the table, blanks, tabs, line ends and backslashes are a backslash with three octal digits.
std::string unescape(const std::string& text) {
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size()) {
      plain += static_cast<char>(std::strtol(text.substr(i + 1, 3).c_str(), nullptr, 8));
      i += 3;
    } else {
      plain += text[i];
    }
  }
  return plain;
}

std::vector<std::string> split(const std::string& line) {
  std::vector<std::string> fields;
  for (std::size_t begin = 0; begin <= line.size();) {
    const std::size_t end = std::min(line.find(' ', begin), line.size());
    fields.push_back(line.substr(begin, end - begin));
    begin = end + 1;
  }
  return fields;
}

std::vector<Mount> readMounts() {
  std::vector<Mount> mounts;
  std::ifstream table("/proc/self/mountinfo");
  for (std::string line; std::getline(table, line);) {
    const std::vector<std::string> fields = split(line);
    // After the sixth field comes any number of options, and then a dash.
    std::size_t dash = 6;
    while (dash < fields.size() && fields[dash] != "-") {
      ++dash;
    }
    if (dash + 2 < fields.size()) {
      mounts.push_back(
          {fields[0], fields[2], unescape(fields[4]), fields[dash + 1], unescape(fields[dash + 2])});
    }
  }
  return mounts;
}

/// Such as "8:1", or "" if the node is not a block device.
std::string deviceNumber(const std::string& node) {
  struct stat status {};
  if (stat(node.c_str(), &status) != 0 || !S_ISBLK(status.st_mode)) {
    return "";
  }
  return std::to_string(major(status.st_rdev)) + ":" + std::to_string(minor(status.st_rdev));
}

bool isOf(const Mount& mount, const std::string& node, const std::string& number) {
  if (mount.device == number) {
    return true;
  }
  // A disk that has gone has no number, and some file systems have a number of their own. Then compare the
  // names, but not those of FUSE mounts, because a user chooses them.
  const bool isNamed =
      mount.source == node || (!number.empty() && mount.source.rfind("/dev/", 0) == 0 &&
                               mount.device.rfind("0:", 0) == 0 && deviceNumber(mount.source) == number);
  return isNamed && mount.type.rfind("fuse", 0) != 0;
}

/// True if no other mount covers this one at its directory.
bool isOnTop(const Mount& mount) {
  const int place = open(mount.directory.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
  if (place < 0) {
    return false;
  }
  std::ifstream description("/proc/self/fdinfo/" + std::to_string(place));
  std::string word;
  std::string id;
  while (description >> word >> id && word != "mnt_id:") {
  }
  close(place);
  return id == mount.id;
}

int unmountOne(const std::string& node) {
  const std::vector<Mount> mounts = readMounts();
  const std::string number = deviceNumber(node);
  std::string reason = "not mounted";
  for (auto mount = mounts.rbegin(); mount != mounts.rend(); ++mount) {
    if (!isOf(*mount, node, number)) {
      continue;
    }
    if (!isOnTop(*mount)) {
      reason = "another mount is on top of it at " + image::quoted(mount->directory) + "; unmount that first";
    } else if (umount2(mount->directory.c_str(), MNT_FORCE | UMOUNT_NOFOLLOW) == 0) {
      return 0;
    } else {
      reason = image::quoted(mount->directory) + ": " + std::strerror(errno);
    }
  }
  image::complain(tool, image::quoted(node) + ": " + reason);
  return image::failed;
}

}  // namespace

int main(int count, char** words) {
  const std::vector<std::string> arguments(words, words + count);
  if (arguments.size() == 3 && arguments[1] == "-f" && arguments[2].rfind("/dev/", 0) == 0) {
    return unmountOne(arguments[2]);
  }
  return image::passOn(tool, arguments);
}
