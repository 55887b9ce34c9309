// The cost of the RPC layer: a call is decoded and handled, and its reply is encoded, without a socket.

#include <benchmark/benchmark.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "DockhandClient.h"
#include "Folder.h"
#include "InstantPlatform.h"
#include "LimitedBinaryProtocol.h"
#include "LimitedBufferedTransport.h"
#include "usb_rpc_gen_.h"

namespace {

using apache::thrift::transport::TMemoryBuffer;
using ravel::rpc::LimitedBinaryProtocol;
using ravel::rpc::LimitedBufferedTransport;

/// A processor over a handler, with memory in place of a connection.
class Service {
 public:
  explicit Service(std::vector<std::string> names)
      : request_(std::make_shared<TMemoryBuffer>()), reply_(std::make_shared<TMemoryBuffer>()) {
    platform_.names = std::move(names);
    const auto handler = std::make_shared<Dockhand::DockhandClient>(platform_);
    processor_ = std::make_unique<ravel::rpc::usb_rpc_gen_Processor>(handler);
    in_ = std::make_shared<LimitedBinaryProtocol>(std::make_shared<LimitedBufferedTransport>(request_));
    out_ = std::make_shared<LimitedBinaryProtocol>(std::make_shared<LimitedBufferedTransport>(reply_));
  }

  /// Records what `call` writes, and sends it in each iteration.
  void answer(benchmark::State& state,
              const std::function<void(ravel::rpc::usb_rpc_gen_Client& client)>& call) {
    const auto recorded = std::make_shared<TMemoryBuffer>();
    ravel::rpc::usb_rpc_gen_Client client(
        std::make_shared<apache::thrift::protocol::TBinaryProtocol>(recorded));
    call(client);
    const std::string bytes = recorded->getBufferAsString();
    std::size_t replySize = 0;
    for (auto _ : state) {
      request_->write(reinterpret_cast<const std::uint8_t*>(bytes.data()),
                      static_cast<std::uint32_t>(bytes.size()));
      processor_->process(in_, out_, nullptr);
      replySize = reply_->available_read();
      request_->resetBuffer();
      reply_->resetBuffer();
    }
    state.counters["bytes of reply"] = static_cast<double>(replySize);
  }

 private:
  bench::InstantPlatform platform_;
  std::shared_ptr<TMemoryBuffer> request_;
  std::shared_ptr<TMemoryBuffer> reply_;
  std::unique_ptr<ravel::rpc::usb_rpc_gen_Processor> processor_;
  std::shared_ptr<LimitedBinaryProtocol> in_;
  std::shared_ptr<LimitedBinaryProtocol> out_;
};

void shortCall(benchmark::State& state) {
  Service({}).answer(state, [](auto& client) { client.send_IsDeviceOpen(1); });
}

void textReply(benchmark::State& state) {
  Service(bench::deviceNames(1)).answer(state, [](auto& client) { client.send_GetUsbPhysicalDevice(1); });
}

void fileList(benchmark::State& state) {
  Service(bench::songNames(static_cast<std::size_t>(state.range(0)))).answer(state, [](auto& client) {
    client.send_GetFilesByExtension(0, "songs", "mp3");
  });
}

}  // namespace

BENCHMARK(shortCall)->Name("RPC, IsDeviceOpen");
BENCHMARK(textReply)->Name("RPC, GetUsbPhysicalDevice");
BENCHMARK(fileList)
    ->Name("RPC, GetFilesByExtension, entries")
    ->Unit(benchmark::kMicrosecond)
    ->Arg(100)
    ->Arg(10'000);
