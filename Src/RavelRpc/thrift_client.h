#ifndef RAVELRPC_THRIFT_CLIENT_H
#define RAVELRPC_THRIFT_CLIENT_H

#include <thrift/TApplicationException.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>

#include "LimitedBinaryProtocol.h"
#include "LimitedBufferedTransport.h"

namespace ravel::rpc {

/// The client of a service, shared by all threads of the process.
///
/// `Client` is the service's generated class, `Port` the number of its socket and `Socket` the class that
/// connects to it, made from "localhost" and the number. It speaks the binary protocol over buffered
/// connections (see LimitedBinaryProtocol.h and LimitedBufferedTransport.h).
///
/// A connection carries one call at a time. A call takes the idle connection or makes a new one, so no call
/// waits for another's reply. This also holds for a call from inside another call. At most one idle
/// connection is kept, to leave the service's workers free; others are closed after their call.
///
/// A connection is kept only after exactly one reply. If there are more bytes, in the socket or in the
/// buffer, it is closed. The next call checks the kept connection: if the service has closed it, or has sent
/// unrequested bytes, it is closed and a new one is made.
///
/// Locks: none while connecting or calling. Threads: any may use call(), also from inside a call.
template <class Client, int Port, class Socket>
class thrift_client {
 public:
  /// Does not connect yet. Connecting and reading together end `timeout` after the beginning of a call, even
  /// if the service sends its reply slowly. Sending, if it has to wait, may take as long again.
  explicit thrift_client(std::chrono::milliseconds timeout = std::chrono::seconds(10)) : timeout_(timeout) {}

  thrift_client(const thrift_client&) = delete;
  thrift_client& operator=(const thrift_client&) = delete;

  /// Runs `operation` on a connection. `operation` gets a Client& for one call and must not keep it.
  ///
  /// Throws what connecting and `operation` throw. A TApplicationException is a reply of the service, so the
  /// connection is kept. Any other exception closes the connection, and the next call makes a new one.
  /// Nothing is retried, because the service may have begun to act on the call.
  template <class Call>
  void call(Call&& operation) {
    std::unique_ptr<Connection> connection = takeIdle();
    if (!connection || connection->hasInput()) {
      connection = makeConnection();
    }
    connection->socket->setDeadline(std::chrono::steady_clock::now() + timeout_);
    try {
      if (!connection->transport->isOpen()) {
        connection->transport->open();
      }
      std::forward<Call>(operation)(connection->client);
    } catch (const apache::thrift::TApplicationException&) {
      keepIdle(std::move(connection));
      throw;
    }
    // Any other exception destroys the connection. That closes the socket, not the transport, which would
    // first flush the rest of the failed call.
    keepIdle(std::move(connection));
  }

 private:
  struct Connection {
    explicit Connection(std::shared_ptr<Socket> connecting)
        : socket(std::move(connecting)),
          transport(std::make_shared<LimitedBufferedTransport>(socket, bufferSize, bufferSize)),
          client(std::make_shared<LimitedBinaryProtocol>(transport)) {}

    /// Between two calls, all there can be to read is the end of the connection or unrequested bytes.
    bool hasInput() const { return transport->hasBufferedInput() || socket->hasInput(); }

    const std::shared_ptr<Socket> socket;
    const std::shared_ptr<LimitedBufferedTransport> transport;
    Client client;
  };

  static constexpr std::uint32_t bufferSize = 512;

  /// Null if there is none.
  std::unique_ptr<Connection> takeIdle() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::move(idle_);
  }

  std::unique_ptr<Connection> makeConnection() const {
    const auto socket = std::make_shared<Socket>("localhost", Port);
    const int milliseconds = static_cast<int>(timeout_.count());
    socket->setConnTimeout(milliseconds);
    socket->setRecvTimeout(milliseconds);
    socket->setSendTimeout(milliseconds);
    return std::make_unique<Connection>(socket);
  }

  /// Keeps a connection for the next call, or closes it if it has input or another one is idle.
  void keepIdle(std::unique_ptr<Connection> connection) {
    if (connection->hasInput()) {
      return;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!idle_) {
      idle_ = std::move(connection);
    }
  }

  const std::chrono::milliseconds timeout_;
  std::mutex mutex_;
  std::unique_ptr<Connection> idle_;
};

}  // namespace ravel::rpc

#endif  // RAVELRPC_THRIFT_CLIENT_H
