// File search: the files of one directory that have a given extension.

#include <algorithm>
#include <cctype>
#include <string_view>

#include "DockhandClient.h"
#include "ModuleLog.h"

namespace Dockhand {

namespace {

std::string toUpperCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}

/// The part after the last dot, or the whole name if it has no dot.
std::string_view extensionOf(std::string_view name) {
  return name.substr(name.rfind('.') + 1);
}

/// Closes a directory even if there is no memory for the list of its files.
struct DirectoryCloser {
  Platform& platform;
  DIR* directory;

  DirectoryCloser(Platform& closingPlatform, DIR* openDirectory)
      : platform(closingPlatform), directory(openDirectory) {}
  DirectoryCloser(const DirectoryCloser&) = delete;
  DirectoryCloser& operator=(const DirectoryCloser&) = delete;
  ~DirectoryCloser() { platform.closedir(directory); }
};

}  // namespace

void DockhandClient::GetFilesByExtension(std::vector<std::string>& _return, std::int16_t deviceId,
                                         const std::string& directory, const std::string& extension) {
  usbClientLog.trace(1402, "GetFilesByExtension(", deviceId, ")");
  const HandlerLock lock(handlerMutex);
  const UsbDeviceEntry* device = devices_.find(deviceId);
  const std::string mountPoint = device != nullptr ? device->mountPoint : std::string();

  DIR* const opened = platform_.opendir(mountPoint + '/' + directory);
  if (opened == nullptr) {
    return;
  }
  const DirectoryCloser closer(platform_, opened);
  // A folder may have a million entries, so copy only the names that match.
  const std::string upperCase = toUpperCase(extension);
  while (const dirent* file = platform_.readdir(opened)) {
    const std::string_view name = file->d_name;
    if (name == "." || name == "..") {
      continue;
    }
    const std::string_view found = extensionOf(name);
    if (found == extension || found == upperCase) {
      _return.emplace_back(name);
    }
  }
}

}  // namespace Dockhand
