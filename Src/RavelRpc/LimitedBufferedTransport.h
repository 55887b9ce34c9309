#ifndef RAVELRPC_LIMITEDBUFFEREDTRANSPORT_H
#define RAVELRPC_LIMITEDBUFFEREDTRANSPORT_H

#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TTransportException.h>

#include <cstdint>
#include <memory>
#include <string>

namespace ravel::rpc {

/// A buffered transport that does not believe every length it is told, and that lives as long as its
/// connection.
///
/// Thrift makes room for a text of the announced length before it reads it, so that a message of thirty bytes
/// could reserve 2 GiB. Here a text of more than maxFieldSize bytes ends the connection instead.
///
/// Threads and locks: as TBufferedTransport, one thread at a time and no locks.
class LimitedBufferedTransport : public apache::thrift::transport::TBufferedTransport {
 public:
  /// Longest text or binary of a message, in bytes: 1 MiB.
  static constexpr std::uint32_t maxFieldSize = 1024 * 1024;

  using TBufferedTransport::TBufferedTransport;

  /// The protocols ask here first, with the announced length of a text. Throws TTransportException
  /// (CORRUPTED_DATA) when that is over the limit.
  const std::uint8_t* borrowSlow(std::uint8_t* buffer, std::uint32_t* length) override {
    using apache::thrift::transport::TTransportException;
    if (*length > maxFieldSize) {
      throw TTransportException(TTransportException::CORRUPTED_DATA,
                                "a text of " + std::to_string(*length) + " bytes is announced, " +
                                    std::to_string(maxFieldSize) + " are the limit");
    }
    return TBufferedTransport::borrowSlow(buffer, length);
  }

  /// True when bytes that came with the last message have not been read.
  bool hasBufferedInput() const { return rBound_ > rBase_; }

  /// The generated code calls this after each message. The base class counts the bytes of all messages of the
  /// connection against the limit for one message (100 MiB) and would end a busy connection some day.
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
