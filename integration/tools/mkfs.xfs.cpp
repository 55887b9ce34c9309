// Comes before the real mkfs.xfs in the daemon's PATH.
//
// The daemon asks for `-l lazy-count=0`. Since xfsprogs 3.2.3, mkfs.xfs makes file systems with checksums by
// default. Their counters are always lazy, so it refuses the option. For a recording disk, checksums are
// better than the option, so this mkfs.xfs drops the option. It passes on everything else, and also the
// option if the caller wants no checksums
// (`-m crc=0`).
//
// An image with an older mkfs.xfs does not need it.

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
