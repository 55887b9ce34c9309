// Comes before the real dd in the daemon's PATH.
//
// The daemon zeroes the first sector of a disk before it makes a partition, and goes on whatever happens. The
// real dd
// - makes a regular file if the disk has gone, and the daemon then takes the file for a disk;
// - writes below a mounted file system;
// - leaves what keeps fdisk from making a table: a BSD label in the second sector, and a GPT there and in the
// last ones.
//
// This dd writes only to a block device that nobody uses. It zeroes the first and the last MiB: partitions
// begin after the first, and every trace of an old content of the whole disk is in these two. It passes every
// other call on.

#include <fcntl.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Disk.h"
#include "Tool.h"

namespace {

const std::string tool = "dd";

int wipe(const std::string& path) {
  constexpr std::uint64_t maxWipedBytes = 1 << 20;
  const image::Disk disk(tool, path, O_RDWR);
  if (!disk.isOpen()) {
    return image::failed;
  }
  if (!disk.isBlockDevice()) {
    image::complain(tool, image::quoted(path) + " is not a block device; has the disk gone?");
    return image::failed;
  }
  const auto bytes = static_cast<std::size_t>(std::min(disk.size(), maxWipedBytes));
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
