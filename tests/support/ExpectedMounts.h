#ifndef TESTS_SUPPORT_EXPECTEDMOUNTS_H
#define TESTS_SUPPORT_EXPECTEDMOUNTS_H

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

namespace testsupport {

/// A mount that opening a device must try.
struct ExpectedMount {
  /// libblkid's name of the file system.
  std::string probedType;
  /// The arguments of mount(2).
  std::string type;
  unsigned long flags;
  std::string options;
};

/// All mounts, in the order in which a disk without a known type must get them. Never include MountTable.h
/// here: the tests compare the daemon with this table, so it is written a second time, with the kernel's
/// numbers of the flags.
inline const std::vector<ExpectedMount>& expectedMounts() {
  // clang-format off
  static const std::vector<ExpectedMount> table = {
      {"vfat", "vfat",    0xC0ED0002, "utf8"},
      {"vfat", "vfat",    0xC0ED0003, "utf8"},
      {"ntfs", "ntfs",    0xA,        "nls=utf8"},
      {"ntfs", "ntfs",    0xB,        "nls=utf8"},
      {"ext3", "ext3",    0xC0ED0002, ""},
      {"ext3", "ext3",    0xC0ED0003, ""},
      {"hfs",  "hfs",     0x3,        "nls=utf8"},
      {"hfs+", "hfsplus", 0x3,        "nls=utf8"},
      {"xfs",  "xfs",     0x40A,      "prjquota"},
  };
  // clang-format on
  return table;
}

/// The kernel's names of the file systems in the table, each once.
inline std::vector<std::string> expectedFileSystems() {
  std::vector<std::string> names;
  for (const ExpectedMount& row : expectedMounts()) {
    if (std::find(names.begin(), names.end(), row.type) == names.end()) {
      names.push_back(row.type);
    }
  }
  return names;
}

/// All mounts of a disk whose mounts all fail, as FakePlatform records them: first the rows of its type, or
/// every row if no type is known (""), and then every row.
inline std::vector<std::string> expectedMountCalls(const std::string& node, const std::string& directory,
                                                   const std::string& probedType) {
  std::vector<std::string> ofItsType;
  std::vector<std::string> all;
  for (const ExpectedMount& row : expectedMounts()) {
    std::ostringstream call;
    call << "mount " << node << ' ' << directory << ' ' << row.type << ' ' << std::hex << row.flags << ' '
         << row.options;
    all.push_back(call.str());
    if (probedType.empty() || row.probedType == probedType) {
      ofItsType.push_back(call.str());
    }
  }
  ofItsType.insert(ofItsType.end(), all.begin(), all.end());
  return ofItsType;
}

}  // namespace testsupport

#endif  // TESTS_SUPPORT_EXPECTEDMOUNTS_H
