#ifndef DOCKHAND_BENCH_BARE_H
#define DOCKHAND_BENCH_BARE_H

#include <string>

/// The daemon's system calls by themselves: the same calls with the same arguments, without records, log
/// lines and locks. Throws std::runtime_error if a call fails.
namespace bench {

/// The number of storage nodes in /dev.
int scanDev();

/// The value that libblkid reads from a node, empty without one.
std::string probe(const std::string& node, const char* key);

/// Mounts an ext3 stick as OpenDevice does, with all steps before the mount.
void bareOpen(const std::string& node, const std::string& target);

/// Unmounts it as CloseDevice does.
void bareClose(const std::string& target);

}  // namespace bench

#endif  // DOCKHAND_BENCH_BARE_H
