#ifndef DOCKHAND_TESTS_SOAK_WORLD_H
#define DOCKHAND_TESTS_SOAK_WORLD_H

#include <set>
#include <string>

#include "Machine.h"
#include "Platform.h"

namespace soak {

/// What the handler runs on: a simulated system, or a real one.
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
  /// Mounts something elsewhere until the mount table has at least this many characters, after taking away
  /// what an earlier call has mounted. Nothing may be mounted under /media.
  virtual void fillMountTable(std::size_t size) = 0;
  /// The lines of the mount table that are not of /media.
  virtual std::string tableHead() = 0;
  /// The file systems that its kernel does not have.
  virtual std::set<std::string> missingFileSystems() { return {}; }
  /// The mounts and directories under /media, as soak::underMedia words them.
  virtual std::string underMedia() = 0;
  /// What the handler holds of this world's descriptors, directories and probes, in words; empty: nothing.
  /// One probe that failed may be kept.
  virtual std::string heldByHandler() = 0;
};

}  // namespace soak

#endif  // DOCKHAND_TESTS_SOAK_WORLD_H
