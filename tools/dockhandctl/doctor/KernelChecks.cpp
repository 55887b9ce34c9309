#include <algorithm>
#include <cstddef>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "Checks.h"
#include "Kernel.h"
#include "MountTable.h"

namespace dockhandctl::doctor {
namespace {

Finding missing(const std::string& fileSystem, const std::string& option, const std::string& disks) {
  return {fileSystem, State::problem, "the kernel has no " + fileSystem + ": " + disks + " cannot be opened",
          "build the kernel with " + option + ", or install the module"};
}

Finding checkVfat(const Machine& machine, const KernelConfiguration& configuration) {
  if (!kernelHas(machine, "vfat")) {
    return missing("vfat", "CONFIG_VFAT_FS", "FAT sticks");
  }
  // Every mount needs the tables of the default code page and the default character set, even with utf8.
  const bool tables = configuration.has("NLS_CODEPAGE_437") &&
                      (configuration.has("NLS_ISO8859_1") || configuration.has("NLS_ASCII"));
  if (configuration.known() && !tables) {
    return {"vfat", State::warning, "the kernel may lack the character tables of its FAT defaults",
            "build the kernel with CONFIG_NLS_CODEPAGE_437 and CONFIG_NLS_ISO8859_1 or CONFIG_NLS_ASCII"};
  }
  return {"vfat", State::ok, "the kernel mounts it, option utf8 included", ""};
}

Finding withNlsUtf8(const Machine& machine, const KernelConfiguration& configuration,
                    const std::string& fileSystem) {
  if (configuration.has("NLS_UTF8") || isLoadable(machine, "nls_utf8")) {
    return {fileSystem, State::ok, "the kernel mounts it, option nls=utf8 included", ""};
  }
  if (!configuration.known()) {
    return {fileSystem, State::warning, "cannot tell whether the kernel has the table for nls=utf8",
            "make the kernel's configuration readable: CONFIG_IKCONFIG_PROC, or /boot/config-" +
                machine.kernelRelease};
  }
  return {fileSystem, State::problem, "the kernel has no table for dockhand's mount option nls=utf8",
          "build the kernel with CONFIG_NLS_UTF8"};
}

Finding checkNtfs(const Machine& machine, const KernelConfiguration& configuration) {
  if (kernelHas(machine, "ntfs")) {
    return withNlsUtf8(machine, configuration, "ntfs");
  }
  Finding finding = missing("ntfs", "CONFIG_NTFS_FS", "NTFS sticks");
  if (kernelHas(machine, "ntfs3")) {
    finding.message =
        "the kernel has NTFS only as ntfs3, which dockhand does not try: NTFS sticks cannot be opened";
  }
  return finding;
}

Finding checkExt3(const Machine& machine, const KernelConfiguration& /*configuration*/) {
  if (!kernelHas(machine, "ext3")) {
    return missing("ext3", "CONFIG_EXT4_FS and CONFIG_EXT4_USE_FOR_EXT2 or CONFIG_EXT3_FS", "ext3 disks");
  }
  return {"ext3", State::ok, "the kernel mounts it", ""};
}

Finding checkHfs(const Machine& machine, const KernelConfiguration& /*configuration*/) {
  if (!kernelHas(machine, "hfs")) {
    return missing("hfs", "CONFIG_HFS_FS", "HFS disks");
  }
  return {"hfs", State::warning,
          "the kernel's hfs does not know the mount option nls=utf8: HFS disks (not HFS+) cannot be opened, "
          "although opening them reports success",
          "if you need such disks, patch the kernel to accept the option; otherwise pass --ignore hfs"};
}

Finding checkHfsplus(const Machine& machine, const KernelConfiguration& configuration) {
  return kernelHas(machine, "hfsplus") ? withNlsUtf8(machine, configuration, "hfsplus")
                                       : missing("hfsplus", "CONFIG_HFSPLUS_FS", "HFS+ disks");
}

Finding checkXfs(const Machine& machine, const KernelConfiguration& configuration) {
  if (!kernelHas(machine, "xfs")) {
    return missing("xfs", "CONFIG_XFS_FS", "recording disks");
  }
  if (configuration.has("XFS_QUOTA")) {
    return {"xfs", State::ok, "the kernel mounts it, option prjquota included", ""};
  }
  if (configuration.known()) {
    return {"xfs", State::problem,
            "the kernel's xfs has no quotas and refuses the mount option prjquota: recording disks cannot be "
            "opened",
            "build the kernel with CONFIG_XFS_QUOTA"};
  }
  return {"xfs", State::warning, "cannot tell whether the kernel's xfs knows the mount option prjquota",
          "make the kernel's configuration readable: CONFIG_IKCONFIG_PROC, or /boot/config-" +
              machine.kernelRelease};
}

/// The daemon reads this many bytes of the mount table when it closes a device.
constexpr std::size_t maxTableBytes = 1024;

struct MountLine {
  std::string target;
  std::size_t endOfTarget;  ///< Offset after the blank that follows the mount point.
};

std::vector<MountLine> parseMountTable(const std::string& table) {
  std::vector<MountLine> result;
  std::size_t begin = 0;
  while (begin < table.size()) {
    const std::size_t end = std::min(table.find('\n', begin), table.size());
    const std::string line = table.substr(begin, end - begin);
    const std::size_t source = line.find(' ');
    const std::size_t target = source == std::string::npos ? source : line.find(' ', source + 1);
    if (target != std::string::npos) {
      result.push_back({line.substr(source + 1, target - source - 1), begin + target + 1});
    }
    begin = end + 1;
  }
  return result;
}

/// True if a mount policy says nothing about the file system of a finding, or mounts it as the daemon itself
/// does.
bool isUnchanged(const Finding& finding, const Dockhand::MountRules& policy) {
  const Dockhand::MountRule* const rule = findRule(policy, finding.check);
  if (rule == nullptr) {
    return true;
  }
  return std::any_of(std::begin(Dockhand::mountTable), std::end(Dockhand::mountTable), [&](const auto& row) {
    return row.fileSystemType == finding.check && rule->mountAs == finding.check &&
           ("," + rule->options + ",").find("," + std::string(row.options) + ",") != std::string::npos;
  });
}

}  // namespace

Findings checkFileSystems(const Machine& machine) {
  const KernelConfiguration configuration(machine);
  // clang-format off
  Findings findings = {
      checkVfat(machine, configuration),
      checkNtfs(machine, configuration),
      checkExt3(machine, configuration),
      checkHfs(machine, configuration),
      checkHfsplus(machine, configuration),
      checkXfs(machine, configuration),
  };
  // clang-format on
  const Dockhand::MountRules policy = rulesOfMountPolicy(machine);
  const auto changed = [&policy](const Finding& finding) { return !isUnchanged(finding, policy); };
  findings.erase(std::remove_if(findings.begin(), findings.end(), changed), findings.end());
  return findings;
}

Findings checkPartitionTables(const Machine& machine) {
  const KernelConfiguration configuration(machine);
  if (configuration.has("EFI_PARTITION")) {
    return {{"gpt", State::ok, "the kernel reads the partition tables of disks above 2 TiB", ""}};
  }
  if (configuration.known()) {
    return {{"gpt", State::warning,
             "the kernel reads no GPT: disks above 2 TiB cannot be prepared for recording",
             "build the kernel with CONFIG_EFI_PARTITION"}};
  }
  return {{"gpt", State::warning, "cannot tell whether the kernel reads a GPT, which disks above 2 TiB have",
           "make the kernel's configuration readable: CONFIG_IKCONFIG_PROC, or /boot/config-" +
               machine.kernelRelease}};
}

Findings checkProtectedFiles(const Machine& machine) {
  const std::string check = "protected-files";
  std::string off;
  for (const char* name :
       {"protected_symlinks", "protected_hardlinks", "protected_fifos", "protected_regular"}) {
    const std::string value = machine.read(std::string("/proc/sys/fs/") + name).value_or("");
    if (value.empty() || value[0] == '0') {
      off += (off.empty() ? "fs." : ", fs.") + std::string(name);
    }
  }
  if (!off.empty()) {
    return {{check, State::warning,
             "root uses what users plant in shared directories, because these settings are off: " + off,
             "install integration/sysctl, or switch them on"}};
  }
  return {{check, State::ok, "links, pipes and files in shared directories work for their owners only", ""}};
}

Findings checkMountTable(const Machine& machine) {
  const std::string check = "mount-table";
  const std::string consequence = ", and closing it reports success without unmounting it";
  const std::string remedy =
      "run dockhand in its own mount namespace, with fewer mounts (DOCKHAND_NAMESPACE=always)";
  const std::string limit = " bytes, of which closing a device reads " + std::to_string(maxTableBytes);
  std::string whose = "the daemon's mount table";
  auto table = machine.daemon == 0 ? std::nullopt
                                   : machine.read("/proc/" + std::to_string(machine.daemon) + "/mounts");
  if (!table) {
    whose = "dockhandctl's own mount table (the daemon's cannot be read)";
    table = machine.read("/proc/self/mounts");
  }
  if (!table) {
    return {{check, State::problem, "no mount table can be read", "mount /proc"}};
  }
  for (const MountLine& line : parseMountTable(*table)) {
    if (line.target.rfind("/media/", 0) == 0 && line.endOfTarget > maxTableBytes) {
      std::string message = line.target;
      message.append(" lies beyond the first ").append(std::to_string(maxTableBytes)).append(" bytes of ");
      return {{check, State::problem, message.append(whose).append(consequence), remedy}};
    }
  }
  // The line of a stick has about 150 bytes; only its mount point must be within the limit.
  constexpr std::size_t lineLength = 150;
  constexpr std::size_t upToMountPoint = 40;
  const std::string size = whose + " has " + std::to_string(table->size()) + limit;
  if (table->size() + upToMountPoint > maxTableBytes) {
    return {{check, State::problem, size + ": the next device will lie beyond them" + consequence, remedy}};
  }
  const std::size_t room = (maxTableBytes - upToMountPoint - table->size()) / lineLength + 1;
  if (room < 2) {
    return {{check, State::warning, size + ": there is room for one more device only", remedy}};
  }
  return {
      {check, State::ok, size + ": there is room for about " + std::to_string(room) + " more devices", ""}};
}

}  // namespace dockhandctl::doctor
