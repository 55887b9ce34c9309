#ifndef RAVELRPC_LIMITEDBUFFEREDTRANSPORT_H
#define RAVELRPC_LIMITEDBUFFEREDTRANSPORT_H

#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TTransportException.h>

#include <cstdint>
#include <memory>
#include <string>

namespace ravel::rpc {

/// A buffered transport that limits the announced length of a text, but not the bytes of a connection.
///
/// Thrift allocates the announced length of a text before it reads the text, so a message of thirty bytes
/// could reserve 2 GiB up to Thrift 0.19, and 100 MiB in 0.24, which checks the limit for a message first.
/// Here a text of more than maxFieldSize bytes ends the connection.
///
/// Locks: none. Threads: one at a time, as TBufferedTransport.
class LimitedBufferedTransport : public apache::thrift::transport::TBufferedTransport {
 public:
  /// Maximum size of a text or binary in a message, in bytes: 1 MiB.
  static constexpr std::uint32_t maxFieldSize = 1024 * 1024;

  using TBufferedTransport::TBufferedTransport;

  /// The protocols call this first, with the announced length of a text. Throws TTransportException
  /// (CORRUPTED_DATA) if that is over the limit.
  const std::uint8_t* borrowSlow(std::uint8_t* buffer, std::uint32_t* length) override {
    using apache::thrift::transport::TTransportException;
    if (*length > maxFieldSize) {
      throw TTransportException(TTransportException::CORRUPTED_DATA,
                                "a text of " + std::to_string(*length) + " bytes is announced, but at most " +
                                    std::to_string(maxFieldSize) + " are allowed");
    }
    return TBufferedTransport::borrowSlow(buffer, length);
  }

  /// True if bytes that came with the last message are still unread.
  bool hasBufferedInput() const { return rBound_ > rBase_; }

  /// The generated code calls this after each message. Resets the count of bytes: up to Thrift 0.19 the base
  /// class adds up all messages of a connection, and ends a busy one at the limit for one message (100 MiB).
  /// Thrift 0.24 resets it too.
  std::uint32_t readEnd() override {
    resetConsumedMessageSize();
    return TBufferedTransport::readEnd();
  }
};

/// Puts a LimitedBufferedTransport, with Thrift's buffers of 512 bytes, around each connection of a server.
class LimitedBufferedTransportFactory : public apache::thrift::transport::TBufferedTransportFactory {
 public:
  std::shared_ptr<apache::thrift::transport::TTransport> getTransport(
      std::shared_ptr<apache::thrift::transport::TTransport> connection) override {
    return std::make_shared<LimitedBufferedTransport>(connection);
  }
};

}  // namespace ravel::rpc

#endif  // RAVELRPC_LIMITEDBUFFEREDTRANSPORT_H
