#ifndef DOCKHAND_CLAIMEDFILE_H
#define DOCKHAND_CLAIMEDFILE_H

#include <string>

#include "Platform.h"

namespace Dockhand {

/// At most this many things are moved aside for one file.
constexpr int maxMovedAside = 16;

/// The result of claiming a file.
enum class Claim {
  ours,          ///< The path leads to nobody else's file.
  movedAside,    ///< As `ours`, after something was moved out of the way.
  refused,       ///< Something that is not ours is there and stays: do not use the path.
  tooManyMoved,  ///< As `refused`, because maxMovedAside things have been moved aside already.
};

/// Makes a path our own file before we write to it by name. It is for directories like /tmp, where everybody
/// may write: a user may have put a link to one of root's files there, or a fifo that nobody reads.
///
/// Our own file is a regular file. It belongs to us, only we may write to it, it has no other hard link, and
/// nothing is mounted on it. If nothing is at the path, such a file is made. Anything else is moved into a
/// new directory of ours beside it, named like the file with ".moved-" and six characters. Nothing is removed
/// or written to. A mount stays, and so does everything while maxMovedAside such directories exist.
///
/// If nothing is at the path and no file can be made, the result is `ours`: opening the file fails and
/// reports it.
///
/// Never waits for a file system that is mounted at the path, because a user's process may serve it.
///
/// The result stays true only in a directory with the sticky bit, where nobody else can remove our file.
///
/// Threads: any. One claim runs at a time, so that none moves away what another has just made.
Claim claimFile(Platform& platform, const std::string& path);

}  // namespace Dockhand

#endif  // DOCKHAND_CLAIMEDFILE_H
