#ifndef DOCKHAND_FUZZ_SHELLBOX_H
#define DOCKHAND_FUZZ_SHELLBOX_H

#include <filesystem>
#include <string>
#include <vector>

namespace fuzz {

/// Runs an untrusted command line safely: /bin/sh in an empty directory and in its own session. If this
/// process is root, the shell runs as an unprivileged user. Its PATH has only stand-ins that record how they
/// are called.
class ShellBox {
 public:
  /// The result of a command line.
  struct Run {
    /// As waitpid returns it.
    int status;
    /// The programs that ran, each with its arguments, its name first.
    std::vector<std::vector<std::string>> programs;
    /// What the command line wrote to `output()`.
    std::string output;
    /// The names of new files in the directory that was empty.
    std::vector<std::string> files;
  };

  ShellBox();
  ShellBox(const ShellBox&) = delete;
  ShellBox& operator=(const ShellBox&) = delete;
  ~ShellBox();

  /// A file that the command line may redirect its output to.
  std::string output() const { return root_ / "out" / "output"; }

  Run run(const std::string& commandLine);

 private:
  int runShell(const std::string& commandLine) const;
  std::vector<std::vector<std::string>> recordedPrograms() const;

  std::filesystem::path root_;
};

}  // namespace fuzz

#endif  // DOCKHAND_FUZZ_SHELLBOX_H
