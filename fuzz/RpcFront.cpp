// Raw bytes on a connection, through the server's own transports, protocol and processor to the handler.
//
// The first byte of the input selects the failures of the fake system. The second is the size of the pieces
// in which the bytes arrive, minus one. The rest is what the client sends.

#include <thrift/TApplicationException.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/server/TConnectedClient.h>
#include <thrift/transport/TBufferTransports.h>

#include <algorithm>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <cerrno>
#include <future>
#include <memory>
#include <utility>

#include "Fuzzing.h"
#include "Journal.h"
#include "LimitedBinaryProtocol.h"
#include "LimitedBufferedTransport.h"

using apache::thrift::TApplicationException;
using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::protocol::TMessageType;
using apache::thrift::transport::TMemoryBuffer;
using apache::thrift::transport::TVirtualTransport;

namespace {

/// The client's end of a connection: delivers the input piece by piece, then the end, and keeps the replies.
class Wire : public TVirtualTransport<Wire> {
 public:
  Wire(std::string input, std::size_t piece) : input_(std::move(input)), piece_(piece) {}

  bool isOpen() const override { return true; }
  void close() override {}

  std::uint32_t read(std::uint8_t* buffer, std::uint32_t length) {
    const std::size_t count =
        input_.copy(reinterpret_cast<char*>(buffer), std::min<std::size_t>(length, piece_), position_);
    position_ += count;
    return static_cast<std::uint32_t>(count);
  }

  void write(const std::uint8_t* buffer, std::uint32_t length) {
    answers_.append(reinterpret_cast<const char*>(buffer), length);
  }

  const std::string& answers() const { return answers_; }

 private:
  std::string input_;
  std::size_t piece_;
  std::size_t position_ = 0;
  std::string answers_;
};

/// Sets up two devices, one with a partition and one without, and everything that the operations read.
void furnish(FakePlatform& platform, unsigned failures) {
  const auto fails = [failures](unsigned bit) { return (failures >> bit & 1U) != 0; };

  platform.deviceNodes = {"null", "usb_storage_sda", "usb_storage_sda1", "usb_storage_sdb"};
  FakePlatform::Disk disk;
  disk.size = blkid_loff_t{1} << 33;
  disk.opens = !fails(1);
  disk.probeResult = fails(2) ? -1 : 0;
  disk.values = {{"LABEL", "HOLIDAY $1"}, {"UUID", "0A1B-2C3D"}, {"TYPE", "vfat"}};
  platform.disks["/dev/usb_storage_sda"] = disk;
  platform.disks["/dev/usb_storage_sda1"] = disk;
  disk.values = {{"LABEL", "../x"}, {"TYPE", "xfs"}};
  platform.disks["/dev/usb_storage_sdb"] = disk;

  platform.files = {{"/proc/mounts", "/dev/usb_storage_sda1 /media/disk_1 vfat rw 0 0\n"},
                    {"/proc/partitions",
                     "   8        0      16384 sda\n   8        1      16384 sda1\n   8       16  99 sdb\n"},
                    {"/sys/block/sda/removable", "1\n"},
                    {"/sys/block/sdb/removable", "0\n"},
                    {"/tmp/sda_bcdUSB.txt", " 2.00\n"}};
  platform.directories = {{"/media/disk_1/", {".", "..", "song.mp3", "SONG.MP3", "mp3", "."}},
                          {"//", {"etc"}}};
  platform.existing = {"/media/disk_1"};

  platform.scandirError = fails(0) ? EMFILE : 0;
  platform.mountError = [broken = fails(3)](const FakePlatform::Mount&) { return broken ? ENODEV : 0; };
  platform.umount2Error = fails(4) ? EBUSY : 0;
  platform.systemStatus = [broken = fails(5)](const std::string&) { return broken ? 256 : 0; };
  platform.mkdirError = fails(6) ? ENOSPC : 0;
  if (fails(7)) {
    platform.readErrors = {
        {"/proc/mounts", EIO}, {"/proc/partitions", EIO}, {"/sys/block/sda/removable", EIO}};
  }
}

/// Serves one connection to its end, as a worker of the server does. Returns the replies.
std::string serve(const std::shared_ptr<TestableHandler>& handler, const std::string& bytes,
                  std::size_t piece) {
  const auto wire = std::make_shared<Wire>(bytes, piece);
  const auto transport = ravel::rpc::LimitedBufferedTransportFactory().getTransport(wire);
  const auto protocol = ravel::rpc::LimitedBinaryProtocolFactory().getProtocol(transport);
  apache::thrift::server::TConnectedClient(std::make_shared<ravel::rpc::usb_rpc_gen_Processor>(handler),
                                           protocol, protocol, nullptr, transport)
      .run();
  return wire->answers();
}

/// Requires whole messages only, and exceptions only where the interface allows them.
void requireGoodAnswers(const std::string& answers) {
  const auto buffer = std::make_shared<TMemoryBuffer>();
  buffer->write(reinterpret_cast<const std::uint8_t*>(answers.data()),
                static_cast<std::uint32_t>(answers.size()));
  TBinaryProtocol protocol(buffer);
  while (buffer->available_read() > 0) {
    std::string name;
    TMessageType type{};
    std::int32_t sequence = 0;
    protocol.readMessageBegin(name, type, sequence);
    if (type == apache::thrift::protocol::T_EXCEPTION) {
      TApplicationException exception;
      exception.read(&protocol);
      const bool fromHandler = exception.getType() == TApplicationException::UNKNOWN;
      const bool withoutMediaService = name.rfind("NotifyUsb", 0) == 0 &&
                                       std::string(exception.what()).find("/9014.sock") != std::string::npos;
      fuzz::require(!fromHandler || withoutMediaService,
                    "only a notification that does not reach the media service raises an exception");
    } else {
      fuzz::require(type == apache::thrift::protocol::T_REPLY, "an answer is a reply or an exception");
      protocol.skip(apache::thrift::protocol::T_STRUCT);
    }
    protocol.readMessageEnd();
  }
}

/// The next client, on another worker, finds the lock free and gets its reply. Call it in another thread,
/// because the lock is recursive.
void requireGoodCallIsAnswered(const std::shared_ptr<TestableHandler>& handler) {
  fuzz::require(handler->handlerMutex.try_lock(), "the handler's lock is free");
  handler->handlerMutex.unlock();
  const auto buffer = std::make_shared<TMemoryBuffer>();
  ravel::rpc::usb_rpc_gen_Client client(std::make_shared<TBinaryProtocol>(buffer));
  client.send_IsDeviceOpen(-1);
  const std::string answer = serve(handler, buffer->getBufferAsString(), 512);
  buffer->resetBuffer();
  buffer->write(reinterpret_cast<const std::uint8_t*>(answer.data()),
                static_cast<std::uint32_t>(answer.size()));
  fuzz::require(!client.recv_IsDeviceOpen(), "an unknown device is not open");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) {
    return 0;
  }
  journal().clear();
  FakePlatform platform;
  furnish(platform, data[0]);
  {
    const auto handler = std::make_shared<TestableHandler>(platform);
    requireGoodAnswers(serve(handler, fuzz::textOf(data + 2, size - 2), data[1] + 1U));
    fuzz::requireNothingOpen(platform);
    // One thread for all inputs, because the sanitizer keeps memory for every thread that ever ran.
    static boost::asio::thread_pool otherWorker(1);
    std::packaged_task<void()> goodCall([&handler] { requireGoodCallIsAnswered(handler); });
    auto answered = goodCall.get_future();
    boost::asio::post(otherWorker, std::move(goodCall));
    answered.get();
  }
  fuzz::require(platform.liveProbes() == 0, "no probe outlives the handler");
  return 0;
}
