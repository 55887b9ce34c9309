#ifndef DOCKHAND_TESTS_SYSTEM_WORLD_H
#define DOCKHAND_TESTS_SYSTEM_WORLD_H

#include <string>
#include <vector>

/// The private root of a system test (made by tools/dev/private_root): its kernel tables, mounts and files. A
/// failure throws std::runtime_error, which fails the test.
namespace systest {

/// Why there is no private root; empty if there is one.
std::string reasonForNoWorld();

/// Removes everything that a test may leave: mounts and directories under /media, nodes, kernel tables, tools
/// and /tmp/ran, a mark that tools may make.
void clearWorld();

/// Sets the names in /proc/partitions.
void setPartitions(const std::vector<std::string>& kernelNames);
/// Sets the content of /sys/block/NAME/removable.
void setRemovable(const std::string& kernelName, const std::string& text);

/// One line of the mount table.
struct Mount {
  std::string source;
  std::string type;
  std::string options;
};

/// The mounts at exactly this path, oldest first.
std::vector<Mount> mountsAt(const std::string& target);

/// True if /proc/filesystems lists this type.
bool kernelKnowsFileSystem(const std::string& type);

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& text);
std::string readLink(const std::string& path);
/// The names in a directory, sorted.
std::vector<std::string> namesIn(const std::string& directory);

/// Makes a script in /tmp/bin. `withTools` puts it into the daemon's PATH.
void makeTool(const std::string& name, const std::string& body);

/// Runs a program to its end and returns its output. Throws if it fails.
std::string run(std::vector<std::string> command);

}  // namespace systest

#endif  // DOCKHAND_TESTS_SYSTEM_WORLD_H
