// The kernel's mount table, and the paths that the daemon looks up in it. It unmounts only paths that the
// beginning of the table contains, and only paths that opening and closing use.
//
// The input has these fields, separated by NUL bytes: letters for what happens (u: unmounting fails, r: the
// device is pulled out instead of closed), the label and the UUID of the disk, the mount point, the mount
// table at the opening, and the mount table at the closing.

#include <sys/mount.h>

#include <cerrno>
#include <set>

#include "Fuzzing.h"

namespace {

/// The directories that exist, and the calls that the clean-up of a mount path should make.
class Model {
 public:
  Model(std::set<std::string> existing, bool unmountingFails)
      : existing_(std::move(existing)), unmountingFails_(unmountingFails) {}

  void cleanUp(const std::string& path, const std::string& table, int flags) {
    calls_.insert(calls_.end(), {"open /proc/mounts", "read /proc/mounts 1024"});
    const bool mounted = table.substr(0, 1024).find(fieldOf(path)) != std::string::npos;
    if (mounted) {
      calls_.push_back("umount2 " + path + " " + std::to_string(flags));
    }
    calls_.emplace_back("close /proc/mounts");
    if (mounted && unmountingFails_) {
      return;
    }
    calls_.push_back("access " + path);
    if (existing_.erase(path) > 0) {
      calls_.push_back("rmdir " + path);
    }
  }

  void makeDirectory(const std::string& path) { existing_.insert(path); }

  const std::vector<std::string>& calls() const { return calls_; }

 private:
  /// A path as the kernel writes it, with escaped blanks, and its trailing blank.
  static std::string fieldOf(const std::string& path) {
    std::string field = path;
    for (std::size_t at = 0; (at = field.find(' ', at)) != std::string::npos;) {
      field.replace(at, 1, "\\040");
    }
    return field + " ";
  }

  std::set<std::string> existing_;
  bool unmountingFails_;
  std::vector<std::string> calls_;
};

bool isMountCall(const std::string& call) {
  for (const char* verb : {"open /proc/", "read /proc/", "close /proc/", "umount2 ", "access ", "rmdir "}) {
    if (call.rfind(verb, 0) == 0) {
      return true;
    }
  }
  return false;
}

void requireCalls(const Model& model) {
  std::vector<std::string> calls;
  for (const std::string& call : journal().calls()) {
    if (isMountCall(call)) {
      calls.push_back(call);
    }
  }
  fuzz::require(calls == model.calls(),
                "the mount table decides what is unmounted, and no other path is touched");
}

bool isOneName(const std::string& name) {
  return name != "." && name != ".." && name.find('/') == std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto input = fuzz::fields(fuzz::textOf(data, size), 6);
  const bool unmountingFails = input[0].find('u') != std::string::npos;
  const bool pulledOut = input[0].find('r') != std::string::npos;
  const std::string label = input[1].size() > 1 ? input[1] : "NONAME";
  const std::string& uuid = input[2];
  const std::string& mountPoint = input[3];

  journal().clear();
  FakePlatform platform;
  platform.deviceNodes = {"usb_storage_sda"};
  platform.disks["/dev/usb_storage_sda"].values = {{"LABEL", input[1]}, {"UUID", uuid}};
  platform.existing = {"/media/" + label, "/media/disk"};
  platform.umount2Error = unmountingFails ? EBUSY : 0;
  TestableHandler handler(platform);
  Model model(platform.existing, unmountingFails);

  platform.files["/proc/mounts"] = input[4];
  fuzz::require(handler.OpenDeviceAt(1, mountPoint, false), "the device opens with any mount table");
  for (const std::string& name : {label, uuid}) {
    if (isOneName(name) && name.size() > 1) {
      model.cleanUp("/media/" + name, input[4], 0);
    }
  }
  model.cleanUp("/media/disk", input[4], 0);
  model.cleanUp(mountPoint, input[4], 0);
  model.makeDirectory(mountPoint);

  platform.files["/proc/mounts"] = input[5];
  if (pulledOut) {
    handler.NotifyUsbRemoved("sda");
    fuzz::require(handler.deviceMap.empty(), "a device that is pulled out is forgotten");
  } else {
    handler.CloseDevice(1);
  }
  if (!mountPoint.empty()) {
    model.cleanUp(mountPoint, input[5], pulledOut ? MNT_DETACH : 0);
  }
  requireCalls(model);
  fuzz::requireNothingOpen(platform);
  return 0;
}
