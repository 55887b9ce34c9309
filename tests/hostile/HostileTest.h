#ifndef TESTS_HOSTILE_HOSTILETEST_H
#define TESTS_HOSTILE_HOSTILETEST_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <string>

#include "Daemon.h"
#include "Eventually.h"
#include "MediaService.h"
#include "SocketDirectory.h"
#include "UsbClient.h"

namespace hostiletest {

using systest::Daemon;
using systest::UsbClient;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testsupport::Callback;
using testsupport::eventually;
using testsupport::MediaService;

/// A test with its own socket directory for its daemon and media service. It needs neither root nor devices:
/// its events are those of the Xrite device, which has no node.
class HostileTest : public testing::Test {
 protected:
  HostileTest();
  ~HostileTest() override;

  /// A folder that is removed after the test.
  const std::filesystem::path& directory() const { return sockets_.path(); }
  /// Returns the path of a service's socket.
  std::string socketOf(int number) const;

 private:
  SocketDirectory sockets_;
};

/// Returns the number of a daemon's open descriptors.
std::size_t descriptorsOf(const Daemon& daemon);

/// Without connections it has three standard streams, the socket, its lock and its interrupt.
constexpr std::size_t descriptorsAtRest = 6;

/// Waits until the daemon has exactly this many connections.
void expectConnections(const Daemon& daemon, std::size_t count);

/// Returns a daemon's resident memory that no file backs, in KiB.
std::size_t memoryOf(const Daemon& daemon);

/// Returns its maximum resident memory so far, files included, in KiB.
std::size_t peakMemoryOf(const Daemon& daemon);

/// Expects that the daemon still runs, and that its output has no report of a sanitizer.
void expectSound(const Daemon& daemon);

}  // namespace hostiletest

#endif  // TESTS_HOSTILE_HOSTILETEST_H
