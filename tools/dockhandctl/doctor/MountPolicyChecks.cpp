#include <sys/mount.h>
#include <sys/stat.h>

#include <stdexcept>
#include <string>

#include "Checks.h"
#include "Kernel.h"

namespace dockhandctl::doctor {
namespace {

using Dockhand::MountRule;
using Dockhand::MountRules;

const char* const checkName = "mounts";
const char* const policyOfTheImage = "/etc/dockhand/mounts";

bool exists(const Machine& machine, const std::string& path) {
  struct stat status {};
  return ::lstat((machine.root + path).c_str(), &status) == 0;
}

/// The file that the daemon follows, or would follow if it were started; empty for none.
std::string pathOfPolicy(const Machine& machine) {
  return machine.mountPolicy.value_or(exists(machine, policyOfTheImage) ? policyOfTheImage : "");
}

/// Throws std::runtime_error if the daemon would not start with this file.
MountRules readRules(const Machine& machine, const std::string& path) {
  struct stat status {};
  if (::stat((machine.root + path).c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
    throw std::runtime_error("it is not a regular file");
  }
  if (status.st_uid != machine.owner || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    throw std::runtime_error("it must be root's, and only root may write to it");
  }
  const auto text = machine.read(path);
  if (!text) {
    throw std::runtime_error("it cannot be read");
  }
  return Dockhand::parseMountRules(*text, Dockhand::findGroup);
}

Finding checkRule(const Machine& machine, const MountRule& rule) {
  const std::string sticks = rule.type == "*" ? "sticks of all other types" : rule.type + " sticks";
  const std::string line = " (line " + std::to_string(rule.line) + ")";
  if (rule.mountAs.empty()) {
    return {checkName, State::ok, sticks + " are refused" + line, ""};
  }
  if (!kernelHas(machine, rule.mountAs)) {
    return {checkName, State::problem,
            "the kernel has no " + rule.mountAs + ": " + sticks + " cannot be opened" + line,
            "build the kernel with it, install the module, or change the row"};
  }
  std::string missing = (rule.flags & MS_NOSUID) == 0 ? "nosuid" : "";
  if ((rule.flags & MS_NODEV) == 0) {
    missing += missing.empty() ? "nodev" : ",nodev";
  }
  if (!missing.empty()) {
    return {checkName, State::warning,
            sticks + " are mounted without " + missing + line +
                ": their programs or device nodes may make a user root",
            "add " + missing + " to the row"};
  }
  return {checkName, State::ok, sticks + " are mounted as " + rule.mountAs + line, ""};
}

}  // namespace

MountRules rulesOfMountPolicy(const Machine& machine) {
  try {
    const std::string path = pathOfPolicy(machine);
    return path.empty() ? MountRules{} : readRules(machine, path);
  } catch (const std::runtime_error&) {
    return {};  // checkMountPolicy reports it
  }
}

Findings checkMountPolicy(const Machine& machine) {
  const std::string path = pathOfPolicy(machine);
  if (path.empty() && exists(machine, policyOfTheImage)) {
    return {{checkName, State::warning,
             std::string("the daemon does not follow ") + policyOfTheImage +
                 ": it was started before the file was there, or without the launcher, or DOCKHAND_MOUNTS is "
                 "empty",
             "restart the daemon, or remove the file"}};
  }
  if (path.empty()) {
    return {{checkName, State::ok,
             "there is no mount policy: sticks of other types than those above are tried with each of them",
             ""}};
  }
  Findings findings;
  try {
    bool hasRest = false;
    for (const MountRule& rule : readRules(machine, path)) {
      findings.push_back(checkRule(machine, rule));
      hasRest = hasRest || rule.type == "*";
    }
    if (!hasRest) {
      findings.push_back(
          {checkName, State::ok,
           path + " has no row for sticks of other types: they are mounted by the daemon's own table", ""});
    }
  } catch (const std::runtime_error& error) {
    findings = {{checkName, State::problem,
                 "the daemon does not start with the mount policy " + path + ": " + error.what(),
                 "correct the file, or remove it"}};
  }
  return findings;
}

}  // namespace dockhandctl::doctor
