#include <sys/types.h>

#include <string>
#include <vector>

#include "Checks.h"
#include "SparseFile.h"

namespace dockhandctl::doctor {
namespace {

struct Tool {
  const char* name;
  const char* neededFor;
  bool optional = false;
};

constexpr Tool tools[] = {{"umount", "preparing and repairing a disk that is mounted"},
                          {"sfdisk", "the log of a disk's old partition table"},
                          {"dd", "preparing a disk"},
                          {"fdisk", "preparing a disk"},
                          {"mkfs.xfs", "preparing a disk"},
                          {"xfs_repair", "repairing a disk"},
                          {"logger", "the tools' output in the system log"},
                          {"rm", "the USB version"},
                          {"readUsbVersion.sh", "the USB version"},
                          {"udevadm", "looking into udev", true}};

const char* const wrapperFirst =
    "put the folder of the wrappers (lib/dockhand/tools) first in the daemon's PATH";

// The installed folder ends so, whatever the prefix is.
const char* const wrapperFolder = "/dockhand/tools/";
constexpr const char* wrappers[] = {"dd", "fdisk", "logger", "mkfs.xfs", "umount"};

std::string firstLine(const std::string& text) {
  return text.substr(0, text.find('\n'));
}

bool hasPartition(const SparseFile& disk) {
  constexpr off_t typeOfFirstDosEntry = 446 + 4;
  return disk.byteAt(typeOfFirstDosEntry) != 0;
}

}  // namespace

Findings checkPath(const Machine& machine) {
  std::string folders;
  for (const std::string& folder : machine.path) {
    folders += (folders.empty() ? "" : ":") + folder;
  }
  if (!machine.pathIsDaemons) {
    return {{"path", State::warning,
             "the checks use dockhandctl's own PATH, " + folders + ", because " + machine.reasonForOtherPath,
             "run dockhandctl as root while dockhand runs"}};
  }
  return {{"path", State::ok, "the daemon looks for its tools in " + folders, ""}};
}

Findings checkTools(const Machine& machine) {
  Findings findings;
  for (const Tool& tool : tools) {
    const std::string found = machine.find(tool.name);
    if (!found.empty()) {
      findings.push_back({tool.name, State::ok, found, ""});
    } else if (tool.optional) {
      findings.push_back({tool.name, State::ok,
                          "not in the PATH; it is needed only for " + std::string(tool.neededFor), ""});
    } else {
      findings.push_back({tool.name, State::problem,
                          "not in the PATH; it is needed for " + std::string(tool.neededFor),
                          "install it, or complete the daemon's PATH"});
    }
  }
  return findings;
}

Findings checkWrappers(const Machine& machine) {
  std::string bare;
  for (const std::string name : wrappers) {
    const std::string found = machine.find(name);
    if (!found.empty() && found.find(wrapperFolder + name) == std::string::npos) {
      bare += (bare.empty() ? "" : ", ") + found;
    }
  }
  if (!bare.empty()) {
    return {
        {"wrappers", State::warning,
         "no wrapper comes before " + bare +
             ", so a disk may be wiped while it is in use, be prepared wrongly, or write control characters "
             "to the log",
         wrapperFirst}};
  }
  return {{"wrappers", State::ok, "the wrappers come before the system's tools", ""}};
}

Findings checkPartitioning(const Machine& machine) {
  const std::string check = "partitioning";
  const std::string fdisk = machine.find("fdisk");
  if (fdisk.empty()) {
    return {{check, State::problem, "cannot be tried: there is no fdisk", "install fdisk"}};
  }
  // The daemon's own command, on a file. Look at the result, because fdisk may fail and still exit with 0.
  constexpr off_t diskSize = 16 << 20;
  const SparseFile disk(diskSize);
  const CommandResult result =
      machine.run({"/bin/sh", "-c", "echo -e 'n\\np\\n1\\n\\n\\nw' | fdisk \"$1\"", "sh", disk.path()});
  if (hasPartition(disk)) {
    return {{check, State::ok, fdisk + " makes the partition of a recording disk", ""}};
  }
  if (machine.run({"/bin/sh", "-c", "echo -e 'n'"}).output != "n\n") {
    return {{check, State::problem,
             "the echo of /bin/sh prints the -e that the daemon gives it, and " + fdisk +
                 " reads it as an answer",
             std::string(wrapperFirst) + ", or make bash or busybox the /bin/sh"}};
  }
  return {
      {check, State::problem,
       fdisk + " makes no partition from the daemon's answers (status " + std::to_string(result.status) + ")",
       "replace it by the fdisk of util-linux or busybox"}};
}

Findings checkFormatting(const Machine& machine) {
  const std::string check = "formatting";
  const std::string mkfs = machine.find("mkfs.xfs");
  if (mkfs.empty()) {
    return {{check, State::problem, "cannot be tried: there is no mkfs.xfs", "install xfsprogs"}};
  }
  // Today's mkfs.xfs refuses a disk of less than 300 MiB.
  constexpr off_t diskSize = 512 << 20;
  const SparseFile disk(diskSize);
  const CommandResult result =
      machine.run({"mkfs.xfs", "-N", "-f", "-l", "lazy-count=0", "-L", "PVR_DISK", disk.path()});
  if (result.status == 0) {
    return {{check, State::ok, mkfs + " accepts the daemon's options", ""}};
  }
  return {{check, State::problem,
           mkfs + " refuses the daemon's options (-l lazy-count=0): " + firstLine(result.output),
           std::string(wrapperFirst) + ", or install an xfsprogs older than 3.2.3"}};
}

}  // namespace dockhandctl::doctor
