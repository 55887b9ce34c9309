#ifndef DOCKHAND_INTEGRATION_LAUNCH_NAMESPACE_H
#define DOCKHAND_INTEGRATION_LAUNCH_NAMESPACE_H

#include <string>
#include <vector>

namespace launch {

/// What the daemon sees of the system besides the root file system. All paths are canonical.
struct View {
  /// Directories that the daemon uses. The mounts on the way to them come along, and no mount below them. A
  /// missing one is left out.
  std::vector<std::string> used;
  /// Existing directories, none of them "/", that come along with all mounts below. What is mounted or
  /// unmounted there later, on either side, is so on the other side too.
  std::vector<std::string> shared;
};

/// Moves this process into a mount namespace of its own that has nothing but the view. The mount that holds a
/// shared directory is made shared for the whole system, with those below it. Afterwards the working
/// directory is "/".
///
/// Reads no name of another mount. Throws std::system_error, which names the step that failed. The process
/// may then be in a namespace that is not finished: see canEnterNamespace.
void enterNamespace(const View& view);

/// True when enterNamespace works here: a child process tries it and leaves nothing behind. Otherwise the
/// reason is on standard error.
bool canEnterNamespace(const View& view);

/// A line on standard error.
void say(const std::string& text);

}  // namespace launch

#endif  // DOCKHAND_INTEGRATION_LAUNCH_NAMESPACE_H
