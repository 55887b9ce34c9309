#ifndef RAVELRPC_LOCALSOCKETPATH_H
#define RAVELRPC_LOCALSOCKETPATH_H

#include <sys/un.h>

#include <string>

namespace ravel::rpc {

/// Where the local sockets of the services are. Every service has a number N and listens at N.sock in one
/// directory, /run/ravel. The environment variable RAVEL_SOCKET_DIR, where set and not empty, replaces the
/// directory: for a second instance on the same machine and for tests. It is read at every call.
///
/// Threads: any, as long as none changes the environment meanwhile.

/// The directory, without a slash at its end.
std::string localSocketDirectory();

/// The path of the socket of service `number`.
std::string localSocketPath(int number);

/// `path` as the address of a local socket. Throws TTransportException (BAD_ARGS) when it is longer than such
/// an address can hold (107 bytes).
sockaddr_un localSocketAddress(const std::string& path);

}  // namespace ravel::rpc

#endif  // RAVELRPC_LOCALSOCKETPATH_H
