#ifndef TLOG_TLOG_JOURNAL_H
#define TLOG_TLOG_JOURNAL_H

#include <sys/socket.h>
#include <sys/un.h>

#include <memory>
#include <string_view>

namespace tlog {

/// The journal that standard error is connected to.
///
/// Lines go to its datagram socket, each with its priority, and not to standard error. There, a priority is a
/// prefix, which the output of a disk tool can have too; so the unit tells the journal to ignore prefixes.
class Journal {
 public:
  /// Null if standard error is not the stream that JOURNAL_STREAM names, or if no descriptor is free.
  static std::unique_ptr<const Journal> ofStandardError();

  ~Journal();
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;

  /// Sends a line, which must not contain line ends. A very long line becomes several entries, as on standard
  /// error. Blocks while the journal is behind. False if the journal cannot be reached; the first entries may
  /// have been sent. Allocates no memory.
  bool send(int priority, std::string_view line) const;

 private:
  Journal(int socket, const sockaddr_un& address, socklen_t length);
  bool sendEntry(int priority, std::string_view message) const;

  int socket_;
  sockaddr_un address_;
  socklen_t addressLength_;
};

}  // namespace tlog

#endif  // TLOG_TLOG_JOURNAL_H
