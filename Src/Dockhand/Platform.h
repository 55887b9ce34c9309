#ifndef DOCKHAND_PLATFORM_H
#define DOCKHAND_PLATFORM_H

#include <blkid/blkid.h>
#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <string>

namespace Dockhand {

/// Every call of the handler to the kernel, libblkid, the shell and the clock.
///
/// The handler has no other way to the system. Production uses LinuxPlatform. The tests use a fake that
/// records every call, or a FaultyPlatform, which makes calls of a simulated or the real system fail.
///
/// Every method takes and returns what the function of the same name does. errno is part of the contract: it
/// is what the system set, and an implementation must not change it otherwise.
///
/// A path with a NUL byte names no file. Methods fail with ENOENT for it, and do not act on the part before
/// the NUL.
///
/// Threads: any RPC worker calls, usually but not always with the handler's lock held. So every method must
/// be safe to call from several threads at once.
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
  /// `path` ends in XXXXXX and becomes the name of the new directory. Null with errno on failure.
  virtual char* mkdtemp(char* path) = 0;
  /// 0 if `path` may be accessed in `mode`, or -1 with errno.
  virtual int access(const std::string& path, int mode) = 0;
  /// The number of entries that `filter` accepts, or -1 with errno. `*entries`, in the order of `compare`,
  /// and each of its elements come from malloc and belong to the caller.
  virtual int scandir(const std::string& path, dirent*** entries, int (*filter)(const dirent*),
                      int (*compare)(const dirent**, const dirent**)) = 0;
  /// Null with errno if the directory cannot be opened. Only readdir and closedir of the same platform may
  /// use the result, and closedir frees it.
  virtual DIR* opendir(const std::string& path) = 0;
  /// Null at the end and on failure. A platform may end a directory early if it is too large. The entry is
  /// valid until the next readdir or closedir of `directory`.
  virtual dirent* readdir(DIR* directory) = 0;
  virtual int closedir(DIR* directory) = 0;

  // Files and device nodes.

  /// A descriptor that child processes do not inherit, or -1 with errno.
  virtual int open(const std::string& path, int flags) = 0;
  /// Bytes read, 0 at the end, or -1 with errno.
  virtual ssize_t read(int descriptor, void* buffer, size_t size) = 0;
  /// 0, or -1 with errno.
  virtual int close(int descriptor) = 0;
  /// Makes a file with the type and permissions in `mode`, but no device. 0, or -1 with errno.
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

  // libblkid. Only one thread at a time may use a probe.

  /// Null if the node cannot be opened. blkid_free_probe frees the result.
  virtual blkid_probe blkid_new_probe_from_filename(const std::string& path) = 0;
  /// 0 if something was found, 1 if nothing was, -1 on failure (errno is not always set).
  virtual int blkid_do_probe(blkid_probe probe) = 0;
  /// 0 with `*value`, which the probe owns, or -1 if the probe has no such value.
  virtual int blkid_probe_lookup_value(blkid_probe probe, const char* name, const char** value) = 0;
  virtual void blkid_free_probe(blkid_probe probe) = 0;
  /// Size in bytes of the block device behind `descriptor`; 0 on failure.
  virtual blkid_loff_t blkid_get_dev_size(int descriptor) = 0;
};

}  // namespace Dockhand

#endif  // DOCKHAND_PLATFORM_H
