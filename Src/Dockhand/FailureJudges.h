#ifndef DOCKHAND_FAILUREJUDGES_H
#define DOCKHAND_FAILUREJUDGES_H

namespace Dockhand {

/// Words the error of a failed mkdir of a mount directory, on standard output, and tells whether to go on as
/// if it had succeeded: so for a directory that exists, and for one on a file system that refuses new
/// directories, where it may exist too. Any thread.
bool acceptMkdirError(int error);

/// Words the calling thread's errno after the last failed mount, in the log at level 2, and tells whether to
/// go on as if the mount had succeeded. Call it before anything else can change errno. Any thread.
bool acceptMountError();

}  // namespace Dockhand

#endif  // DOCKHAND_FAILUREJUDGES_H
