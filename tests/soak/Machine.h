#ifndef DOCKHAND_TESTS_SOAK_MACHINE_H
#define DOCKHAND_TESTS_SOAK_MACHINE_H

#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace soak {

/// The disk behind a node in /dev, as libblkid and the kernel see it.
struct Disk {
  std::string type;   ///< "TYPE" of libblkid; empty: nothing is found
  std::string label;  ///< empty: none
  std::string uuid;
  /// The file system that can mount it; empty: none.
  std::string mountsAs;
  bool writeProtected = false;
  /// The options of its mount in the mount table, after rw or ro.
  std::string tableOptions = "nosuid";
  std::int64_t bytes = 0;
  /// Names by directory; "" is the root.
  std::map<std::string, std::vector<std::string>> files;
};

/// A stick that can be plugged in.
struct Stick {
  std::string name;  ///< kernel name of the whole disk: sda
  bool partitioned = false;
  bool removable = true;
  /// The content of its partition, or of the whole disk if it has none.
  Disk disk;

  /// The name in its notifications: sda, or sda1 with a partition.
  std::string announcedName() const { return partitioned ? name + "1" : name; }
  std::string node() const { return "/dev/usb_storage_" + announcedName(); }
};

/// The part of a Linux machine that the daemon sees: nodes in /dev, mounts, directories under /media, some
/// files and the tools of the shell. It is a value and depends on nothing else: two copies stay equal if they
/// get the same calls.
///
/// Functions that simulate a system call return 0 or the errno.
class Machine {
 public:
  struct Mount {
    std::string source;
    std::string target;
    std::string type;
    unsigned long flags = 0;
    std::string options;
    Disk disk;
  };

  /// The lines of the mount table that never change.
  std::string tableHead;
  /// File systems that this kernel does not have.
  std::set<std::string> missingFileSystems;

  void plug(const Stick& stick);
  void unplug(const Stick& stick);

  /// The names in /dev, sorted.
  std::vector<std::string> nodes() const;
  /// Null without such a node.
  const Disk* diskAt(const std::string& node) const;

  int mount(const std::string& source, const std::string& target, const std::string& type,
            unsigned long flags, const std::string& options);
  int unmount(const std::string& target);
  int makeDirectory(const std::string& path);
  int removeDirectory(const std::string& path);
  bool exists(const std::string& path) const { return directories_.count(path) != 0; }
  /// The names in a directory under /media, or in a directory of a mounted disk.
  std::optional<std::vector<std::string>> list(const std::string& path) const;
  /// The content of a file of /proc, /sys or /tmp.
  std::optional<std::string> read(const std::string& path) const;
  /// Runs one of the daemon's command lines; returns the status as system() does.
  int shell(const std::string& command);

  const std::list<Mount>& mounts() const { return mounts_; }
  const std::set<std::string>& directories() const { return directories_; }

 private:
  std::string mountTable() const;
  std::string partitions() const;
  /// The mount that contains a path: the last one whose target is a prefix.
  const Mount* mountOf(const std::string& path) const;
  bool isMounted(const std::string& node) const;

  std::map<std::string, Disk> disks_;  ///< by path of the node
  std::list<Mount> mounts_;            ///< oldest first
  std::set<std::string> directories_;  ///< under /media
  std::map<std::string, std::string> files_;
};

/// The mounts and directories under /media, one line each.
std::string underMedia(const Machine& machine);
/// One such line.
std::string mountLine(const std::string& source, const std::string& target, const std::string& type);
std::string directoryLine(const std::string& path);

}  // namespace soak

#endif  // DOCKHAND_TESTS_SOAK_MACHINE_H
