#ifndef RAVELRPC_LOCALSOCKETPATH_H
#define RAVELRPC_LOCALSOCKETPATH_H

#include <sys/un.h>

#include <string>

namespace ravel::rpc {

/// The paths of the services' local sockets. Every service has a number N and listens at N.sock in one
/// directory, /run/ravel. The environment variable RAVEL_SOCKET_DIR, if it is set and not empty, names
/// another directory: for a second instance on the same machine, and for tests. Every call reads it.
///
/// Threads: any, while no thread changes the environment.

/// The directory, without a slash at its end.
std::string localSocketDirectory();

/// The path of the socket of service `number`.
std::string localSocketPath(int number);

/// `path` as the address of a local socket. Throws TTransportException (BAD_ARGS) if it has more than the 107
/// bytes that such an address can hold.
sockaddr_un localSocketAddress(const std::string& path);

}  // namespace ravel::rpc

#endif  // RAVELRPC_LOCALSOCKETPATH_H
