#ifndef DOCKHAND_TESTS_SOAK_MODEL_H
#define DOCKHAND_TESTS_SOAK_MODEL_H

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "Faults.h"
#include "Machine.h"

namespace soak {

/// The model's record of one device.
struct Record {
  std::string name;
  bool partition = false;
  bool open = false;
  bool seen = false;  ///< found by the last scan
  bool safelyRemoved = false;
  std::string mountPoint;
  int lastNotice = 0;  ///< 0 none, 1 added, 2 removed
  bool hidden = false;

  std::string kernelName() const { return partition ? name + "1" : name; }
};

/// A text reply of the service: a flag and a text.
struct Text {
  bool success = false;
  std::string text;
};

/// What the service must do, step by step: the replies, the table of devices, the calls to the system in
/// order, and their effect on the mounts and directories of the model's own machine. It shares no code with
/// the handler.
///
/// `calls` tells an operation which of its calls to the system fail. One thread at a time.
class Model {
 public:
  /// By device number.
  std::map<unsigned, Record> records;
  Machine machine;
  /// Observer number to observer; the same for both events.
  std::map<int, int> observers;
  /// The callbacks that observers must get, as "added 3 -1 42" (device, observer number, observer).
  std::vector<std::string> callbacks;
  /// The number of scans so far.
  std::size_t scans = 0;

  void scan(Calls& calls);
  std::vector<int> list(Calls& calls, bool includeHidden);
  void notifyAdded(Calls& calls, const std::string& usbDevice);
  void notifyRemoved(Calls& calls, const std::string& usbDevice);
  bool open(Calls& calls, int device, const std::string& mountPoint, bool isPvrDevice);
  bool close(Calls& calls, int device, bool safeRemoval);
  bool isOpen(int device) const;
  Text mountPoint(int device) const;
  Text physicalDevice(int device) const;
  Text label(Calls& calls, int device);
  Text uuid(Calls& calls, int device);
  Text usbVersion(Calls& calls, int device);
  int type(Calls& calls, int device);
  int capacity(Calls& calls, int device);
  std::vector<std::string> files(Calls& calls, int device, const std::string& directory,
                                 const std::string& extension) const;
  bool repair(Calls& calls, int device);

 private:
  Record* find(int device);
  const Record* find(int device) const;
  /// Whether a file or node can be opened.
  bool openFile(Calls& calls, const std::string& path) const;
  std::string probe(Calls& calls, const Record& record, const std::string& key) const;
  bool release(Calls& calls, Record& record, bool safeRemoval);
  bool removeMount(Calls& calls, const std::string& path, bool lazy);
  bool isListedAsMounted(const std::string& path) const;
  /// The errno of the last attempt; 0 if one succeeds.
  int tryMounts(Calls& calls, const std::string& node, const std::string& path,
                const std::string& probedType);
  /// The status of a command.
  int shell(Calls& calls, const std::string& command);
  int loggedShell(Calls& calls, const std::string& command);
  void announce(const std::string& event, unsigned device);
};

}  // namespace soak

#endif  // DOCKHAND_TESTS_SOAK_MODEL_H
