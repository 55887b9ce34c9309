#ifndef RAVELRPC_THRIFT_SERVER_H
#define RAVELRPC_THRIFT_SERVER_H

#include <sys/resource.h>
#include <thrift/concurrency/Thread.h>
#include <thrift/concurrency/ThreadManager.h>
#include <thrift/server/TThreadPoolServer.h>

#include <algorithm>
#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "LimitedBinaryProtocol.h"
#include "LimitedBufferedTransport.h"
#include "PosixThreadFactory.h"

namespace ravel::rpc {

/// Keeps a thread manager until the process ends. Its destructor fails with detached threads: it waits for
/// workers that were never made (because the system refused one), and it frees the mutex that the last worker
/// is about to unlock.
inline void keepThreadManager(
    const std::shared_ptr<apache::thrift::concurrency::ThreadManager>& threadManager) {
  static std::mutex mutex;
  static auto& kept = *new std::vector<std::shared_ptr<apache::thrift::concurrency::ThreadManager>>;
  const std::lock_guard<std::mutex> lock(mutex);
  kept.push_back(threadManager);
}

/// The maximum number of connections that a server with `workers` workers holds at a time. It is the
/// process's current limit of descriptors (RLIMIT_NOFILE) minus a reserve of 64, but at most 256, and at
/// least one for each worker.
///
/// The reserve keeps idle clients from using up the descriptors that the handler needs for the other clients.
/// Standard streams, log, listener and its lock use 8 of it. Each of ten workers uses at most 5: a connection
/// to another service, or a directory, a file and a disk's node with its entries in /sys. More than 256
/// connections would cost 3.4 KiB each and gain nothing: a client can wait in the kernel just as well.
inline std::int64_t maxConnectionCount(int workers) {
  constexpr rlim_t reserve = 64;
  constexpr rlim_t maximum = 256;
  rlimit descriptors{};
  // If this fails, the limit is 0 and each worker still gets its connection.
  static_cast<void>(::getrlimit(RLIMIT_NOFILE, &descriptors));
  const rlim_t left = descriptors.rlim_cur > reserve ? descriptors.rlim_cur - reserve : 0;
  return std::max<std::int64_t>(static_cast<std::int64_t>(std::min(left, maximum)), workers);
}

/// The server of a service. One thread accepts connections. Each of `Workers` threads serves one connection
/// at a time, from its first call to its end. Other connections wait until one ends: in the thread manager's
/// queue while there are at most maxConnectionCount() in all, and unaccepted in the kernel beyond that. It
/// speaks the binary protocol over buffered connections (see LimitedBinaryProtocol.h and
/// LimitedBufferedTransport.h).
///
/// `If` and `Processor` are the service's generated classes, `Port` is the number of its socket and
/// `ServerSocket` the class that listens on it, made from the number.
///
/// An exception of the handler becomes the caller's TApplicationException. Locks: none while workers call the
/// handler. Threads: one thread makes and starts the server; several workers call the handler at a time.
template <class If, class Processor, int Port, int Workers, class ServerSocket>
class thrift_server {
 public:
  /// Listens on the socket and makes the workers, but serves nobody before start(). Throws what
  /// `ServerSocket` throws if the socket cannot be made, and SystemResourceException if a worker cannot be
  /// made. Keeps `handler` as long as the threads need it.
  explicit thrift_server(const boost::shared_ptr<If>& handler) {
    using apache::thrift::concurrency::ThreadManager;
    using apache::thrift::server::TThreadPoolServer;

    const auto protocolFactory = std::make_shared<LimitedBinaryProtocolFactory>();
    const auto serverSocket = std::make_shared<ServerSocket>(Port);
    const auto transportFactory = std::make_shared<LimitedBufferedTransportFactory>();
    // The lambda only keeps the Boost pointer as long as Thrift keeps its own.
    const auto processor = std::make_shared<Processor>(std::shared_ptr<If>(handler.get(), [handler](If*) {}));
    const auto threadManager = ThreadManager::newSimpleThreadManager(Workers, 0);
    keepThreadManager(threadManager);
    const auto threadFactory = std::make_shared<PosixThreadFactory>(PosixThreadFactory::ROUND_ROBIN,
                                                                    PosixThreadFactory::NORMAL, 1, true);
    threadManager->threadFactory(threadFactory);
    threadManager->start();
    const auto server = std::make_shared<TThreadPoolServer>(processor, serverSocket, transportFactory,
                                                            protocolFactory, threadManager);
    // The thread manager's queue has no limit, so limit the connections where they are accepted.
    server->setConcurrentClientLimit(maxConnectionCount(Workers));
    thread = threadFactory->newThread(server);
  }

  /// Releases the thread only: a server that was started keeps running.
  virtual ~thrift_server() = default;

  thrift_server(const thrift_server&) = delete;
  thrift_server& operator=(const thrift_server&) = delete;

  /// Starts to serve, and returns. Does nothing the second time. Throws SystemResourceException if the thread
  /// cannot be made, std::runtime_error if there is none to start.
  void start() {
    if (!thread) {
      throw std::runtime_error("Thrift thread could not start");
    }
    thread->start();
  }

 protected:
  std::shared_ptr<apache::thrift::concurrency::Thread> thread;
};

}  // namespace ravel::rpc

#endif  // RAVELRPC_THRIFT_SERVER_H
