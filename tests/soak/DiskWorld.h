#ifndef DOCKHAND_TESTS_SOAK_DISKWORLD_H
#define DOCKHAND_TESTS_SOAK_DISKWORLD_H

#include <cstddef>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "../system/Stick.h"
#include "LinuxPlatform.h"
#include "Machine.h"
#include "World.h"

namespace soak {

/// The real kernel, libblkid and shell, with sticks on loop devices, in the private root of the system tests.
class DiskWorld : public World {
 public:
  /// Describes a stick.
  struct Kind {
    std::string name;
    /// The file system; empty: none.
    std::string type;
    std::string label;
    bool partitioned = false;
  };

  DiskWorld();
  ~DiskWorld() override;

  /// Makes a stick, and tries how this kernel mounts it. The stick is not plugged in yet.
  Stick makeStick(const Kind& kind);

  Dockhand::Platform& platform() override { return platform_; }
  void plug(const Stick& stick) override;
  void unplug(const Stick& stick) override;
  void fillMountTable(std::size_t size) override;
  std::string tableHead() override;
  std::set<std::string> missingFileSystems() override { return missing_; }
  std::string underMedia() override;
  /// Reports nothing: the handler's descriptors are the process's, which Soak counts.
  std::string heldByHandler() override { return {}; }

 private:
  void writePartitions() const;

  Dockhand::LinuxPlatform platform_;
  std::map<std::string, std::unique_ptr<systest::Stick>> sticks_;
  std::set<std::string> kernelNames_;
  std::set<std::string> missing_;
  int otherMounts_ = 0;
};

}  // namespace soak

#endif  // DOCKHAND_TESTS_SOAK_DISKWORLD_H
