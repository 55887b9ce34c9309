#ifndef DOCKHAND_PROBER_H
#define DOCKHAND_PROBER_H

#include <string>

#include "Platform.h"

namespace Dockhand {

/// Reads label, UUID and type of the file system on a device node, with libblkid.
///
/// Threads: one at a time; the handler's lock guards it.
class Prober {
 public:
  /// `platform` must outlive this object.
  explicit Prober(Platform& platform) : platform_(platform) {}
  Prober(const Prober&) = delete;
  Prober& operator=(const Prober&) = delete;
  ~Prober();

  /// The value of "LABEL", "UUID" or "TYPE" at a node. Empty if the node cannot be read, or has no such value
  /// of two characters or more. Failures are in the log only.
  std::string lookUp(const std::string& node, const char* key);

  /// Keeps a node open while it lives, or until releaseNode. The kernel drops its cache of a disk with the
  /// last descriptor, so otherwise each of the three probes of an opening would read the stick again. A
  /// failed open is ignored here; the probes report it.
  class NodeHold {
   public:
    NodeHold(Prober& prober, const std::string& node);
    NodeHold(const NodeHold&) = delete;
    NodeHold& operator=(const NodeHold&) = delete;
    ~NodeHold() { prober_.releaseNode(); }

   private:
    Prober& prober_;
  };
  /// Closes the node of a NodeHold, if one is open.
  void releaseNode();

 private:
  /// Takes ownership of a probe whose read failed, and frees the previous one.
  void keepFailedProbe(blkid_probe probe);

  Platform& platform_;
  /// The last probe whose read failed. It stays unfreed until the next one fails.
  blkid_probe failedProbe_ = nullptr;
  /// The open node of a NodeHold, or -1.
  int heldNode_ = -1;
};

}  // namespace Dockhand

#endif  // DOCKHAND_PROBER_H
