#ifndef RAVELRPC_LIMITEDBINARYPROTOCOL_H
#define RAVELRPC_LIMITEDBINARYPROTOCOL_H

#include <thrift/TApplicationException.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/protocol/TProtocolException.h>
#include <thrift/protocol/TVirtualProtocol.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <string>

#include "LimitedBufferedTransport.h"

namespace ravel::rpc {

/// Thrift's binary protocol for bytes that anybody may have sent. It is the same on the wire, but refuses
/// invalid numbers when it reads them.
///
/// Thrift accepts any byte as the type of a field, an element or a message, although its enumerations lack
/// most values. It multiplies the count of a container before it checks whether so many bytes may come: up to
/// 0.19 the product overflows at a count of 2 billion; in 0.24 it has 64 bits. An unknown type and an
/// overflow are undefined behaviour.
///
/// Calls are numbered as they are written, from 1 on each connection. The caller's number is ignored, because
/// generated clients give 0 to all calls. They do not check the number of a reply either, so a reply that has
/// not the number of the last call is refused: it belongs to an earlier call.
///
/// A refusal is a TProtocolException: INVALID_DATA for a type or a reply's number, SIZE_LIMIT or
/// NEGATIVE_SIZE for a count. A server then closes the connection. Thrift itself refuses more than 64 levels
/// of nesting. The kind of a TApplicationException is no reason to close the connection, because the peer has
/// replied: a kind that Thrift does not know is read as UNKNOWN.
///
/// Locks: none. Threads: one at a time, as TBinaryProtocol.
class LimitedBinaryProtocol
    : public apache::thrift::protocol::TVirtualProtocol<LimitedBinaryProtocol,
                                                        apache::thrift::protocol::TBinaryProtocol> {
  using TApplicationException = apache::thrift::TApplicationException;
  using TMessageType = apache::thrift::protocol::TMessageType;
  using TProtocolException = apache::thrift::protocol::TProtocolException;
  using TType = apache::thrift::protocol::TType;

 public:
  /// Maximum number of elements of a list or set, and of pairs of a map: the same number as for the bytes of
  /// a text. A pair takes at most 32 bytes (two T_UUID), so the product cannot overflow.
  static constexpr std::int32_t maxContainerSize = LimitedBufferedTransport::maxFieldSize;

  /// The largest type on the wire: T_UUID in Thrift 0.24. In 0.17 it is T_UTF8, which is never written.
  static constexpr std::int8_t maxType = apache::thrift::protocol::T_LIST + 1;

  explicit LimitedBinaryProtocol(const std::shared_ptr<apache::thrift::transport::TTransport>& transport)
      : TVirtualProtocol(transport) {}

  std::uint32_t writeMessageBegin(const std::string& name, const TMessageType type,
                                  const std::int32_t sequence) {
    if (type != apache::thrift::protocol::T_CALL && type != apache::thrift::protocol::T_ONEWAY) {
      return TVirtualProtocol::writeMessageBegin(name, type, sequence);
    }
    lastCall_ = lastCall_ < std::numeric_limits<std::int32_t>::max() ? lastCall_ + 1 : 1;
    return TVirtualProtocol::writeMessageBegin(name, type, lastCall_);
  }

  std::uint32_t readMessageBegin(std::string& name, TMessageType& type, std::int32_t& sequence) {
    std::int32_t first = 0;
    std::uint32_t bytes = TVirtualProtocol::readI32(first);
    if (first < 0) {
      if ((first & VERSION_MASK) != VERSION_1) {
        throw TProtocolException(TProtocolException::BAD_VERSION, "Bad version identifier");
      }
      type = parseMessageType(first & 0xFF);
      bytes += readString(name);
    } else {
      // The old format has no version and begins with the name.
      bytes += readStringBody(name, first);
      std::int8_t code = 0;
      bytes += readByte(code);
      type = parseMessageType(code);
    }
    isFailure_ = type == apache::thrift::protocol::T_EXCEPTION;
    bytes += TVirtualProtocol::readI32(sequence);
    if ((isFailure_ || type == apache::thrift::protocol::T_REPLY) && sequence != lastCall_) {
      throw TProtocolException(TProtocolException::INVALID_DATA,
                               "a reply to call " + std::to_string(sequence) + ", but the last call is " +
                                   std::to_string(lastCall_));
    }
    return bytes;
  }

  /// The only i32 in a TApplicationException is its kind.
  std::uint32_t readI32(std::int32_t& number) {
    const std::uint32_t bytes = TVirtualProtocol::readI32(number);
    if (isFailure_ && (number < TApplicationException::UNKNOWN ||
                       number > TApplicationException::UNSUPPORTED_CLIENT_TYPE)) {
      number = TApplicationException::UNKNOWN;
    }
    return bytes;
  }

  std::uint32_t readFieldBegin(std::string& /*name*/, TType& type, std::int16_t& id) {
    const std::uint32_t bytes = readType(type);
    if (type != apache::thrift::protocol::T_STOP) {
      return bytes + readI16(id);
    }
    id = 0;
    return bytes;
  }

  std::uint32_t readMapBegin(TType& keyType, TType& valueType, std::uint32_t& size) {
    std::uint32_t bytes = readType(keyType);
    bytes += readType(valueType);
    bytes += readSize(size);
    apache::thrift::protocol::TMap map(keyType, valueType, static_cast<int>(size));
    checkReadBytesAvailable(map);
    return bytes;
  }

  std::uint32_t readListBegin(TType& elementType, std::uint32_t& size) {
    std::uint32_t bytes = readType(elementType);
    bytes += readSize(size);
    apache::thrift::protocol::TList list(elementType, static_cast<int>(size));
    checkReadBytesAvailable(list);
    return bytes;
  }

  /// A set has the form of a list.
  std::uint32_t readSetBegin(TType& elementType, std::uint32_t& size) {
    return readListBegin(elementType, size);
  }

 private:
  static TMessageType parseMessageType(std::int32_t code) {
    if (code < apache::thrift::protocol::T_CALL || code > apache::thrift::protocol::T_ONEWAY) {
      throw TProtocolException(TProtocolException::INVALID_DATA,
                               "unknown message type " + std::to_string(code));
    }
    return static_cast<TMessageType>(code);
  }

  std::uint32_t readType(TType& type) {
    std::int8_t code = 0;
    const std::uint32_t bytes = readByte(code);
    if (code < apache::thrift::protocol::T_STOP || code > maxType) {
      throw TProtocolException(TProtocolException::INVALID_DATA, "unknown type " + std::to_string(code));
    }
    type = static_cast<TType>(code);
    return bytes;
  }

  std::uint32_t readSize(std::uint32_t& size) {
    std::int32_t announced = 0;
    const std::uint32_t bytes = TVirtualProtocol::readI32(announced);
    if (announced < 0) {
      throw TProtocolException(TProtocolException::NEGATIVE_SIZE);
    }
    if (announced > maxContainerSize) {
      throw TProtocolException(TProtocolException::SIZE_LIMIT,
                               std::to_string(announced) + " elements are announced, but at most " +
                                   std::to_string(maxContainerSize) + " are allowed");
    }
    size = static_cast<std::uint32_t>(announced);
    return bytes;
  }

  /// The message that is being read is a TApplicationException.
  bool isFailure_ = false;
  /// Number of the last call that was written; 0 before the first.
  std::int32_t lastCall_ = 0;
};

/// Puts a LimitedBinaryProtocol on each connection of a server.
class LimitedBinaryProtocolFactory : public apache::thrift::protocol::TBinaryProtocolFactory {
 public:
  std::shared_ptr<apache::thrift::protocol::TProtocol> getProtocol(
      std::shared_ptr<apache::thrift::transport::TTransport> transport) override {
    return std::make_shared<LimitedBinaryProtocol>(transport);
  }
};

}  // namespace ravel::rpc

#endif  // RAVELRPC_LIMITEDBINARYPROTOCOL_H
