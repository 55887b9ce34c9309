#include <gtest/gtest.h>
#include <sys/resource.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <usb_rpc_gen_.h>

#include <cstring>
#include <string>

#include "LimitedBufferedTransport.h"
#include "TransportTestSupport.h"

using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::transport::TMemoryBuffer;
using apache::thrift::transport::TTransportException;
using apache::thrift::transport::TVirtualTransport;

namespace ravel::rpc {
namespace {

using transport_test::TransportError;
using transport_test::transportError;

constexpr std::uint32_t twoBillion = 2000000000;

long peakMegabytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss / 1024;
}

/// Sends a text of one length that announces another, and returns what the reader at the other end gets.
std::string readText(std::uint32_t announced, std::uint32_t real) {
  const auto wire = std::make_shared<TMemoryBuffer>();
  TBinaryProtocol writer(wire);
  writer.writeI32(static_cast<std::int32_t>(announced));
  const std::string content(real, 'x');
  wire->write(reinterpret_cast<const std::uint8_t*>(content.data()), real);

  TBinaryProtocol reader(LimitedBufferedTransportFactory().getTransport(wire));
  std::string text;
  reader.readString(text);
  return text;
}

TEST(LimitedBufferedTransport, CarriesATextOfExactlyTheLimit) {
  const std::uint32_t limit = LimitedBufferedTransport::maxFieldSize;
  EXPECT_EQ(limit, 1048576U);
  EXPECT_EQ(readText(limit, limit).size(), limit);
}

TEST(LimitedBufferedTransport, RefusesATextOfMoreThanTheLimit) {
  const std::uint32_t tooMuch = LimitedBufferedTransport::maxFieldSize + 1;
  EXPECT_EQ(transportError([&] { readText(tooMuch, tooMuch); }),
            TransportError(TTransportException::CORRUPTED_DATA,
                           "a text of 1048577 bytes is announced, but at most 1048576 are allowed"));
}

TEST(LimitedBufferedTransport, AllocatesNothingForATextThatIsOnlyAnnounced) {
  const long before = peakMegabytes();
  EXPECT_THROW(readText(twoBillion, 10), TTransportException);
  EXPECT_LT(peakMegabytes() - before, 100);
}

/// Delivers the same message at each read, without end.
class RepeatingTransport : public TVirtualTransport<RepeatingTransport> {
 public:
  explicit RepeatingTransport(std::string message) : message_(std::move(message)) {}

  std::uint32_t read(std::uint8_t* buffer, std::uint32_t length) {
    EXPECT_GE(length, message_.size());
    std::memcpy(buffer, message_.data(), message_.size());
    return static_cast<std::uint32_t>(message_.size());
  }

 private:
  std::string message_;
};

TEST(LimitedBufferedTransport, ReadsMessagesWithoutEndOnOneConnection) {
  const auto wire = std::make_shared<TMemoryBuffer>();
  usb_rpc_gen_Client writer(std::make_shared<TBinaryProtocol>(wire));
  writer.send_OpenDeviceAt(1, std::string(440, 'm'), false);
  const std::string message = wire->getBufferAsString();
  ASSERT_LE(message.size(), 512U);

  const auto in = std::make_shared<TBinaryProtocol>(
      LimitedBufferedTransportFactory().getTransport(std::make_shared<RepeatingTransport>(message)));
  const auto replies = std::make_shared<TMemoryBuffer>();
  const auto out = std::make_shared<TBinaryProtocol>(replies);
  usb_rpc_gen_Processor processor(std::make_shared<usb_rpc_gen_Null>());
  const std::size_t limit = 100UL * 1024 * 1024;
  for (std::size_t consumed = 0; consumed < limit + limit / 4; consumed += message.size()) {
    processor.process(in, out, nullptr);
    replies->resetBuffer();
  }
}

}  // namespace
}  // namespace ravel::rpc
