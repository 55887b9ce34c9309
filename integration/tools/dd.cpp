// Stands before the real dd in the daemon's PATH.
//
// The daemon zeroes the first sector of a disk before it makes a partition there, and goes on whatever comes
// of it. The real dd makes a regular file where the disk has gone, which the daemon then takes for a disk; it
// writes below a mounted file system; and it leaves what keeps fdisk from making a table: a label of BSD in
// the second sector, and a GPT there and in the last ones. This one writes to a block device that nobody
// uses, or not at all, and zeroes the first and the last MiB: partitions begin behind the one, and all that
// tells of an old content of the whole disk is in them. Every other call is passed on as it is.

#include <fcntl.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Disk.h"
#include "Tool.h"

namespace {

const std::string tool = "dd";

int wipe(const std::string& path) {
  constexpr std::uint64_t most = 1 << 20;
  const image::Disk disk(tool, path, O_RDWR);
  if (!disk.isOpen()) {
    return image::failed;
  }
  if (!disk.isBlockDevice()) {
    image::complain(tool, path + " is not a block device");
    return image::failed;
  }
  const auto bytes = static_cast<std::size_t>(std::min(disk.size(), most));
  return disk.wipe(0, bytes) && disk.wipe(disk.size() - bytes, bytes) && disk.flush() ? 0 : image::failed;
}

}  // namespace

int main(int count, char** words) {
  const std::vector<std::string> arguments(words, words + count);
  const std::string target = "of=/dev/usb_storage_";
  if (arguments.size() == 5 && arguments[1] == "if=/dev/zero" && arguments[2].rfind(target, 0) == 0 &&
      arguments[3] == "bs=512" && arguments[4] == "count=1") {
    return wipe(arguments[2].substr(std::string("of=").size()));
  }
  return image::passOn(tool, arguments);
}
