#include "TlogJournal.h"

#include <sys/stat.h>
#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace tlog {
namespace {

// systemd names the journal's stream in JOURNAL_STREAM. Children inherit it even if their standard error is
// redirected, so only a match counts.
bool standardErrorIsJournal() {
  const char* const journal = std::getenv("JOURNAL_STREAM");
  struct stat status {};
  if (journal == nullptr || fstat(STDERR_FILENO, &status) != 0) {
    return false;
  }
  return std::to_string(status.st_dev) + ':' + std::to_string(status.st_ino) == journal;
}

// The journal listens on two sockets in one folder: "stdout", which standard error is connected to, and
// "socket". Each of the journal's namespaces has its own folder.
bool findSocket(sockaddr_un& address, socklen_t& length) {
  constexpr std::string_view name = "socket";
  length = sizeof address;
  if (getpeername(STDERR_FILENO, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
      address.sun_family != AF_UNIX) {
    return false;
  }
  // A socket without a name has an empty path. A name of the maximum length has no NUL byte after it.
  const std::size_t size = std::min(std::size_t{length}, sizeof address);
  const std::string_view path(address.sun_path, size - offsetof(sockaddr_un, sun_path));
  const auto slash = path.rfind('/');
  if (slash == std::string_view::npos || slash + 1 + name.size() >= sizeof address.sun_path) {
    return false;
  }
  std::memcpy(address.sun_path + slash + 1, name.data(), name.size());
  address.sun_path[slash + 1 + name.size()] = '\0';
  length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + slash + 1 + name.size() + 1);
  return true;
}

}  // namespace

std::unique_ptr<const Journal> Journal::ofStandardError() {
  sockaddr_un address{};
  socklen_t length = 0;
  if (!standardErrorIsJournal() || !findSocket(address, length)) {
    return nullptr;
  }
  const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (socket < 0) {
    return nullptr;
  }
  return std::unique_ptr<const Journal>(new Journal(socket, address, length));
}

Journal::Journal(int socket, const sockaddr_un& address, socklen_t length)
    : socket_(socket), address_(address), addressLength_(length) {}

Journal::~Journal() {
  close(socket_);
}

bool Journal::send(int priority, std::string_view line) const {
  // LineMax of journald.conf: the journal splits longer lines too. The kernel takes four times as much at
  // once.
  constexpr std::size_t maxMessage = std::size_t{48} * 1024;
  do {
    if (!sendEntry(priority, line.substr(0, maxMessage))) {
      return false;
    }
    line.remove_prefix(std::min(line.size(), maxMessage));
  } while (!line.empty());
  return true;
}

bool Journal::sendEntry(int priority, std::string_view message) const {
  // In pieces, which need no memory, so that a line that reports a lack of memory gets through too.
  std::array<char, 64> numbers{};
  std::snprintf(numbers.data(), numbers.size(),
                "PRIORITY=%d\nSYSLOG_FACILITY=%d\nSYSLOG_IDENTIFIER=", priority, LOG_FAC(LOG_DAEMON));
  const std::array<std::string_view, 5> pieces = {numbers.data(), program_invocation_short_name,
                                                  "\nMESSAGE=", message, "\n"};
  std::array<iovec, pieces.size()> parts{};
  std::transform(pieces.begin(), pieces.end(), parts.begin(), [](std::string_view piece) {
    return iovec{const_cast<char*>(piece.data()), piece.size()};
  });
  sockaddr_un address = address_;
  msghdr entry{};
  entry.msg_name = &address;
  entry.msg_namelen = addressLength_;
  entry.msg_iov = parts.data();
  entry.msg_iovlen = parts.size();
  ssize_t sent = 0;
  do {
    sent = sendmsg(socket_, &entry, MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  return sent >= 0;
}

}  // namespace tlog
