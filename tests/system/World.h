#ifndef DOCKHAND_TESTS_SYSTEM_WORLD_H
#define DOCKHAND_TESTS_SYSTEM_WORLD_H

#include <string>
#include <vector>

/// The private world that a system test lives in (tools/dev/private_root makes it): its kernel tables, its
/// mounts and its files. A failure throws std::runtime_error, and so fails the test.
namespace systest {

/// Why there is no private world here; empty when there is one.
std::string reasonForNoWorld();

/// Takes everything away that a test may have left: mounts and directories under /media, nodes, kernel
/// tables.
void clearWorld();

/// What the kernel says it knows: the names in /proc/partitions.
void setPartitions(const std::vector<std::string>& kernelNames);
/// The content of /sys/block/NAME/removable.
void setRemovable(const std::string& kernelName, const std::string& text);

/// One line of the mount table.
struct Mount {
  std::string source;
  std::string type;
  std::string options;
};

/// What is mounted at exactly this path, the oldest first.
std::vector<Mount> mountsAt(const std::string& target);

/// True when the kernel can mount file systems of this type, as /proc/filesystems tells.
bool kernelKnowsFileSystem(const std::string& type);

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& text);
std::string readLink(const std::string& path);
/// The names in a directory, sorted.
std::vector<std::string> namesIn(const std::string& directory);

/// Runs a program to its end and returns what it wrote. Throws when it fails.
std::string run(std::vector<std::string> command);

}  // namespace systest

#endif  // DOCKHAND_TESTS_SYSTEM_WORLD_H
