#ifndef RAVELRPC_TUNIXSOCKET_H
#define RAVELRPC_TUNIXSOCKET_H

#include <sys/un.h>
#include <thrift/transport/TSocket.h>

#include <chrono>
#include <cstdint>
#include <string>

namespace ravel::rpc {

/// The client's end of a connection to a service on its local socket (see LocalSocketPath.h).
///
/// Differs from Thrift's TSocket:
/// - open() makes the descriptor close-on-exec from the beginning. The connect timeout also holds if the
///   service does not accept. After a failure the socket is closed and can be opened again.
/// - read() can have a deadline, because TSocket's timeout restarts with every read. No signal ends a read
///   that has a timeout.
/// - hasInput() tells without waiting whether there is something to read.
///
/// Locks: none. Threads: one at a time, as TSocket.
class TUnixSocket : public apache::thrift::transport::TSocket {
 public:
  /// Does not connect yet. `host` must be "localhost", the only host that has local sockets; `number` is the
  /// number of the service. Throws TTransportException (BAD_ARGS) for another host and for a path that is too
  /// long.
  TUnixSocket(const std::string& host, int number);

  /// Connects. Does nothing if the socket is open. Waits for the service to accept earlier connections, but
  /// at most as long as setConnTimeout says (in milliseconds; 0, the default, means without limit). Each
  /// later read and write has the timeout of setRecvTimeout or setSendTimeout.
  ///
  /// Throws TTransportException, with the path and the system's reason in its text: TIMED_OUT after the
  /// timeout, NOT_OPEN otherwise.
  void open() override;

  /// Makes reads fail after `deadline`, so that a service that sends slowly, or without end, cannot hold its
  /// client longer. By default there is no deadline.
  void setDeadline(std::chrono::steady_clock::time_point deadline) { deadline_ = deadline; }

  /// As TSocket's, and throws TIMED_OUT after the deadline. With a timeout or a deadline, no signal ends the
  /// wait.
  std::uint32_t read(std::uint8_t* buffer, std::uint32_t length) override;

  /// True if an open socket has something to read (bytes, or the end of the connection) or is broken. Does
  /// not wait, and reads nothing.
  bool hasInput();

 private:
  void connect(int socket) const;
  void waitForInput();

  const sockaddr_un address_;
  std::chrono::steady_clock::time_point deadline_ = std::chrono::steady_clock::time_point::max();
};

}  // namespace ravel::rpc

#endif  // RAVELRPC_TUNIXSOCKET_H
