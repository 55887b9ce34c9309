#include "Kernel.h"

#include <sstream>

namespace dockhandctl::doctor {
namespace {

bool isRegistered(const Machine& machine, const std::string& fileSystem) {
  std::istringstream lines(machine.read("/proc/filesystems").value_or(""));
  for (std::string line; std::getline(lines, line);) {
    if (line == "\t" + fileSystem) {
      return true;
    }
  }
  return false;
}

}  // namespace

KernelConfiguration::KernelConfiguration(const Machine& machine) {
  for (const std::string& file :
       {"/boot/config-" + machine.kernelRelease, "/lib/modules/" + machine.kernelRelease + "/config"}) {
    if ((text_ = machine.read(file))) {
      return;
    }
  }
  if (machine.read("/proc/config.gz")) {
    const CommandResult result = machine.run({"gzip", "-d", "-c", machine.root + "/proc/config.gz"});
    if (result.status == 0) {
      text_ = result.output;
    }
  }
}

bool KernelConfiguration::has(const std::string& option) const {
  return text_ && (("\n" + *text_).find("\nCONFIG_" + option + "=y\n") != std::string::npos ||
                   ("\n" + *text_).find("\nCONFIG_" + option + "=m\n") != std::string::npos);
}

bool isLoadable(const Machine& machine, const std::string& module) {
  return machine.run({"/sbin/modprobe", "-n", "-q", module}).status == 0;
}

bool kernelHas(const Machine& machine, const std::string& fileSystem) {
  return isRegistered(machine, fileSystem) || isLoadable(machine, "fs-" + fileSystem);
}

}  // namespace dockhandctl::doctor
