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

/// Keeps a thread manager as long as the process. Its destructor is no good with detached threads: it waits
/// for workers that were never made (when the system refused one), and it frees the mutex that the last
/// worker is about to let go of.
inline void keepThreadManager(
    const std::shared_ptr<apache::thrift::concurrency::ThreadManager>& threadManager) {
  static std::mutex mutex;
  static auto& kept = *new std::vector<std::shared_ptr<apache::thrift::concurrency::ThreadManager>>;
  const std::lock_guard<std::mutex> lock(mutex);
  kept.push_back(threadManager);
}

/// How many connections a server with this many workers holds at a time, from the process's limit of
/// descriptors (RLIMIT_NOFILE) as it is now: what that leaves after a reserve of 64, at most 256, and at
/// least one for each worker.
///
/// The reserve keeps idle clients from taking the descriptors that the handler needs for the others. Standard
/// streams, log, listener and its lock use 8 of it. Each of ten workers uses at most 5: a connection to
/// another service, or a directory, a file and a disk's node with its entries in /sys. More than 256
/// connections would cost 3.4 KiB each and help nobody, since a client can wait in the kernel just as well.
inline std::int64_t maxConnectionCount(int workers) {
  constexpr rlim_t reserve = 64;
  constexpr rlim_t maximum = 256;
  rlimit descriptors{};
  // If this fails, the limit is 0 and each worker still gets its connection.
  static_cast<void>(::getrlimit(RLIMIT_NOFILE, &descriptors));
  const rlim_t left = descriptors.rlim_cur > reserve ? descriptors.rlim_cur - reserve : 0;
  return std::max<std::int64_t>(static_cast<std::int64_t>(std::min(left, maximum)), workers);
}

/// The server of a service: a thread that accepts connections, and `Workers` threads each of which serves one
/// connection at a time, from its first call to its end. Connections beyond those wait until one ends: in the
/// thread manager's queue as long as there are no more than maxConnectionCount() in all, beyond that in the
/// kernel, not accepted. Binary protocol over buffered connections (see LimitedBinaryProtocol.h and
/// LimitedBufferedTransport.h).
///
/// `If` and `Processor` are the service's generated classes, `Port` is the number of its socket and
/// `ServerSocket` the class that listens on it, made from the number.
///
/// Threads: one thread makes and starts the server; the workers call the handler, several at a time. No locks
/// are held while they do. An exception of the handler becomes the caller's TApplicationException.
template <class If, class Processor, int Port, int Workers, class ServerSocket>
class thrift_server {
 public:
  /// Listens on the socket and makes the workers; nobody is served before start(). `handler` is kept as long
  /// as the threads need it. Throws what `ServerSocket` throws when the socket cannot be had, and
  /// SystemResourceException when a worker cannot be made.
  explicit thrift_server(const boost::shared_ptr<If>& handler) {
    using apache::thrift::concurrency::ThreadManager;
    using apache::thrift::server::TThreadPoolServer;

    const auto protocolFactory = std::make_shared<LimitedBinaryProtocolFactory>();
    const auto serverSocket = std::make_shared<ServerSocket>(Port);
    const auto transportFactory = std::make_shared<LimitedBufferedTransportFactory>();
    // The lambda does nothing but hold the Boost pointer for as long as Thrift holds its own.
    const auto processor = std::make_shared<Processor>(std::shared_ptr<If>(handler.get(), [handler](If*) {}));
    const auto threadManager = ThreadManager::newSimpleThreadManager(Workers, 0);
    keepThreadManager(threadManager);
    const auto threadFactory = std::make_shared<PosixThreadFactory>(PosixThreadFactory::ROUND_ROBIN,
                                                                    PosixThreadFactory::NORMAL, 1, true);
    threadManager->threadFactory(threadFactory);
    threadManager->start();
    const auto server = std::make_shared<TThreadPoolServer>(processor, serverSocket, transportFactory,
                                                            protocolFactory, threadManager);
    // The thread manager's queue has no limit, so the bound is where connections are accepted.
    server->setConcurrentClientLimit(maxConnectionCount(Workers));
    thread = threadFactory->newThread(server);
  }

  /// Lets go of the thread only: a server that was started goes on.
  virtual ~thrift_server() = default;

  thrift_server(const thrift_server&) = delete;
  thrift_server& operator=(const thrift_server&) = delete;

  /// Starts to serve, and returns. Does nothing the second time. Throws SystemResourceException when the
  /// thread cannot be made, std::runtime_error when there is none to start.
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
