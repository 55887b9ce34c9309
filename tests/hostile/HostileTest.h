#ifndef TESTS_HOSTILE_HOSTILETEST_H
#define TESTS_HOSTILE_HOSTILETEST_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <string>

#include "Daemon.h"
#include "SocketDirectory.h"

namespace hostiletest {

using systest::Daemon;
using systest::UsbClient;

/// A test with a socket directory of its own, in which its daemon and media service meet. It needs no root
/// and no devices: what it sets off is the Xrite device, which has no node.
class HostileTest : public testing::Test {
 protected:
  HostileTest();
  ~HostileTest() override;

  /// A folder that goes with the test.
  const std::filesystem::path& directory() const { return sockets_.path(); }
  /// The path of a service's socket.
  std::string socketOf(int number) const;

 private:
  SocketDirectory sockets_;
};

/// How many descriptors a daemon has open.
std::size_t descriptorsOf(const Daemon& daemon);

/// How many it has without connections: three standard streams, the socket, its lock and its interrupt.
constexpr std::size_t descriptorsAtRest = 6;

/// Waits until the daemon has this many connections, and no more.
void expectConnections(const Daemon& daemon, std::size_t count);

/// What a daemon has resident that is not in a file, in KiB.
std::size_t memoryOf(const Daemon& daemon);

/// The most that it has ever had resident, files included, in KiB.
std::size_t peakMemoryOf(const Daemon& daemon);

/// The daemon still runs, and what it wrote holds no report of a sanitizer.
void expectSound(const Daemon& daemon);

}  // namespace hostiletest

#endif  // TESTS_HOSTILE_HOSTILETEST_H
