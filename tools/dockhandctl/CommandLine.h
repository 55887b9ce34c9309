#ifndef DOCKHANDCTL_COMMANDLINE_H
#define DOCKHANDCTL_COMMANDLINE_H

namespace dockhandctl {

/// Reads the command line, runs the command, reports its failure on standard error. The exit code.
int runCommandLine(int argumentCount, char** arguments);

}  // namespace dockhandctl

#endif  // DOCKHANDCTL_COMMANDLINE_H
