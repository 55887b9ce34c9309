#include <gtest/gtest.h>
#include <thrift/TApplicationException.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/protocol/TProtocolException.h>
#include <usb_rpc_gen_.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "LimitedBinaryProtocol.h"
#include "LimitedBufferedTransport.h"

using apache::thrift::TApplicationException;
using apache::thrift::protocol::T_CALL;
using apache::thrift::protocol::T_EXCEPTION;
using apache::thrift::protocol::T_I32;
using apache::thrift::protocol::T_I64;
using apache::thrift::protocol::T_LIST;
using apache::thrift::protocol::T_MAP;
using apache::thrift::protocol::T_ONEWAY;
using apache::thrift::protocol::T_REPLY;
using apache::thrift::protocol::T_SET;
using apache::thrift::protocol::T_STOP;
using apache::thrift::protocol::T_STRING;
using apache::thrift::protocol::T_STRUCT;
using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::protocol::TMessageType;
using apache::thrift::protocol::TProtocol;
using apache::thrift::protocol::TProtocolException;
using apache::thrift::protocol::TType;
using apache::thrift::transport::TMemoryBuffer;
using apache::thrift::transport::TTransportException;

namespace ravel::rpc {
namespace {

constexpr std::uint32_t limit = LimitedBinaryProtocol::maxContainerSize;
constexpr std::uint32_t twoBillion = 2000000000;

/// As in a server: one end writes with Thrift's protocol, the other reads with ours.
class LimitedBinaryProtocolTest : public ::testing::Test {
 protected:
  using Type = TProtocolException::TProtocolExceptionType;

  void writeBytes(const std::string& bytes) {
    wire_->write(reinterpret_cast<const std::uint8_t*>(bytes.data()),
                 static_cast<std::uint32_t>(bytes.size()));
  }

  /// Returns the type of the exception that ends reading.
  Type refusal(const std::function<void()>& reading) {
    try {
      reading();
    } catch (const TProtocolException& error) {
      wire_->resetBuffer();
      reader = connect();
      return error.getType();
    }
    ADD_FAILURE() << "no TProtocolException";
    return TProtocolException::UNKNOWN;
  }

  /// Writes on a new connection, and sends nothing.
  void callTwice() {
    reader = connect();
    reader->writeMessageBegin("OpenDevice", T_CALL, 0);
    reader->writeMessageBegin("OpenDevice", T_CALL, 0);
  }
  void readMessage() {
    std::string name;
    TMessageType type{};
    std::int32_t sequence = 0;
    reader->readMessageBegin(name, type, sequence);
  }
  void readField() {
    std::string name;
    TType type{};
    std::int16_t id = 0;
    reader->readFieldBegin(name, type, id);
  }
  void readList() {
    TType element{};
    std::uint32_t size = 0;
    reader->readListBegin(element, size);
  }
  void readSet() {
    TType element{};
    std::uint32_t size = 0;
    reader->readSetBegin(element, size);
  }
  void readMap() {
    TType key{};
    TType value{};
    std::uint32_t size = 0;
    reader->readMapBegin(key, value, size);
  }

 private:
  std::shared_ptr<TProtocol> connect() {
    return LimitedBinaryProtocolFactory().getProtocol(LimitedBufferedTransportFactory().getTransport(wire_));
  }

  const std::shared_ptr<TMemoryBuffer> wire_ = std::make_shared<TMemoryBuffer>();

 protected:
  TBinaryProtocol writer{wire_};
  std::shared_ptr<TProtocol> reader = connect();
};

TEST_F(LimitedBinaryProtocolTest, ReadsMessagesWithAndWithoutAVersion) {
  for (const bool versioned : {true, false}) {
    writer.setStrict(false, versioned);
    writer.writeMessageBegin("OpenDevice", T_ONEWAY, -7);
    std::string name;
    TMessageType type{};
    std::int32_t sequence = 0;
    reader->readMessageBegin(name, type, sequence);
    EXPECT_EQ(name, "OpenDevice");
    EXPECT_EQ(type, T_ONEWAY);
    EXPECT_EQ(sequence, -7);
  }
}

TEST_F(LimitedBinaryProtocolTest, NumbersTheCallsThatItWritesAndNothingElse) {
  std::string name;
  TMessageType type{};
  std::int32_t sequence = 0;
  std::vector<std::int32_t> numbers;
  for (const auto written : {T_CALL, T_ONEWAY, T_REPLY, T_EXCEPTION, T_CALL}) {
    reader->writeMessageBegin("OpenDevice", written, 0);
    reader->getTransport()->flush();
    writer.readMessageBegin(name, type, sequence);
    EXPECT_EQ(type, written);
    numbers.push_back(sequence);
  }
  EXPECT_EQ(numbers, (std::vector<std::int32_t>{1, 2, 0, 0, 3}));
}

TEST_F(LimitedBinaryProtocolTest, RefusesRepliesToAnotherCallThanTheLast) {
  for (const auto type : {T_REPLY, T_EXCEPTION}) {
    for (const std::int32_t number : {0, 1, 3, -2}) {
      callTwice();
      writer.writeMessageBegin("OpenDevice", type, number);
      EXPECT_EQ(refusal([&] { readMessage(); }), TProtocolException::INVALID_DATA) << number;
    }
    callTwice();
    writer.writeMessageBegin("OpenDevice", type, 2);
    EXPECT_NO_THROW(readMessage());
  }
}

TEST_F(LimitedBinaryProtocolTest, ReadsFieldsAndTheirEnd) {
  writer.writeFieldBegin("", T_STRING, -2);
  writer.writeFieldStop();
  std::string name;
  TType type{};
  std::int16_t id = 0;
  EXPECT_EQ(reader->readFieldBegin(name, type, id), 3U);
  EXPECT_EQ(type, T_STRING);
  EXPECT_EQ(id, -2);
  EXPECT_EQ(reader->readFieldBegin(name, type, id), 1U);
  EXPECT_EQ(type, T_STOP);
  EXPECT_EQ(id, 0);
}

TEST_F(LimitedBinaryProtocolTest, ReadsContainersUpToTheLimit) {
  EXPECT_EQ(limit, 1048576U);
  writer.writeListBegin(T_I64, limit);
  writer.writeSetBegin(T_STRUCT, 0);
  writer.writeMapBegin(T_I64, T_STRING, limit);
  TType key{};
  TType value{};
  std::uint32_t size = 0;
  EXPECT_EQ(reader->readListBegin(value, size), 5U);
  EXPECT_EQ(value, T_I64);
  EXPECT_EQ(size, limit);
  EXPECT_EQ(reader->readSetBegin(value, size), 5U);
  EXPECT_EQ(value, T_STRUCT);
  EXPECT_EQ(size, 0U);
  EXPECT_EQ(reader->readMapBegin(key, value, size), 6U);
  EXPECT_EQ(key, T_I64);
  EXPECT_EQ(value, T_STRING);
  EXPECT_EQ(size, limit);
}

TEST_F(LimitedBinaryProtocolTest, RefusesContainersBeyondTheLimit) {
  for (const std::uint32_t size : {limit + 1, twoBillion}) {
    writer.writeListBegin(T_I64, size);
    EXPECT_EQ(refusal([&] { readList(); }), TProtocolException::SIZE_LIMIT);
    writer.writeSetBegin(T_I64, size);
    EXPECT_EQ(refusal([&] { readSet(); }), TProtocolException::SIZE_LIMIT);
    writer.writeMapBegin(T_I64, T_I64, size);
    EXPECT_EQ(refusal([&] { readMap(); }), TProtocolException::SIZE_LIMIT);
  }
  writer.writeListBegin(T_I64, limit + 1);
  try {
    readList();
    FAIL() << "no exception";
  } catch (const TProtocolException& error) {
    EXPECT_STREQ(error.what(), "1048577 elements are announced, but at most 1048576 are allowed");
  }
}

TEST_F(LimitedBinaryProtocolTest, RefusesNegativeCounts) {
  writer.writeListBegin(T_I64, static_cast<std::uint32_t>(-1));
  EXPECT_EQ(refusal([&] { readList(); }), TProtocolException::NEGATIVE_SIZE);
  writer.writeMapBegin(T_I64, T_I64, static_cast<std::uint32_t>(-1));
  EXPECT_EQ(refusal([&] { readMap(); }), TProtocolException::NEGATIVE_SIZE);
}

TEST_F(LimitedBinaryProtocolTest, RefusesUnknownTypes) {
  for (int code = ravel::rpc::LimitedBinaryProtocol::maxType + 1; code <= 0xFF; ++code) {
    const std::string type(1, static_cast<char>(code));
    const std::string string(1, static_cast<char>(T_STRING));
    const std::string count(4, '\0');
    writeBytes(type + std::string(2, '\0'));
    EXPECT_EQ(refusal([&] { readField(); }), TProtocolException::INVALID_DATA) << code;
    writeBytes(type + count);
    EXPECT_EQ(refusal([&] { readList(); }), TProtocolException::INVALID_DATA) << code;
    writeBytes(type + count);
    EXPECT_EQ(refusal([&] { readSet(); }), TProtocolException::INVALID_DATA) << code;
    writeBytes(type + string + count);
    EXPECT_EQ(refusal([&] { readMap(); }), TProtocolException::INVALID_DATA) << code;
    writeBytes(string + type + count);
    EXPECT_EQ(refusal([&] { readMap(); }), TProtocolException::INVALID_DATA) << code;
  }
}

TEST_F(LimitedBinaryProtocolTest, RefusesUnknownMessageTypes) {
  for (int code = 0; code <= 0xFF; ++code) {
    if (code >= T_CALL && code <= T_ONEWAY) {
      continue;
    }
    const std::string type(1, static_cast<char>(code));
    const std::string name{"\0\0\0\1x", 5};
    const std::string sequence(4, '\0');
    writeBytes("\x80\x01" + std::string(1, '\0') + type + name + sequence);
    EXPECT_EQ(refusal([&] { readMessage(); }), TProtocolException::INVALID_DATA) << code;
    writeBytes(name + type + sequence);
    EXPECT_EQ(refusal([&] { readMessage(); }), TProtocolException::INVALID_DATA) << code;
  }
}

TEST_F(LimitedBinaryProtocolTest, RefusesAnotherVersion) {
  writeBytes(std::string{"\x80\x02\0\1\0\0\0\1x\0\0\0\0", 13});
  EXPECT_EQ(refusal([&] { readMessage(); }), TProtocolException::BAD_VERSION);
}

TEST_F(LimitedBinaryProtocolTest, ReadsAKindOfFailureThatThriftDoesNotKnowAsUnknown) {
  for (const std::int32_t kind : {-1, 11, 12345}) {
    writer.writeMessageBegin("OpenDevice", T_EXCEPTION, 0);
    TApplicationException("it failed").write(&writer);
    writer.writeMessageBegin("OpenDevice", T_EXCEPTION, 0);
    writer.writeFieldBegin("type", T_I32, 2);
    writer.writeI32(kind);
    writer.writeFieldStop();
    readMessage();
    TApplicationException failure;
    failure.read(reader.get());
    EXPECT_STREQ(failure.what(), "it failed");
    readMessage();
    TApplicationException odd;
    odd.read(reader.get());
    EXPECT_EQ(odd.getType(), TApplicationException::UNKNOWN) << kind;
  }
}

TEST_F(LimitedBinaryProtocolTest, LeavesTheKindsThatThriftKnowsAndTheNumbersOfOtherMessages) {
  for (const auto kind : {TApplicationException::UNKNOWN, TApplicationException::UNKNOWN_METHOD,
                          TApplicationException::UNSUPPORTED_CLIENT_TYPE}) {
    writer.writeMessageBegin("OpenDevice", T_EXCEPTION, 0);
    TApplicationException(kind, "").write(&writer);
    readMessage();
    TApplicationException failure;
    failure.read(reader.get());
    EXPECT_EQ(failure.getType(), kind);
  }
  writer.writeMessageBegin("OpenDevice", T_CALL, 0);
  writer.writeI32(12345);
  readMessage();
  std::int32_t number = 0;
  reader->readI32(number);
  EXPECT_EQ(number, 12345);
}

TEST_F(LimitedBinaryProtocolTest, EndsAtOnceAtAContainerWhoseElementsDoNotCome) {
  for (const TType container : {T_LIST, T_SET, T_MAP}) {
    for (const TType element : {T_STRUCT, T_STRING, T_I64}) {
      const auto wire = std::make_shared<TMemoryBuffer>();
      TBinaryProtocol call(wire);
      call.writeMessageBegin("OpenDevice", T_CALL, 0);
      call.writeFieldBegin("", container, 99);
      if (container == T_MAP) {
        call.writeMapBegin(element, element, limit);
      } else {
        call.writeListBegin(element, limit);
      }
      const auto protocol =
          LimitedBinaryProtocolFactory().getProtocol(LimitedBufferedTransportFactory().getTransport(wire));
      usb_rpc_gen_Processor processor(std::make_shared<usb_rpc_gen_Null>());
      EXPECT_THROW(processor.process(protocol, protocol, nullptr), TTransportException);
    }
  }
}

}  // namespace
}  // namespace ravel::rpc
