// Raw bytes as the media service's replies to callbacks, through the client's own transport and protocol. A
// call returns or fails. After anything but exactly one reply, the next call uses a new connection.

#include <thrift/TApplicationException.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>

#include <chrono>

#include "Fuzzing.h"
#include "corvane_rpc_gen_.h"
#include "thrift_client.h"

using apache::thrift::TApplicationException;
using apache::thrift::TException;
using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::transport::TMemoryBuffer;
using apache::thrift::transport::TVirtualTransport;

namespace {

std::string goodAnswer() {
  const auto wire = std::make_shared<TMemoryBuffer>();
  TBinaryProtocol writer(wire);
  writer.writeMessageBegin("SendUsbAddedCallback", apache::thrift::protocol::T_REPLY, 1);
  writer.writeFieldStop();
  return wire->getBufferAsString();
}

/// Replaces the client's socket: the first connection delivers the input, every later one a good reply to its
/// first call.
class AnswerSocket : public TVirtualTransport<AnswerSocket> {
 public:
  AnswerSocket(const std::string& /*host*/, int /*number*/) {}

  static std::string input;
  static int opened;

  void setConnTimeout(int /*milliseconds*/) {}
  void setRecvTimeout(int /*milliseconds*/) {}
  void setSendTimeout(int /*milliseconds*/) {}
  void setDeadline(std::chrono::steady_clock::time_point /*deadline*/) {}
  bool isOpen() const override { return isOpen_; }
  bool hasInput() const { return position_ < answers_.size(); }
  void close() override { isOpen_ = false; }
  void open() override {
    isOpen_ = true;
    answers_ = opened++ == 0 ? input : goodAnswer();
  }
  std::uint32_t read(std::uint8_t* buffer, std::uint32_t length) {
    const std::size_t count = answers_.copy(reinterpret_cast<char*>(buffer), length, position_);
    position_ += count;
    return static_cast<std::uint32_t>(count);
  }
  void write(const std::uint8_t* /*buffer*/, std::uint32_t /*length*/) {}

 private:
  bool isOpen_ = false;
  std::string answers_;
  std::size_t position_ = 0;
};

std::string AnswerSocket::input;
int AnswerSocket::opened = 0;

using MediaClient = ravel::rpc::thrift_client<ravel::rpc::corvane_rpc_gen_Client, 9014, AnswerSocket>;

/// True if the service replied, even with an exception.
bool isAnswered(MediaClient& client) {
  try {
    client.call([](ravel::rpc::corvane_rpc_gen_Client& service) { service.SendUsbAddedCallback(1, 2, 3); });
    return true;
  } catch (const TApplicationException&) {
    return true;
  } catch (const TException&) {
    return false;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  AnswerSocket::input = fuzz::textOf(data, size);
  AnswerSocket::opened = 0;
  MediaClient client;
  const bool first = isAnswered(client);
  fuzz::require(AnswerSocket::opened == 1, "a call is not retried");
  // Nothing is left on a connection that was kept, so a second call on it gets no reply.
  const bool second = isAnswered(client);
  fuzz::require(second == (AnswerSocket::opened == 2), "a reply is not taken from an earlier call");
  fuzz::require(first || second, "the next call after a failed one uses a new connection");
  return 0;
}
