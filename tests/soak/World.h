#ifndef DOCKHAND_TESTS_SOAK_WORLD_H
#define DOCKHAND_TESTS_SOAK_WORLD_H

#include <set>
#include <string>

#include "Machine.h"
#include "Platform.h"

namespace soak {

/// The system below the handler: simulated or real.
class World {
 public:
  World() = default;
  World(const World&) = delete;
  World& operator=(const World&) = delete;
  virtual ~World() = default;

  virtual Dockhand::Platform& platform() = 0;
  /// Makes the nodes of a stick, and the kernel's entries for it.
  virtual void plug(const Stick& stick) = 0;
  virtual void unplug(const Stick& stick) = 0;
  /// Removes the mounts of an earlier call, then mounts outside /media until the mount table has at least
  /// `size` characters. Nothing may be mounted under /media.
  virtual void fillMountTable(std::size_t size) = 0;
  /// The lines of the mount table that are not under /media.
  virtual std::string tableHead() = 0;
  /// The file systems that its kernel does not support.
  virtual std::set<std::string> missingFileSystems() { return {}; }
  /// The mounts and directories under /media, in the form of soak::underMedia.
  virtual std::string underMedia() = 0;
  /// The descriptors, directories and probes of this world that the handler holds, as text; empty: none. One
  /// failed probe does not count.
  virtual std::string heldByHandler() = 0;
};

}  // namespace soak

#endif  // DOCKHAND_TESTS_SOAK_WORLD_H
