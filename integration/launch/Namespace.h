#ifndef DOCKHAND_INTEGRATION_LAUNCH_NAMESPACE_H
#define DOCKHAND_INTEGRATION_LAUNCH_NAMESPACE_H

#include <string>
#include <vector>

namespace launch {

/// The parts of the system that the daemon sees besides the root file system. All paths are canonical.
struct View {
  /// Directories that the daemon uses. The view has the mounts on the way to them, but no mount below them. A
  /// missing directory is skipped.
  std::vector<std::string> used;
  /// Existing directories, not "/". The view has them with all mounts below. A later mount or unmount there
  /// on one side happens on the other side too.
  std::vector<std::string> shared;
};

/// Moves this process into a new mount namespace that has only the view. Makes the mount that holds a shared
/// directory shared for the whole system, and all mounts below it. Afterwards the working directory is "/".
///
/// Reads no name of another mount. Throws std::system_error, which names the failed step. The process may
/// then be in an unfinished namespace: see canEnterNamespace.
void enterNamespace(const View& view);

/// True if enterNamespace works here: a child process tries it and leaves nothing behind. Otherwise the
/// reason is on standard error.
bool canEnterNamespace(const View& view);

/// Writes a line to standard error.
void say(const std::string& text);

}  // namespace launch

#endif  // DOCKHAND_INTEGRATION_LAUNCH_NAMESPACE_H
