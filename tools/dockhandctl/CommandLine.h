#ifndef DOCKHANDCTL_COMMANDLINE_H
#define DOCKHANDCTL_COMMANDLINE_H

namespace dockhandctl {

/// Runs the command of the command line, and reports its failure on standard error. Returns the exit code.
int runCommandLine(int argumentCount, char** arguments);

}  // namespace dockhandctl

#endif  // DOCKHANDCTL_COMMANDLINE_H
