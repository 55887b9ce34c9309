#ifndef DOCKHAND_PLATFORM_H
#define DOCKHAND_PLATFORM_H

#include <blkid/blkid.h>
#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <string>

namespace Dockhand {

/// Everything that the handler asks of the kernel, of libblkid, of the shell and of the clock.
///
/// The handler has no other way to the system. Production uses LinuxPlatform; the tests use a fake that
/// records every call, or a FaultyPlatform over a simulated or the real system that lets calls fail.
///
/// Every method is called like the function of the same name and answers as it does. errno is part of the
/// contract: it comes out as the system left it, and an implementation changes it in no other way.
///
/// A path that holds a NUL byte names no file: methods that take a path fail with ENOENT for it instead of
/// acting on the part before the NUL.
///
/// Threads: the handler calls from any RPC worker, most often but not always with its lock held, so every
/// method must be safe to call from several threads at once.
class Platform {
 public:
  Platform() = default;
  Platform(const Platform&) = delete;
  Platform& operator=(const Platform&) = delete;
  virtual ~Platform() = default;

  // Mounting. 0, or -1 with errno.

  virtual int mount(const std::string& source, const std::string& target, const char* fileSystemType,
                    unsigned long flags, const char* options) = 0;
  virtual int umount(const std::string& target) = 0;
  virtual int umount2(const std::string& target, int flags) = 0;

  // Directories.

  /// 0, or -1 with errno.
  virtual int mkdir(const std::string& path, mode_t mode) = 0;
  /// 0, or -1 with errno.
  virtual int rmdir(const std::string& path) = 0;
  /// `path` ends in XXXXXX, which the name of the new directory replaces. Null with errno on failure.
  virtual char* mkdtemp(char* path) = 0;
  /// 0 when `path` may be accessed in `mode`, or -1 with errno.
  virtual int access(const std::string& path, int mode) = 0;
  /// The number of entries that `filter` accepts, or -1 with errno. `*entries`, in the order of `compare`,
  /// and each of its elements come from malloc and belong to the caller.
  virtual int scandir(const std::string& path, dirent*** entries, int (*filter)(const dirent*),
                      int (*compare)(const dirent**, const dirent**)) = 0;
  /// Null with errno when the directory cannot be opened. What comes back is for readdir and closedir of the
  /// same platform alone, and closedir frees it.
  virtual DIR* opendir(const std::string& path) = 0;
  /// Null at the end, and on failure. A platform may end a directory that is too large. The entry is valid
  /// until the next readdir or closedir of `directory`.
  virtual dirent* readdir(DIR* directory) = 0;
  virtual int closedir(DIR* directory) = 0;

  // Files and device nodes.

  /// A descriptor that child processes do not inherit, or -1 with errno.
  virtual int open(const std::string& path, int flags) = 0;
  /// Bytes read, 0 at the end, or -1 with errno.
  virtual ssize_t read(int descriptor, void* buffer, size_t size) = 0;
  /// 0, or -1 with errno.
  virtual int close(int descriptor) = 0;
  /// Makes a file of the type and with the permissions in `mode`; no device. 0, or -1 with errno.
  virtual int mknod(const std::string& path, mode_t mode) = 0;
  /// 0, or -1 with errno.
  virtual int rename(const std::string& from, const std::string& to) = 0;
  /// 0, or -1 with errno.
  virtual int statx(int directory, const std::string& path, int flags, unsigned int mask,
                    struct statx* status) = 0;
  virtual uid_t geteuid() = 0;

  // The shell and the clock.

  /// Runs `command` in /bin/sh and waits for it. The raw wait status (256 means exit 1), or -1 with errno.
  virtual int system(const std::string& command) = 0;
  /// Waits this many seconds.
  virtual void sleep(unsigned int seconds) = 0;

  // libblkid. A probe is used by one thread at a time.

  /// Null when the node cannot be opened. Give what comes back to blkid_free_probe.
  virtual blkid_probe blkid_new_probe_from_filename(const std::string& path) = 0;
  /// 0 when something was found, 1 when nothing was, -1 on failure (errno where there is one).
  virtual int blkid_do_probe(blkid_probe probe) = 0;
  /// 0 and `*value` (owned by the probe), or -1 where the probe holds no such value.
  virtual int blkid_probe_lookup_value(blkid_probe probe, const char* name, const char** value) = 0;
  virtual void blkid_free_probe(blkid_probe probe) = 0;
  /// Size in bytes of the block device behind `descriptor`; 0 on failure.
  virtual blkid_loff_t blkid_get_dev_size(int descriptor) = 0;
};

}  // namespace Dockhand

#endif  // DOCKHAND_PLATFORM_H
