#ifndef RAVELRPC_TUNIXSERVERSOCKET_H
#define RAVELRPC_TUNIXSERVERSOCKET_H

#include <sys/types.h>
#include <sys/un.h>
#include <thrift/transport/TServerTransport.h>

#include <memory>
#include <string>

#include "FileDescriptor.h"

namespace ravel::rpc {

/// The listening end of a service on its local socket (see LocalSocketPath.h).
///
/// Differs from Thrift's TServerSocket in three ways: it listens from its construction on, so that a failure
/// meets the thread that starts the service and not the one that serves it; it never takes a socket over from
/// a process that serves it; and it goes on when the process has run out of descriptors or memory.
///
/// Threads: interrupt() may be called from any thread at any time, everything else from one thread at a time.
/// No locks.
class TUnixServerSocket : public apache::thrift::transport::TServerTransport {
 public:
  /// Listens on the socket of service `number`: clients can connect from now on (128 of them wait at most)
  /// and are served once accept() is called.
  ///
  /// Makes the directory (mode 0755) where it is missing, and the socket with mode 0660, both whatever the
  /// umask is. A socket left behind by a process that has ended is replaced.
  ///
  /// Throws TTransportException, with the path and the system's reason in its text, when another process
  /// serves the socket, when something that is not a socket has the path (it is left alone), or when a step
  /// fails. Then nothing remains but the directory and the lock file N.lock beside the socket, whose lock
  /// (flock) says that the service has its server; the file itself always stays.
  explicit TUnixServerSocket(int number);

  /// Calls close().
  ~TUnixServerSocket() override;

  TUnixServerSocket(const TUnixServerSocket&) = delete;
  TUnixServerSocket& operator=(const TUnixServerSocket&) = delete;

  /// Whether it listens: from the construction to close().
  bool isOpen() const override { return listening_.valid(); }

  /// Does nothing: it listens already.
  void listen() override {}

  /// Ends the accept() under way, and every later one, with TTransportException (INTERRUPTED). Connections
  /// are not interrupted (interruptChildren() does nothing): a pool that stops waits until its clients leave.
  void interrupt() override;

  /// Stops listening, removes the socket and lets go of the lock. Does nothing the second time. Connections
  /// that were accepted live on.
  void close() override;

  /// The listening descriptor, non-blocking; -1 after close().
  int getSocketFD() override { return listening_.get(); }

 protected:
  /// Waits for a connection and returns it as an open TSocket, blocking and without timeouts. While the
  /// process or the system lacks descriptors or memory it goes on waiting, and says so once on Thrift's
  /// GlobalOutput. Throws TTransportException: INTERRUPTED after interrupt(), NOT_OPEN after close(), UNKNOWN
  /// otherwise.
  std::shared_ptr<apache::thrift::transport::TTransport> acceptImpl() override;

 private:
  void makeDirectory() const;
  void takeLock(int number);
  void removeStaleSocket() const;
  void bindAndListen();
  bool waitForConnection() const;
  void waitOutShortage(int error);
  [[noreturn]] void fail(const std::string& what, int error) const;

  const std::string path_;
  const sockaddr_un address_;
  FileDescriptor lock_;
  FileDescriptor listening_;
  // Lives as long as the object, so that interrupt() need not know whether close() was called.
  FileDescriptor interrupt_;
  // Which socket is ours to remove; inode 0 means none.
  dev_t device_ = 0;
  ino_t inode_ = 0;
  bool shortageReported_ = false;
};

}  // namespace ravel::rpc

#endif  // RAVELRPC_TUNIXSERVERSOCKET_H
