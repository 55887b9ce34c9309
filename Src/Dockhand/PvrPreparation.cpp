// Preparation of a recording disk: one partition over the whole disk, formatted with XFS.

#include <string>
#include <string_view>

#include "DockhandClient.h"
#include "ModuleLog.h"

namespace Dockhand {

namespace {

constexpr std::string_view defaultPvrLabel = "PVR_DISK";

bool isContinuation(char c) {
  return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

/// The bytes of a multi-byte UTF-8 character that begins with `first`. 0 if no such character begins with it.
std::size_t characterLength(char first) {
  const auto byte = static_cast<unsigned char>(first);
  if (byte < 0xC2 || byte > 0xF4) {
    return 0;
  }
  return byte < 0xE0 ? 2 : byte < 0xF0 ? 3 : 4;
}

/// The first 11 bytes of a label, or a few fewer so that no UTF-8 character is cut in two. A label need not
/// be UTF-8: a byte that only looks like the middle of a character does not shorten it.
std::string cutLabel(const std::string& label) {
  constexpr std::size_t maxBytes = 11;
  if (label.size() <= maxBytes) {
    return label;
  }
  std::size_t begin = maxBytes;
  while (begin > 0 && isContinuation(label[begin])) {
    --begin;
  }
  const bool isCutInTwo = begin + characterLength(label[begin]) > maxBytes;
  return label.substr(0, isCutInTwo ? begin : maxBytes);
}

/// Escapes a label for double quotes in a shell command, and leaves out control characters. Anybody may have
/// written the label to the disk, and root's shell reads the command.
std::string escapeForShell(const std::string& label) {
  std::string escaped;
  for (const char c : label) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7F) {
      continue;
    }
    if (c == '"' || c == '\\' || c == '$' || c == '`') {
      escaped += '\\';
    }
    escaped += c;
  }
  return escaped;
}

}  // namespace

bool DockhandClient::PrepareDeviceForPvr(std::int16_t deviceId) {
  const HandlerLock lock(handlerMutex);
  usbClientLog.trace(860, "PrepareDeviceForPvr(", deviceId, ")");
  setPvrPreparationRunning(true);
  const UsbDeviceEntry* entry = devices_.find(deviceId);
  if (entry == nullptr) {
    // The flag stays set: plug events are ignored until the next preparation of a known device ends.
    usbClientLog.warning(866, "PrepareDeviceForPvr() - Unknown device: ", deviceId);
    return false;
  }
  bool prepared = false;
  {
    // Clears the flag even if a step throws. Plug events are ignored until then.
    struct EndOfPreparation {
      DockhandClient& client;
      ~EndOfPreparation() { client.setPvrPreparationRunning(false); }
    };
    const EndOfPreparation endOfPreparation{*this};
    prepared = prepareDisk(deviceId, *entry);
  }
  CheckForAndUpdateNewDevices();
  return prepared;
}

bool DockhandClient::prepareDisk(std::int16_t deviceId, const UsbDeviceEntry& entry) {
  if (entry.deviceOpen) {
    usbClientLog.warning(872, "PrepareDeviceForPvr() - Device is Open!");
  }

  const std::string disk = diskNode(entry);
  const std::string partition = disk + '1';
  const std::string label = pvrLabel(deviceId, entry.deviceOpen);

  shell_.forceUnmount(partition, 903, "");
  // Prints the old table, for the system log only.
  executeShellCommand("sfdisk -l " + disk, 908, true);
  // A wipe that fails does not matter. One that does not run ends the preparation: fdisk's answers fit an
  // empty table only.
  bool wasRun = false;
  executeShellCommand("dd if=/dev/zero of=" + disk + " bs=512 count=1", 913, false, &wasRun);
  if (!wasRun || executeShellCommand("echo -e 'n\\np\\n1\\n\\n\\nw' | fdisk " + disk, 917, true) != 0) {
    return false;
  }
  // Meanwhile the kernel and udev remove the old partition's node and make the new one.
  platform_.sleep(4);
  shell_.forceUnmount(partition, 930, " (after partition (re)created)");
  const bool formatted =
      executeShellCommand("mkfs.xfs -f -l lazy-count=0 -L \"" + label + "\" " + partition, 934, false) == 0;
  platform_.sleep(2);
  return formatted;
}

int DockhandClient::executeShellCommand(const std::string& command, int sourceLine, bool passLogAlways,
                                        bool* wasRun) {
  return shell_.run(command, sourceLine, passLogAlways, wasRun);
}

std::string DockhandClient::pvrLabel(std::int16_t deviceId, bool deviceOpen) {
  if (deviceOpen) {
    return std::string(defaultPvrLabel);
  }
  ravel::rpc::ReturnValueWithString current;
  GetDeviceLabel(current, deviceId);
  if (!current.success || current.text == "NONAME" || current.text == "New Volume" ||
      current.text == "KRX_LOGS") {
    return std::string(defaultPvrLabel);
  }
  const std::string label = escapeForShell(cutLabel(current.text));
  return label.empty() ? std::string(defaultPvrLabel) : label;
}

// Notifications read the flag without the lock, because they must not wait for a preparation. These two
// functions keep the compiler from splitting or caching the access.

void DockhandClient::setPvrPreparationRunning(bool running) {
  __atomic_store_n(&pvrPreparationRunning, running, __ATOMIC_RELAXED);
}

bool DockhandClient::isPvrPreparationRunning() const {
  return __atomic_load_n(&pvrPreparationRunning, __ATOMIC_RELAXED);
}

}  // namespace Dockhand
