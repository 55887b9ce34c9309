#include "ClaimedFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <mutex>

namespace Dockhand {

namespace {

enum class Found { nothing, ours, foreign };

Found whatIsAt(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) {
    return Found::nothing;
  }
  const bool onlyOursToWrite = status.st_uid == ::geteuid() && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
  // A second name may be one that its owner minds about.
  const bool oneName = status.st_nlink == 1;
  return S_ISREG(status.st_mode) && onlyOursToWrite && oneName ? Found::ours : Found::foreign;
}

/// 0 or errno.
int makeFile(const std::string& path) {
  const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (file < 0) {
    return errno;
  }
  ::close(file);
  return 0;
}

/// True when it is there no longer.
bool moveAside(const std::string& path) {
  // A directory of our own, so that nobody can have taken the new name.
  std::string place = path + ".moved-XXXXXX";
  if (::mkdtemp(place.data()) == nullptr) {
    return false;
  }
  const std::string name = path.substr(path.rfind('/') + 1);
  if (::rename(path.c_str(), (place + '/' + name).c_str()) == 0) {
    return true;
  }
  const bool wentByItself = errno == ENOENT;
  ::rmdir(place.c_str());
  return wentByItself;
}

}  // namespace

Claim claimFile(const std::string& path) {
  static std::mutex oneAtATime;
  const std::lock_guard<std::mutex> lock(oneAtATime);
  // Somebody may put something there between two looks, but hardly so often.
  constexpr int mostLooks = 20;
  Claim claim = Claim::ours;
  for (int look = 0; look < mostLooks; ++look) {
    switch (whatIsAt(path)) {
      case Found::ours:
        return claim;
      case Found::nothing:
        if (makeFile(path) != EEXIST) {
          return claim;
        }
        break;
      case Found::foreign:
        if (!moveAside(path)) {
          return Claim::refused;
        }
        claim = Claim::movedAside;
        break;
    }
  }
  return Claim::refused;
}

}  // namespace Dockhand
