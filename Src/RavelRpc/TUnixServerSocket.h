#ifndef RAVELRPC_TUNIXSERVERSOCKET_H
#define RAVELRPC_TUNIXSERVERSOCKET_H

#include <sys/types.h>
#include <sys/un.h>
#include <thrift/transport/TServerTransport.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "FileDescriptor.h"

namespace ravel::rpc {

/// The listening end of a service on its local socket (see LocalSocketPath.h).
///
/// Differs from Thrift's TServerSocket in these ways: it listens from its construction on, so that a failure
/// meets the thread that starts the service and not the one that serves it; it never takes a socket over from
/// a process that serves it; it goes on when the process has run out of descriptors or memory; and its
/// connections can be ended without a second poll for each of their reads.
///
/// Threads: interrupt() and interruptChildren() may be called from any thread at any time, everything else
/// from one thread at a time. A lock guards the list of connections; it is held for no longer than it takes
/// to go through them.
class TUnixServerSocket : public apache::thrift::transport::TServerTransport {
 public:
  /// Listens on the socket of service `number`: clients can connect from now on and are served once accept()
  /// is called. As many wait for that as the kernel allows (SOMAXCONN, which is 4096 since Linux 5.4, and the
  /// setting net.core.somaxconn); the connect of the next one waits for room.
  ///
  /// Makes the directory (mode 0755) where it is missing, and the socket with mode 0660, both whatever the
  /// umask is. A socket left behind by a process that has ended is replaced.
  ///
  /// Throws TTransportException, with the path and the reason in its text, when another process serves the
  /// socket, when something that is not a socket has the path (it is left alone), when somebody else could
  /// put a socket of his own there (the directory is a link, belongs to neither root nor us, or may be
  /// written to by everybody), or when a step fails. Then nothing remains but the directory and the lock file
  /// N.lock beside the socket, whose lock (flock) says that the service has its server; the file itself
  /// always stays.
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
  /// live on: see interruptChildren().
  void interrupt() override;

  /// Ends every connection that was accepted, and those that still will be: their clients find them closed,
  /// as if the process had ended, and whoever reads from them meets the end of the data. Thrift's servers
  /// call it when they are told to stop, and so do not wait for clients that keep their connections.
  void interruptChildren() override;

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
  class Connection;

  void makeDirectory() const;
  void requireTrustedDirectory() const;
  void takeLock(int number);
  void removeStaleSocket() const;
  void bindAndListen();
  void keep(const std::shared_ptr<Connection>& connection);
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
  std::mutex connectionsMutex_;
  std::vector<std::weak_ptr<Connection>> connections_;
  bool connectionsEnded_ = false;
};

}  // namespace ravel::rpc

#endif  // RAVELRPC_TUNIXSERVERSOCKET_H
