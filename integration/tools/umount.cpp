// Stands before the real umount in the daemon's PATH.
//
// The daemon has `umount -f` take away every mount of /dev/usb_storage_NAME before it prepares or repairs a
// disk, one a call until a call fails. That name is a link of udev's, and the mount table has the name by
// which somebody has mounted it: umount of busybox follows the link, and then does not find the mount. This
// one finds mounts by their device number. Every other call is passed on as it is.

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
  std::string device;  ///< "8:1"; the number 0:... says nothing of the disk.
  std::string directory;
  std::string type;
  std::string source;
};

/// The table has blanks, tabs, line ends and backslashes as a backslash with three octal digits.
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
    // Behind the sixth field are as many options as there are, up to a dash.
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

/// "8:1", or "" for what is no block device.
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
  // A disk that has gone has no number any more, and some file systems have one of their own: then the name
  // tells. A user chooses the name of a FUSE mount.
  const bool isNamed =
      mount.source == node || (!number.empty() && mount.source.rfind("/dev/", 0) == 0 &&
                               mount.device.rfind("0:", 0) == 0 && deviceNumber(mount.source) == number);
  return isNamed && mount.type.rfind("fuse", 0) != 0;
}

/// Whether the mount is what one meets at its directory, and no other is on top of it.
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
  std::string trouble = "not mounted";
  for (auto mount = mounts.rbegin(); mount != mounts.rend(); ++mount) {
    if (!isOf(*mount, node, number)) {
      continue;
    }
    if (!isOnTop(*mount)) {
      trouble = "another mount is on top of it at " + mount->directory;
    } else if (umount2(mount->directory.c_str(), MNT_FORCE | UMOUNT_NOFOLLOW) == 0) {
      return 0;
    } else {
      trouble = mount->directory + ": " + std::strerror(errno);
    }
  }
  image::complain(tool, node + ": " + trouble);
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
