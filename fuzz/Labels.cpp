// Volume labels, which anybody can write to a disk, through the preparation of a recording disk. A real shell
// runs the command line that root's shell would get, with programs that only record their arguments. Only
// mkfs.xfs runs, once, with the right label.
//
// The input is the label as libblkid returns it: without NUL bytes.

#include "Fuzzing.h"
#include "ShellBox.h"

namespace {

/// The first 11 bytes, or those before the UTF-8 character that would be cut in two there. Other bytes are
/// cut anywhere.
std::string cut(const std::string& label) {
  const auto byteAt = [&](std::size_t at) { return static_cast<unsigned char>(label[at]); };
  const auto isCutAt11 = [&](std::size_t begin) {
    const unsigned char first = byteAt(begin);
    const std::size_t length = first >= 0xf0 && first <= 0xf4   ? 4
                               : first >= 0xe0 && first <= 0xef ? 3
                               : first >= 0xc2 && first <= 0xdf ? 2
                                                                : 1;
    bool continues = true;
    for (std::size_t at = begin + 1; at <= 11; ++at) {
      continues = continues && byteAt(at) >> 6 == 2;
    }
    return continues && begin + length > 11;
  };
  for (const std::size_t begin : {10U, 9U, 8U}) {
    if (label.size() > 11 && isCutAt11(begin)) {
      return label.substr(0, begin);
    }
  }
  return label.substr(0, 11);
}

/// The label that the recording disk should get.
std::string newLabel(const std::string& label) {
  if (label.size() < 2 || label == "NONAME" || label == "New Volume" || label == "KRX_LOGS") {
    return "PVR_DISK";
  }
  std::string printable;
  for (const char c : cut(label)) {
    if (static_cast<unsigned char>(c) >= ' ' && c != '\x7f') {
      printable += c;
    }
  }
  return printable.empty() ? "PVR_DISK" : printable;
}

/// The command line with its output redirected to `file` instead of /tmp/Dockhand.log.
std::string withOutput(const std::string& commandLine, const std::string& file) {
  const std::string redirection = " 1>/tmp/Dockhand.log 2>&1";
  const std::size_t end = commandLine.size() - std::min(commandLine.size(), redirection.size());
  fuzz::require(commandLine.substr(end) == redirection, "the output goes to the log file");
  return commandLine.substr(0, end) + " 1>" + file + " 2>&1";
}

void requireOnlyMkfs(const std::string& commandLine, const std::string& label) {
  static fuzz::ShellBox box;
  const fuzz::ShellBox::Run run = box.run(withOutput(commandLine, box.output()));
  const std::vector<std::string> mkfs = {
      "mkfs.xfs", "-f", "-l", "lazy-count=0", "-L", label, "/dev/usb_storage_sda1"};
  fuzz::require(run.programs == std::vector<std::vector<std::string>>{mkfs}, "only mkfs.xfs runs, once");
  fuzz::require(run.status == 0 && run.output.empty(), "the shell prints nothing");
  fuzz::require(run.files.empty(), "no file appears");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string label = fuzz::fields(fuzz::textOf(data, size), 1)[0];

  FakePlatform platform;
  platform.deviceNodes = {"usb_storage_sda"};
  platform.disks["/dev/usb_storage_sda"].values = {{"LABEL", label}};
  platform.systemStatus = [](const std::string& command) {
    return command.rfind("umount", 0) == 0 ? 256 : 0;
  };
  TestableHandler handler(platform);
  journal().clear();
  fuzz::require(handler.PrepareDeviceForPvr(1), "the disk is prepared");

  const std::string mkfs = "system mkfs.xfs ";
  std::vector<std::string> calls;
  for (const std::string& call : journal().eventsBeginning("system ")) {
    if (call.rfind(mkfs, 0) == 0) {
      calls.push_back(mkfs);
      requireOnlyMkfs(call.substr(7), newLabel(label));
    } else {
      calls.push_back(call);
    }
  }
  const std::string unmount = "system umount -f /dev/usb_storage_sda1 1>/dev/null 2>&1";
  const std::string log = " 1>/tmp/Dockhand.log 2>&1";
  const std::string passLog = "system logger -s -t Dockhand </tmp/Dockhand.log";
  fuzz::require(
      calls ==
          std::vector<std::string>{unmount, "system sfdisk -l /dev/usb_storage_sda" + log, passLog,
                                   "system dd if=/dev/zero of=/dev/usb_storage_sda bs=512 count=1" + log,
                                   "system echo -e 'n\\np\\n1\\n\\n\\nw' | fdisk /dev/usb_storage_sda" + log,
                                   passLog, unmount, mkfs},
      "only the last command contains the label");
  fuzz::requireNothingOpen(platform);
  return 0;
}
