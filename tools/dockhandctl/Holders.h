#ifndef DOCKHANDCTL_HOLDERS_H
#define DOCKHANDCTL_HOLDERS_H

#include <string>
#include <vector>

namespace dockhandctl {

/// The processes that use a mount, according to /proc.
struct Holders {
  /// One line for each process, for people: `process 4711 (mpg123): open file "/media/disk_1/a.mp3"`.
  std::vector<std::string> lines;
  /// True if every process could be inspected.
  bool complete = true;
};

/// Takes the canonical path of a directory. Follows no link, so that it never waits for a disk.
Holders holdersOf(const std::string& directory);

}  // namespace dockhandctl

#endif  // DOCKHANDCTL_HOLDERS_H
