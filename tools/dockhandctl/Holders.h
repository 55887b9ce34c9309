#ifndef DOCKHANDCTL_HOLDERS_H
#define DOCKHANDCTL_HOLDERS_H

#include <string>
#include <vector>

namespace dockhandctl {

/// Who keeps a mount from being unmounted, as /proc has it.
struct Holders {
  /// One line for each process, for people: `process 4711 (mpg123): open file "/media/disk_1/a.mp3"`.
  std::vector<std::string> lines;
  /// Every process could be looked into.
  bool complete = true;
};

/// Of a directory by its canonical path. Follows no link, so that it does not wait for a disk.
Holders holdersOf(const std::string& directory);

}  // namespace dockhandctl

#endif  // DOCKHANDCTL_HOLDERS_H
