#ifndef DOCKHAND_CLAIMEDFILE_H
#define DOCKHAND_CLAIMEDFILE_H

#include <string>

#include "Platform.h"

namespace Dockhand {

/// How many things that were in the way of one file are kept.
constexpr int maxMovedAside = 16;

/// What became of the claim to a file.
enum class Claim {
  ours,          ///< The path leads to nothing of anybody else's.
  movedAside,    ///< The same, after something was moved out of the way.
  refused,       ///< Something that is not ours is there, and stays: the path must not be used.
  tooManyMoved,  ///< The same, since maxMovedAside things have been moved aside already.
};

/// Sees to it that a path in a directory like /tmp, where everybody may put something, is a file of ours,
/// before it is written to by its name: whatever a user has put there, such as a link to one of root's files
/// or a fifo that nobody reads, would otherwise be what is written to.
///
/// Ours is a regular file that belongs to us, that only we may write to, that has no other name, and on which
/// nothing is mounted. Where nothing is, such a file is made. Anything else is moved into a new directory of
/// ours beside it, named like the file with ".moved-" and six characters; nothing is removed or written to.
/// What is mounted there stays, and so does everything while maxMovedAside such directories exist. Where
/// nothing is and no file can be made, whoever opens it learns that.
///
/// Never waits for a file system that is mounted at the path: it may be a process of a user's.
///
/// What it says stays true only in a directory with the sticky bit, where nobody can take our file away.
///
/// Threads: any; claims wait for each other, lest one moves away what another has just made.
Claim claimFile(Platform& platform, const std::string& path);

}  // namespace Dockhand

#endif  // DOCKHAND_CLAIMEDFILE_H
