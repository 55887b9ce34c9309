#include "Prober.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "ModuleLog.h"

namespace Dockhand {

Prober::~Prober() {
  if (failedProbe_ != nullptr) {
    platform_.blkid_free_probe(failedProbe_);
  }
}

std::string Prober::lookUp(const std::string& node, const char* key) {
  const blkid_probe probe = platform_.blkid_new_probe_from_filename(node);
  if (probe == nullptr) {
    usbClientLog.warning(986, "blkid_new_probe_from_filename(", node, ") failed!");
    return {};
  }
  // libblkid does not always set errno, and the log must not show an older error as its own.
  errno = 0;
  if (platform_.blkid_do_probe(probe) == -1) {
    const int error = errno;
    usbClientLog.warning(993, "blkid_do_probe() failed. error=", error);
    keepFailedProbe(probe);
    return {};
  }
  std::string result;
  const char* value = "";
  errno = 0;
  if (platform_.blkid_probe_lookup_value(probe, key, &value) == -1) {
    const int error = errno;
    usbClientLog.warning(1001, "blkid_probe_lookup_value(", key, ") failed. error=", error);
  }
  // Nobody chooses a name of one character.
  if (value != nullptr && std::strlen(value) > 1) {
    result = value;
  } else {
    usbClientLog.warning(1008, "No ", key, " found for ", node);
  }
  platform_.blkid_free_probe(probe);
  return result;
}

void Prober::keepFailedProbe(blkid_probe probe) {
  if (failedProbe_ != nullptr) {
    platform_.blkid_free_probe(failedProbe_);
  }
  failedProbe_ = probe;
}

Prober::NodeHold::NodeHold(Prober& prober, const std::string& node) : prober_(prober) {
  prober_.heldNode_ = prober_.platform_.open(node, O_RDONLY | O_NONBLOCK);
}

void Prober::releaseNode() {
  if (heldNode_ >= 0) {
    platform_.close(heldNode_);
    heldNode_ = -1;
  }
}

}  // namespace Dockhand
