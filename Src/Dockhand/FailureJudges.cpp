#include "FailureJudges.h"

#include <cerrno>
#include <cstdio>

#include "ModuleLog.h"

namespace Dockhand {

namespace {

struct FailureRow {
  int error;
  const char* text;
  bool accepted;
};

// Support staff search for these texts: do not correct their blanks, nor the first letter of the last one.

constexpr FailureRow mkdirFailures[] = {
    {EPERM,
     "Error on usb mount: The file system containing pathname does not support the creation of directories.",
     true},
    {ENOENT,
     "Error on usb mount: A directory component  in pathname does not exist or is a dangling symbolic link.",
     false},
    {ENOMEM, "Error on usb mount: Insufficient kernel memory was available.", false},
    {EACCES, "Error on usb mount: The parent directory does not allow write permission to the process",
     false},
    {EFAULT, "Error on usb mount: Pathname points outside your accessible address space.", false},
    {EEXIST, "", true},
    {ENOTDIR, "Error on usb mount: A component used as a directory in pathname is not, in fact, a directory",
     false},
    {ENOSPC,
     "Error on usb mount: The new  directory  cannot  be  created because the user's disk quota is "
     "exhausted.",
     false},
    {EROFS, "Error on usb mount: Pathname refers to a file on a read-only file system.", false},
    {ENAMETOOLONG, "Error on usb mount: Partname was too long.", false},
    {ELOOP, "Error on usb mount: Too many symbolic links were encountered in resolving pathname.", false},
};
constexpr FailureRow unknownMkdirFailure = {0, "Error on usb mount: Unknown mkdir error", false};

constexpr FailureRow mountFailures[] = {
    {EPERM, "Error on usb mount: The caller does not have the required privileges.", false},
    {ENOENT, "Error on usb mount: A pathname was empty or had a nonexistent component.", false},
    {ENXIO, "Error on usb mount: The major number of the block device source is out of range.", false},
    {ENOMEM, "Error on usb mount: The kernel could not allocate a free page to copy filenames or data into.",
     false},
    {EACCES, "Error on usb mount: A component of a path was not searchable.", false},
    {EFAULT, "Error on usb mount: One of the pointer arguments points outside the user address space.",
     false},
    {ENOTBLK, "Error on usb mount: source is not a block device (and a device was required).", false},
    {EBUSY, "Error on usb mount: Source  is  already  mounted.", true},
    {ENODEV, "Error on usb mount: Filesystemtype not configured in the kernel.", false},
    {ENOTDIR, "Error on usb mount: target, or a prefix of source, is not a directory.", false},
    {EINVAL, "Error on usb mount: Source had an invalid superblock (EINVAL).", true},
    {EMFILE, "Error on usb mount: Table of dummy devices is full.", false},
    {ENAMETOOLONG, "Error on usb mount: A pathname was longer than MAXPATHLEN.", false},
    {ELOOP, "TError on usb mount: Too many links  encountered during pathname resolution.", false},
};
constexpr FailureRow unknownMountFailure = {0, "Error on usb mount: Unknown mount error.", false};

template <std::size_t size>
const FailureRow& findRow(int error, const FailureRow (&rows)[size], const FailureRow& unknown) {
  for (const FailureRow& row : rows) {
    if (row.error == error) {
      return row;
    }
  }
  return unknown;
}

}  // namespace

bool acceptMkdirError(int error) {
  const FailureRow& row = findRow(error, mkdirFailures, unknownMkdirFailure);
  // Not std::cout: the library makes its streams before main, and they take 300 KiB. Nothing else here uses
  // them.
  std::puts(row.text);
  std::fflush(stdout);
  return row.accepted;
}

bool acceptMountError() {
  const FailureRow& row = findRow(errno, mountFailures, unknownMountFailure);
  usbClientLog.trace(590, row.text);
  return row.accepted;
}

}  // namespace Dockhand
