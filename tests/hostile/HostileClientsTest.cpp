// Clients that send rubbish, half a message, huge lengths, or nothing, and leave.

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
#include "TransportTestSupport.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define DOCKHAND_TEST_SANITIZED
#endif

namespace hostiletest {
namespace {

using transport_test::eventually;

constexpr std::size_t atOnce = 200;
#ifdef DOCKHAND_TEST_SANITIZED
constexpr std::size_t connections = 600;
#else
constexpr std::size_t connections = 5000;
#endif

/// A client that makes one call after the other, in a thread of its own.
class GoodClient {
 public:
  /// `call` makes one call and throws when it is not answered.
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

  /// Waits for the answer to a call that was not made before now.
  void expectAnswer() const {
    // The first may be on its way already.
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
  /// Lets bad clients come, 200 at once, until there have been so many of them. `whileTheyAreThere` is called
  /// for each 200, and `afterwards` when the daemon has got rid of them: it then has no more than
  /// `goodConnections`.
  void letBadClientsCome(
      const Daemon& daemon, std::size_t count, std::size_t goodConnections,
      const std::function<void()>& whileTheyAreThere = [] {},
      const std::function<void()>& afterwards = [] {}) {
    for (std::size_t gone = 0; gone < count; gone += atOnce) {
      badClients_.come(std::min(atOnce, count - gone));
      whileTheyAreThere();
      badClients_.leave();
      // Until then some may not even be accepted.
      UsbClient()->IsDeviceOpen(1);
      ASSERT_TRUE(eventually([&] { return descriptorsOf(daemon) <= descriptorsAtRest + goodConnections; }))
          << descriptorsOf(daemon) << " descriptors are left";
      afterwards();
    }
  }

 private:
  BadClients badClients_;
};

TEST_F(HostileClientsTest, DoNotKeepGoodOnesFromTheirAnswers) {
  const Daemon daemon;
  {
    UsbClient held;
    held->IsDeviceOpen(1);
    const GoodClient holder([&held] { held->IsDeviceOpen(1); });
    const GoodClient comer([] { UsbClient()->IsDeviceOpen(1); });
    // The connection that is held and the other client's: the daemon may have one that it has not closed yet
    // besides the next.
    constexpr std::size_t goodConnections = 3;
    letBadClientsCome(
        daemon, connections, goodConnections,
        // Whoever has a worker keeps it, whatever the others do.
        [&holder] { holder.expectAnswer(); },
        // Whoever comes anew waits for those who came before, and is answered once they have left.
        [&comer] { comer.expectAnswer(); });
  }
  expectConnections(daemon, 0);
  expectSound(daemon);
}

// A sanitizer has plans of its own with memory.
#ifndef DOCKHAND_TEST_SANITIZED
TEST_F(HostileClientsTest, LeaveNoMemoryAndNoDescriptorsBehind) {
  if (isEmulated()) {
    GTEST_SKIP() << "memory is that of the emulator";
  }
  const Daemon daemon;
  // A daemon that does believe what it is told is not to take the machine with it.
  constexpr rlim_t oneHugeText = 3UL << 30U;
  const rlimit limit{oneHugeText, oneHugeText};
  ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_AS, &limit, nullptr), 0);
  expectConnections(daemon, 0);
  const std::size_t atStart = memoryOf(daemon);
  ASSERT_NO_FATAL_FAILURE(letBadClientsCome(daemon, atOnce, 0));
  // Ten texts of a megabyte, 200 connections and the program itself; far less than what was announced.
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

  // malloc keeps up to 512 KiB for what comes next, as it happens. 5000 connections that leave 125 bytes each
  // do not fit in.
  constexpr std::size_t slack = 600;
  EXPECT_LE(atEnd, warm + slack);
  // With what the workers' stacks have grown to. Two texts of a megabyte would not fit in.
  constexpr std::size_t kept = 2048;
  EXPECT_LE(atEnd, atStart + kept);
}
#endif

}  // namespace
}  // namespace hostiletest
