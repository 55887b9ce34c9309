#ifndef DOCKHAND_FUZZ_SHELLBOX_H
#define DOCKHAND_FUZZ_SHELLBOX_H

#include <filesystem>
#include <string>
#include <vector>

namespace fuzz {

/// Where a command line may be run that anybody may have written: /bin/sh in an empty directory, as a user
/// who may do nothing (where this process runs as root), in a session of its own, with an environment that
/// leads to no program but stand-ins that record how they were called.
class ShellBox {
 public:
  /// What came of a command line.
  struct Run {
    /// As waitpid tells it.
    int status;
    /// The programs that ran, each with its arguments, its name first.
    std::vector<std::vector<std::string>> programs;
    /// What the command line has written to `output()`.
    std::string output;
    /// The names in the directory that was empty.
    std::vector<std::string> files;
  };

  ShellBox();
  ShellBox(const ShellBox&) = delete;
  ShellBox& operator=(const ShellBox&) = delete;
  ~ShellBox();

  /// A file for the command line to write to, if it redirects its output.
  std::string output() const { return root_ / "out" / "output"; }

  Run run(const std::string& commandLine);

 private:
  int runShell(const std::string& commandLine) const;
  std::vector<std::vector<std::string>> recordedPrograms() const;

  std::filesystem::path root_;
};

}  // namespace fuzz

#endif  // DOCKHAND_FUZZ_SHELLBOX_H
