#ifndef DOCKHANDCTL_DOCTOR_KERNEL_H
#define DOCKHANDCTL_DOCTOR_KERNEL_H

#include <optional>
#include <string>

#include "Machine.h"

/// What several checks ask about the kernel.
namespace dockhandctl::doctor {

/// The kernel's configuration, if it can be read.
class KernelConfiguration {
 public:
  explicit KernelConfiguration(const Machine& machine);

  bool known() const { return text_.has_value(); }
  /// True if an option is built in or a module; false also if the configuration is unknown.
  bool has(const std::string& option) const;

 private:
  std::optional<std::string> text_;
};

/// Uses the modprobe that the kernel itself runs, whatever the PATH is.
bool isLoadable(const Machine& machine, const std::string& module);

/// True if the kernel has the file system, or a module of it. A file system without a disk does not count.
bool kernelHas(const Machine& machine, const std::string& fileSystem);

}  // namespace dockhandctl::doctor

#endif  // DOCKHANDCTL_DOCTOR_KERNEL_H
