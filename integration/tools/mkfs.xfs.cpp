// Stands before the real mkfs.xfs in the daemon's PATH.
//
// The daemon asks for `-l lazy-count=0`. Since xfsprogs 3.2.3, mkfs.xfs makes file systems with checksums
// unless it is told otherwise; their counters are always lazy, and it refuses the option. A file system with
// checksums and without the option is the better recording disk, so this drops it. Everything else is passed
// on as it is; so is the option where the caller wants no checksums (`-m crc=0`).
//
// It can go from an image whose mkfs.xfs is older than that.

#include <string>
#include <vector>

#include "Tool.h"

namespace {

bool wantsNoChecksums(const std::vector<std::string>& arguments) {
  for (std::size_t i = 1; i < arguments.size(); ++i) {
    if (arguments[i - 1] == "-m" && ("," + arguments[i] + ",").find(",crc=0,") != std::string::npos) {
      return true;
    }
  }
  return false;
}

}  // namespace

int main(int count, char** words) {
  const std::vector<std::string> arguments(words, words + count);
  const std::string tool = "mkfs.xfs";
  if (wantsNoChecksums(arguments)) {
    return image::passOn(tool, arguments);
  }
  std::vector<std::string> kept;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const bool isPair = i > 0 && arguments[i] == "-l" && i + 1 < arguments.size();
    if (!isPair) {
      kept.push_back(arguments[i]);
      continue;
    }
    ++i;
    if (arguments[i] != "lazy-count=0") {
      kept.insert(kept.end(), {"-l", arguments[i]});
    }
  }
  return image::passOn(tool, kept);
}
