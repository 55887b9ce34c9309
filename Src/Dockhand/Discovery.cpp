// Discovery: keeps the device map in step with the nodes under /dev.

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "DockhandClient.h"
#include "ModuleLog.h"

namespace Dockhand {

namespace {

constexpr std::string_view nodePrefix = "usb_storage_";

int isStorageNode(const dirent* entry) {
  return std::strstr(entry->d_name, nodePrefix.data()) != nullptr ? 1 : 0;
}

/// Frees the entries that scandir returned.
struct ScannedEntries {
  dirent** entries = nullptr;
  int count = 0;

  ScannedEntries() = default;
  ScannedEntries(const ScannedEntries&) = delete;
  ScannedEntries& operator=(const ScannedEntries&) = delete;
  ~ScannedEntries() {
    for (int i = 0; i < count; ++i) {
      std::free(entries[i]);
    }
    std::free(entries);
  }
};

std::string pickCharacters(const std::string& text, char first, char last) {
  std::string picked;
  for (const char c : text) {
    if (c >= first && c <= last) {
      picked += c;
    }
  }
  return picked;
}

}  // namespace

void DockhandClient::CheckForAndUpdateNewDevices() {
  usbClientLog.trace(142, "CheckForAndUpdateNewDevices");
  const HandlerLock lock(handlerMutex);

  devices_.beginScan();
  ScannedEntries nodes;
  nodes.count = platform_.scandir("/dev", &nodes.entries, isStorageNode, alphasort);
  if (nodes.count < 0) {
    const int error = errno;
    usbClientLog.warning(162, "scandir failed, errno=", error);
    return;
  }

  for (int i = 0; i < nodes.count; ++i) {
    const std::string node = nodes.entries[i]->d_name;
    const std::string text = node.substr(nodePrefix.size());
    const std::string deviceName = pickCharacters(text, 'a', 'z');
    const std::string deviceNumber = pickCharacters(text, '0', '9');

    const bool matchFound = devices_.markSeen(deviceName, !deviceNumber.empty());
    usbClientLog.trace(196, "entry: name=", text, " number=", deviceNumber, " matchFound=", matchFound);

    if (!matchFound) {
      devices_.insert(deviceName, deviceNumber);
    }
  }

  devices_.eraseUnseen();
}

}  // namespace Dockhand
