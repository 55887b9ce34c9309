#ifndef RAVELRPC_TUNIXSOCKET_H
#define RAVELRPC_TUNIXSOCKET_H

#include <sys/un.h>
#include <thrift/transport/TSocket.h>

#include <chrono>
#include <cstdint>
#include <string>

namespace ravel::rpc {

/// A client's end of a connection to a service on its local socket (see LocalSocketPath.h).
///
/// Differs from Thrift's TSocket in open(): the descriptor is close-on-exec from the beginning, the connect
/// timeout also holds where the service does not accept, and after a failure the socket is closed and can be
/// opened again. And in read(): it can have a deadline, since TSocket's timeout begins anew with every read,
/// and no signal ends one that has a timeout. And it can say, without waiting, whether there is anything to
/// read.
///
/// Threads: one at a time, as TSocket. No locks.
class TUnixSocket : public apache::thrift::transport::TSocket {
 public:
  /// Does not connect yet. `host` is "localhost", the only host that has local sockets, `number` the number
  /// of the service. Throws TTransportException (BAD_ARGS) for another host and for a path that is too long.
  TUnixSocket(const std::string& host, int number);

  /// Connects; does nothing when the socket is open. Waits for the service to accept earlier connections no
  /// longer than setConnTimeout said (milliseconds; 0, the default: without end). What setRecvTimeout and
  /// setSendTimeout said holds from then on for each read and write.
  ///
  /// Throws TTransportException, with the path and the system's reason in its text: TIMED_OUT when the time
  /// is over, NOT_OPEN otherwise.
  void open() override;

  /// From now on reading ends at `deadline`: a service that sends a byte now and then, or sends without end,
  /// cannot keep its client for longer. None at first.
  void setDeadline(std::chrono::steady_clock::time_point deadline) { deadline_ = deadline; }

  /// As TSocket's, and TIMED_OUT once the deadline is over. With a timeout or a deadline, signals are waited
  /// through.
  std::uint32_t read(std::uint8_t* buffer, std::uint32_t length) override;

  /// True when an open socket has something to read, be it the end of the connection, or is broken. Does not
  /// wait, and leaves what is there.
  bool hasInput();

 private:
  void connect(int socket) const;
  void waitForInput();

  const sockaddr_un address_;
  std::chrono::steady_clock::time_point deadline_ = std::chrono::steady_clock::time_point::max();
};

}  // namespace ravel::rpc

#endif  // RAVELRPC_TUNIXSOCKET_H
