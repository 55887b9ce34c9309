// Clients that send garbage, half a message, huge lengths, or nothing, and leave.

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <functional>
#include <string>
#include <thread>

#include "BadClients.h"
#include "Emulator.h"
#include "HostileTest.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define DOCKHAND_TEST_SANITIZED
#endif

namespace hostiletest {
namespace {

constexpr std::size_t atOnce = 200;
#ifdef DOCKHAND_TEST_SANITIZED
constexpr std::size_t connections = 600;
#else
constexpr std::size_t connections = 5000;
#endif

/// A client that makes one call after the other in its own thread.
class GoodClient {
 public:
  /// `call` makes one call, and throws if no reply comes.
  explicit GoodClient(std::function<void()> call)
      : thread_([this, call = std::move(call)] {
          try {
            while (!stopped_) {
              call();
              ++answers_;
            }
          } catch (const std::exception& error) {
            ADD_FAILURE() << "a good client was not answered: " << error.what();
          }
        }) {}
  GoodClient(const GoodClient&) = delete;
  GoodClient& operator=(const GoodClient&) = delete;
  ~GoodClient() {
    stopped_ = true;
    thread_.join();
  }

  /// Waits for the reply to a call that begins after now.
  void expectAnswer() const {
    // The first reply may belong to a call that began earlier.
    const std::size_t enough = answers_ + 2;
    EXPECT_TRUE(eventually([this, enough] { return answers_ >= enough; }));
  }

 private:
  std::atomic<bool> stopped_{false};
  std::atomic<std::size_t> answers_{0};
  std::thread thread_;
};

class HostileClientsTest : public HostileTest {
 protected:
  /// Connects `count` bad clients, 200 at a time. For each 200, calls `whileTheyAreThere`, and `afterwards`
  /// once the daemon has dropped them: it then has at most `goodConnections`.
  void letBadClientsCome(
      const Daemon& daemon, std::size_t count, std::size_t goodConnections,
      const std::function<void()>& whileTheyAreThere = [] {},
      const std::function<void()>& afterwards = [] {}) {
    for (std::size_t gone = 0; gone < count; gone += atOnce) {
      badClients_.come(std::min(atOnce, count - gone));
      whileTheyAreThere();
      badClients_.leave();
      // Some may not be accepted until then.
      UsbClient()->IsDeviceOpen(1);
      ASSERT_TRUE(eventually([&] { return descriptorsOf(daemon) <= descriptorsAtRest + goodConnections; }))
          << descriptorsOf(daemon) << " descriptors are left";
      afterwards();
    }
  }

 private:
  BadClients badClients_;
};

TEST_F(HostileClientsTest, DoNotDenyGoodClientsTheirReplies) {
  const Daemon daemon;
  {
    UsbClient held;
    held->IsDeviceOpen(1);
    const GoodClient holder([&held] { held->IsDeviceOpen(1); });
    const GoodClient comer([] { UsbClient()->IsDeviceOpen(1); });
    // The held connection and the other client's: the daemon may have the next one before it has closed the
    // last one.
    constexpr std::size_t goodConnections = 3;
    letBadClientsCome(
        daemon, connections, goodConnections,
        // A client with a worker keeps it, whatever the others do.
        [&holder] { holder.expectAnswer(); },
        // A new client waits for those before it, and is served once they have left.
        [&comer] { comer.expectAnswer(); });
  }
  expectConnections(daemon, 0);
  expectSound(daemon);
}

// A sanitizer uses memory of its own.
#ifndef DOCKHAND_TEST_SANITIZED
TEST_F(HostileClientsTest, LeaveNoMemoryAndNoDescriptorsBehind) {
  if (isEmulated()) {
    GTEST_SKIP() << "memory is that of the emulator";
  }
  const Daemon daemon;
  // A daemon that trusts an announced size must not exhaust the machine's memory.
  constexpr rlim_t oneHugeText = 3UL << 30U;
  const rlimit limit{oneHugeText, oneHugeText};
  ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_AS, &limit, nullptr), 0);
  expectConnections(daemon, 0);
  const std::size_t atStart = memoryOf(daemon);
  ASSERT_NO_FATAL_FAILURE(letBadClientsCome(daemon, atOnce, 0));
  // Ten texts of a megabyte, 200 connections and the program itself: far less than the announced sizes.
  constexpr std::size_t peak = 32 * 1024;
  ASSERT_LE(peakMemoryOf(daemon), peak);
  const std::size_t warm = memoryOf(daemon);
  ASSERT_NO_FATAL_FAILURE(letBadClientsCome(daemon, connections, 0));
  const std::size_t atEnd = memoryOf(daemon);
  expectConnections(daemon, 0);
  expectSound(daemon);
  RecordProperty("memory_at_start_KiB", std::to_string(atStart));
  RecordProperty("memory_after_200_KiB", std::to_string(warm));
  RecordProperty("memory_after_5200_KiB", std::to_string(atEnd));
  RecordProperty("peak_KiB", std::to_string(peakMemoryOf(daemon)));

  // malloc may keep up to 512 KiB for later use. A leak of 125 bytes by each of 5000 connections exceeds
  // that.
  constexpr std::size_t slack = 600;
  EXPECT_LE(atEnd, warm + slack);
  // The workers' stacks have grown too. A leak of two texts of a megabyte exceeds that.
  constexpr std::size_t kept = 2048;
  EXPECT_LE(atEnd, atStart + kept);
}
#endif

}  // namespace
}  // namespace hostiletest
