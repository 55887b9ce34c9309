#ifndef DOCKHANDCTL_DOCTOR_CHECKS_H
#define DOCKHANDCTL_DOCTOR_CHECKS_H

#include <string>
#include <vector>

#include "Machine.h"
#include "MountRules.h"

/// Each check looks at one thing that the daemon needs, and changes nothing.
namespace dockhandctl::doctor {

enum class State { ok, warning, problem };

/// The result of a check.
struct Finding {
  std::string check;  ///< Its name, one word.
  State state;
  std::string message;  ///< What was found.
  std::string remedy;   ///< How to fix it; empty for ok.
};

using Findings = std::vector<Finding>;

// Socket.
Findings checkSocket(const Machine& machine);
Findings checkSocketMode(const Machine& machine);
Findings checkSocketDirectory(const Machine& machine);

// Tools.
Findings checkPath(const Machine& machine);
Findings checkTools(const Machine& machine);
Findings checkWrappers(const Machine& machine);
Findings checkPartitioning(const Machine& machine);
Findings checkFormatting(const Machine& machine);

// Kernel.
Findings checkFileSystems(const Machine& machine);
Findings checkPartitionTables(const Machine& machine);
Findings checkMountTable(const Machine& machine);
Findings checkProtectedFiles(const Machine& machine);

// The mount policy.
Findings checkMountPolicy(const Machine& machine);
/// Its rows; none if there is no policy, or the daemon would not start with it.
Dockhand::MountRules rulesOfMountPolicy(const Machine& machine);

// Files.
Findings checkMedia(const Machine& machine);
Findings checkTmp(const Machine& machine);
Findings checkUdevRules(const Machine& machine);
Findings checkNodes(const Machine& machine);
Findings checkLogFile(const Machine& machine);

/// All checks, in the order of the report.
Findings checkEverything(const Machine& machine);

}  // namespace dockhandctl::doctor

#endif  // DOCKHANDCTL_DOCTOR_CHECKS_H
