#include "Faults.h"

#include <cerrno>
#include <iterator>

namespace soak {

namespace {

/// A pseudo-random number that depends only on the seed and the text: FNV-1a, then the last steps of
/// SplitMix64.
std::uint64_t draw(std::uint64_t seed, const std::string& text) {
  std::uint64_t number = 0xCBF29CE484222325 ^ seed;
  for (const char c : text) {
    number = (number ^ static_cast<unsigned char>(c)) * 0x100000001B3;
  }
  number = (number ^ (number >> 30)) * 0xBF58476D1CE4E5B9;
  number = (number ^ (number >> 27)) * 0x94D049BB133111EB;
  return number ^ (number >> 31);
}

/// Sometimes all calls of one name fail, and no others: these are the names to choose from. Without the short
/// lists, a name that only one operation uses would almost never be chosen for that operation.
const std::vector<std::string>& namesIn(const std::string& operation) {
  static const std::vector<std::string> inRepair = {"mkdir", "mount", "umount", "rmdir", "system"};
  static const std::vector<std::string> inCapacity = {"open", "dev_size"};
  return operation == "RunDiskRepair"       ? inRepair
         : operation == "GetDeviceCapacity" ? inCapacity
                                            : Faults::calls();
}

}  // namespace

const std::vector<int>& Faults::errors() {
  static const std::vector<int> known = {EPERM, ENOENT,       ENXIO,  ENOMEM,  EACCES,   EFAULT, ENOTBLK,
                                         EBUSY, EEXIST,       ENODEV, ENOTDIR, EINVAL,   EMFILE, ENOSPC,
                                         EROFS, ENAMETOOLONG, ELOOP,  EIO,     ENOMEDIUM};
  return known;
}

const std::vector<std::string>& Faults::calls() {
  static const std::vector<std::string> known = {"scandir",   "open",     "opendir", "mkdir",   "rmdir",
                                                 "access",    "mount",    "umount",  "umount2", "system",
                                                 "new_probe", "do_probe", "lookup",  "dev_size"};
  return known;
}

Faults::Faults(std::uint64_t seed, const std::string& operation) : seed_(seed) {
  static constexpr unsigned degrees[] = {0, 0, 0, 0, 100, 100, 300, 1000};
  const std::uint64_t number = draw(seed, "degree");
  if (number % 4 == 0) {
    perMille_ = 1000;
    const std::vector<std::string>& names = namesIn(operation);
    only_ = names[static_cast<std::size_t>((number / 4) % names.size())];
  } else {
    perMille_ = degrees[(number / 4) % std::size(degrees)];
  }
}

int Faults::of(const std::string& call) const {
  if (!only_.empty() && call.substr(0, call.find(' ')) != only_) {
    return 0;
  }
  const std::uint64_t number = draw(seed_, call);
  if (number % 1000 >= perMille_) {
    return 0;
  }
  return errors()[static_cast<std::size_t>((number / 1000) % errors().size())];
}

}  // namespace soak
