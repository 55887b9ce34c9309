#ifndef TESTS_SUPPORT_FAKEPLATFORM_H
#define TESTS_SUPPORT_FAKEPLATFORM_H

#include <functional>
#include <list>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "ClaimedFile.h"
#include "NoSystem.h"

/// A fake system. Its members set the results of the calls. The journal records every call:
///
///     mount SOURCE TARGET TYPE FLAGS(hex) OPTIONS
///     umount TARGET               umount2 TARGET FLAGS
///     mkdir PATH MODE(octal)      rmdir PATH                  access PATH
///     scandir DIR                 opendir DIR                 closedir DIR
///     open PATH                   read PATH SIZE              close PATH
///     new_probe PATH              do_probe PATH               free_probe PATH
///     lookup PATH KEY             dev_size PATH
///     statx PATH                  mkdtemp PATH                mknod PATH MODE(octal)
///     rename FROM TO              system COMMAND              sleep SECONDS
///
/// statx is recorded only for the paths in `claims` and `statxErrors`. Every other path is a file of ours.
///
/// An error is an errno value; 0 means success. A failing call sets errno, a successful one leaves it
/// unchanged. `open` only reads and `access` only checks existence, because the handler needs no more.
class FakePlatform : public NoSystem {
 public:
  struct Mount {
    std::string source;
    std::string target;
    std::string fileSystemType;
    unsigned long flags;
    std::string options;
  };

  /// The replies of a disk to libblkid.
  struct Disk {
    std::map<std::string, std::string> values;
    bool opens = true;
    /// Result of the probing, and its errno if the result is -1.
    int probeResult = 0;
    int probeError = 0;
    /// errno of a look-up that finds nothing.
    int lookupError = 0;
    blkid_loff_t size = 0;
  };

  /// Names in /dev, of storage nodes and others.
  std::vector<std::string> deviceNodes;
  int scandirError = 0;
  /// Makes scandir ignore its filter.
  bool scandirIgnoresFilter = false;
  /// Readable files by path.
  std::map<std::string, std::string> files;
  /// errno of opening a path that is not in `files`.
  int openError = 2;
  /// These files can be opened but not read: errno by path.
  std::map<std::string, int> readErrors;
  int closeError = 0;
  /// The result of the next open; each later open returns one more.
  int nextDescriptor = 100;
  /// The flags of the last open of each path.
  std::map<std::string, int> openFlags;
  /// What a claim of these paths comes to: movedAside by a link there that can be moved, refused by one that
  /// cannot be looked at, tooManyMoved by a link and the directories beside it.
  std::map<std::string, Dockhand::Claim> claims;
  /// errno of statx by path.
  std::map<std::string, int> statxErrors;
  /// False for a kernel before 5.8.
  bool statxKnowsMounts = true;
  int mknodError = 0;
  int renameError = 0;
  /// The names in each directory, by its path.
  std::map<std::string, std::vector<std::string>> directories;
  /// Paths that exist for access and mkdir.
  std::set<std::string> existing;
  int mkdirError = 0;
  int rmdirError = 0;
  int umountError = 0;
  int umount2Error = 0;
  /// The errno of a mount. By default every mount succeeds.
  std::function<int(const Mount&)> mountError = [](const Mount&) { return 0; };
  /// Disks by the path of their node. Other nodes cannot be opened for probing.
  std::map<std::string, Disk> disks;
  /// The raw status of a command.
  std::function<int(const std::string&)> systemStatus = [](const std::string&) { return 0; };

  /// Called before each call returns, with the recorded event.
  std::function<void(const std::string&)> onCall;

  /// The number of probes that are not freed yet.
  std::size_t liveProbes() const { return probes_.size(); }
  std::size_t openDescriptors() const { return descriptors_.size(); }
  std::size_t openDirectories() const { return openDirectories_.size(); }

  int mount(const std::string& source, const std::string& target, const char* fileSystemType,
            unsigned long flags, const char* options) override;
  int umount(const std::string& target) override;
  int umount2(const std::string& target, int flags) override;
  int mkdir(const std::string& path, mode_t mode) override;
  int rmdir(const std::string& path) override;
  int access(const std::string& path, int mode) override;
  int scandir(const std::string& path, dirent*** entries, int (*filter)(const dirent*),
              int (*compare)(const dirent**, const dirent**)) override;
  DIR* opendir(const std::string& path) override;
  dirent* readdir(DIR* directory) override;
  int closedir(DIR* directory) override;
  int open(const std::string& path, int flags) override;
  ssize_t read(int descriptor, void* buffer, size_t size) override;
  int close(int descriptor) override;
  char* mkdtemp(char* path) override;
  int mknod(const std::string& path, mode_t mode) override;
  int rename(const std::string& from, const std::string& to) override;
  int statx(int directory, const std::string& path, int flags, unsigned int mask,
            struct statx* status) override;
  int system(const std::string& command) override;
  void sleep(unsigned int seconds) override;
  blkid_probe blkid_new_probe_from_filename(const std::string& path) override;
  int blkid_do_probe(blkid_probe probe) override;
  int blkid_probe_lookup_value(blkid_probe probe, const char* name, const char** value) override;
  void blkid_free_probe(blkid_probe probe) override;
  blkid_loff_t blkid_get_dev_size(int descriptor) override;

 private:
  struct OpenFile {
    std::string path;
    std::size_t position = 0;
  };
  struct OpenDirectory {
    std::string path;
    std::size_t position = 0;
    dirent entry{};
  };
  struct OpenProbe {
    std::string path;
  };

  void record(const std::string& event) const;
  OpenProbe& openProbe(blkid_probe probe);

  std::map<int, OpenFile> descriptors_;
  /// Paths that were moved away.
  std::set<std::string> moved_;
  std::list<OpenDirectory> openDirectories_;
  std::list<OpenProbe> probes_;
};

#endif  // TESTS_SUPPORT_FAKEPLATFORM_H
