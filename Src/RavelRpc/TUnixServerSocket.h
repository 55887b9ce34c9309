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
/// Differs from Thrift's TServerSocket:
/// - It listens from its construction, so that a failure throws in the thread that starts the service, not in
///   the one that serves it.
/// - It never takes a socket from a process that serves it.
/// - It keeps accepting after the process has run out of descriptors or memory.
/// - Its connections can be ended without a second poll for each of their reads.
///
/// Locks: one guards the list of connections; it is held only to go through the list. Threads: any for
/// interrupt() and interruptChildren(), at any time; one at a time for everything else.
class TUnixServerSocket : public apache::thrift::transport::TServerTransport {
 public:
  /// Listens on the socket of service `number`. From now on clients can connect; accept() serves them. The
  /// kernel limits how many wait for that (SOMAXCONN, which is 4096 since Linux 5.4, and the setting
  /// net.core.somaxconn). The connect of the next one waits for room.
  ///
  /// Makes the directory (mode 0755) if it is missing, and the socket with mode 0660, for any umask. Replaces
  /// the socket of a process that has ended. The lock (flock) of the file N.lock beside the socket says that
  /// the service has its server. The file is never removed.
  ///
  /// Throws TTransportException, with the path and the reason in its text, if
  /// - another process serves the socket;
  /// - something that is not a socket has the path (it stays);
  /// - somebody else could put a socket there, because the directory is a link, belongs to neither root nor
  ///   us, or is writable by everybody; or
  /// - a step fails.
  /// Then only the directory and the lock file remain.
  explicit TUnixServerSocket(int number);

  /// Calls close().
  ~TUnixServerSocket() override;

  TUnixServerSocket(const TUnixServerSocket&) = delete;
  TUnixServerSocket& operator=(const TUnixServerSocket&) = delete;

  /// True while it listens, which is from the construction to close().
  bool isOpen() const override { return listening_.valid(); }

  /// Does nothing, because it already listens.
  void listen() override {}

  /// Ends the running accept(), and every later one, with TTransportException (INTERRUPTED). Connections stay
  /// open: see interruptChildren().
  void interrupt() override;

  /// Ends every accepted connection, also those that are accepted later. Clients find them closed, as if the
  /// process had ended, and a read by our threads finds the end of the data. Thrift's servers call it when
  /// they are told to stop, so they do not wait for clients that keep their connections.
  void interruptChildren() override;

  /// Stops listening, removes the socket and releases the lock. Does nothing the second time. Accepted
  /// connections stay open.
  void close() override;

  /// The listening descriptor, non-blocking; -1 after close().
  int getSocketFD() override { return listening_.get(); }

 protected:
  /// Waits for a connection and returns it as an open TSocket, blocking and without timeouts. While the
  /// process or the system lacks descriptors or memory, it keeps waiting and reports that once on Thrift's
  /// output. Throws TTransportException: INTERRUPTED after interrupt(), NOT_OPEN after close(), UNKNOWN
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
  // close() does not close it, so interrupt() need not know whether close() was called.
  FileDescriptor interrupt_;
  // The socket that is ours to remove. Inode 0 means none.
  dev_t device_ = 0;
  ino_t inode_ = 0;
  bool shortageReported_ = false;
  std::mutex connectionsMutex_;
  std::vector<std::weak_ptr<Connection>> connections_;
  bool connectionsEnded_ = false;
};

}  // namespace ravel::rpc

#endif  // RAVELRPC_TUNIXSERVERSOCKET_H
