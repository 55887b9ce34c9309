#ifndef DOCKHAND_BENCH_BARE_H
#define DOCKHAND_BENCH_BARE_H

#include <string>

/// What the daemon asks of the system, by itself: the same calls with the same arguments, without records,
/// log lines and locks. Throws std::runtime_error where a call fails.
namespace bench {

/// The number of storage nodes in /dev.
int scanDev();

/// What libblkid reads from a node.
std::string probe(const std::string& node, const char* key);

/// Mounts an ext3 stick as an opening does it, with all that comes before.
void bareOpen(const std::string& node, const std::string& target);

/// Unmounts it as a closing does it.
void bareClose(const std::string& target);

}  // namespace bench

#endif  // DOCKHAND_BENCH_BARE_H
