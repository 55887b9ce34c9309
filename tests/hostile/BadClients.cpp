#include "BadClients.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstdint>
#include <functional>

#include "LimitedBufferedTransport.h"
#include "Wire.h"

using apache::thrift::protocol::T_BOOL;
using apache::thrift::protocol::T_CALL;
using apache::thrift::protocol::T_LIST;
using apache::thrift::protocol::T_STRING;
using apache::thrift::protocol::T_STRUCT;
using apache::thrift::protocol::TBinaryProtocol;

namespace hostiletest {
namespace {

constexpr std::int32_t twoGigabytes = 0x7fffffff;
constexpr std::uint32_t twoBillion = 2000000000;

/// The beginning of a call: all up to its text of this length.
std::string callWithText(std::int32_t length) {
  return written([length](TBinaryProtocol& writer) {
    writer.writeMessageBegin("GetFilesByExtension", T_CALL, 0);
    writer.writeFieldBegin("", T_STRING, 2);
    writer.writeI32(length);
  });
}

std::string nameOfTwoGigabytes() {
  constexpr std::int32_t strictCall = static_cast<std::int32_t>(0x80010001);
  return written([](TBinaryProtocol& writer) {
    writer.writeI32(strictCall);
    writer.writeI32(twoGigabytes);
  });
}

std::string listOfTwoBillion() {
  return written([](TBinaryProtocol& writer) {
    writer.writeMessageBegin("IsDeviceOpen", T_CALL, 0);
    writer.writeFieldBegin("", T_LIST, 99);
    writer.writeListBegin(T_BOOL, twoBillion);
    writer.writeBool(true);
  });
}

std::string structuresInStructures() {
  constexpr int levels = 5000;
  return written([](TBinaryProtocol& writer) {
    writer.writeMessageBegin("IsDeviceOpen", T_CALL, 0);
    for (int level = 0; level < levels; ++level) {
      writer.writeFieldBegin("", T_STRUCT, 99);
    }
  });
}

std::string randomBytes(std::mt19937& random) {
  std::string bytes(1 + random() % 600, '\0');
  std::generate(bytes.begin(), bytes.end(), [&random] { return static_cast<char>(random()); });
  return bytes;
}

std::string partOfACall(std::mt19937& random) {
  static const std::string call = goodCall();
  return call.substr(0, 1 + random() % (call.size() - 1));
}

/// Nobody reads the replies, and they are more than the connection can buffer.
std::string thousandsOfCalls() {
  const std::string call = goodCall();
  std::string calls;
  for (int number = 0; number < 3000; ++number) {
    calls += call;
  }
  return calls;
}

using Way = std::function<std::string(std::mt19937&)>;

Way always(const std::string& message) {
  return [message](std::mt19937&) { return message; };
}

const std::vector<Way>& ways() {
  constexpr std::int32_t allowedLength = ravel::rpc::LimitedBufferedTransport::maxFieldSize;
  static const std::vector<Way> all = {
      always(""),
      randomBytes,
      always("GET / HTTP/1.0\r\n\r\n"),
      partOfACall,
      always(nameOfTwoGigabytes()),
      always(callWithText(twoGigabytes)),
      always(callWithText(allowedLength) + "and no more"),
      always(listOfTwoBillion()),
      always(structuresInStructures()),
      always(goodCall()),
      always(thousandsOfCalls()),
  };
  return all;
}

}  // namespace

std::string BadClients::nextMessage() {
  return ways()[next_++ % ways().size()](random_);
}

void BadClients::come(std::size_t count) {
  while (connections_.size() < count) {
    auto connection = std::make_unique<ravel::rpc::TUnixSocket>("localhost", 9020);
    constexpr int patience = 60000;
    connection->setConnTimeout(patience);
    connection->open();
    const std::string message = nextMessage();
    // Send only what fits. The daemon may have closed the connection already.
    static_cast<void>(
        ::send(connection->getSocketFD(), message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL));
    connections_.push_back(std::move(connection));
  }
}

}  // namespace hostiletest
