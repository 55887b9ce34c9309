#ifndef DOCKHAND_FAILUREJUDGES_H
#define DOCKHAND_FAILUREJUDGES_H

namespace Dockhand {

/// Prints the text for the error of a failed mkdir of a mount directory on standard output. True if opening
/// goes on as after a success: the directory exists, or its file system refuses new directories, so it may
/// exist. Threads: any.
bool acceptMkdirError(int error);

/// Logs the text for the calling thread's errno after the last failed mount, at level 2. True if opening goes
/// on as after a success. Call it before anything else can change errno. Threads: any.
bool acceptMountError();

}  // namespace Dockhand

#endif  // DOCKHAND_FAILUREJUDGES_H
