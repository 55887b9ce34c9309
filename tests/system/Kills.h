#ifndef DOCKHAND_TESTS_SYSTEM_KILLS_H
#define DOCKHAND_TESTS_SYSTEM_KILLS_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "Daemon.h"

namespace systest {

using Duration = std::chrono::duration<double, std::milli>;

/// A call without waiting for its reply. `receive` throws if the connection ends without a reply.
struct Call {
  std::function<void(UsbClient&)> send;
  std::function<bool(UsbClient&)> receive;
};

/// Kills the daemon at random moments of one operation, and collects figures about the kills.
class Kills {
 public:
  /// The number of kills before the reply that the test makes: DOCKHAND_KILLS, or a few.
  static std::size_t wanted();

  /// `operation` is the name in the printed figures.
  explicit Kills(std::string operation);

  /// Makes the call, waits for its reply and records the duration. Returns the reply.
  bool measure(UsbClient& client, const Call& call);
  /// Kills only in these parts of the operation, given in order of time.
  void setParts(std::vector<std::pair<Duration, Duration>> parts) { parts_ = std::move(parts); }

  /// Makes the call and kills the daemon at a new random moment of the operation. The daemon's tools are
  /// ended too, as with a service manager, or run on, as without one.
  void kill(Daemon& daemon, UsbClient& client, const Call& call);

  /// The number of kills before the operation's reply.
  std::size_t before() const { return kills_ - answered_; }

  /// Waits until the killed daemon's tools have ended.
  void waitForTools() const;

  /// Starts a daemon and records the time to its first reply.
  void start(std::optional<Daemon>& daemon, const Environment& environment);

  /// The source of all randomness in a test.
  std::mt19937_64& random() { return random_; }
  /// Describes the last kill, for a failure message.
  std::string description() const;
  void print() const;

 private:
  Duration drawMoment();
  void noteWhatIsLeft(const Daemon& daemon);

  std::string operation_;
  unsigned long seed_;
  std::mt19937_64 random_;
  std::vector<Duration> measured_;
  std::vector<std::pair<Duration, Duration>> parts_;

  Duration moment_{};
  pid_t killed_ = 0;
  bool toolsRunOn_ = false;

  std::size_t kills_ = 0;
  std::size_t answered_ = 0;
  /// The number of kills by the last log line of the daemon.
  std::map<std::string, std::size_t> places_;
  std::size_t mountsLeft_ = 0;
  std::size_t directoriesLeft_ = 0;
  std::size_t toolsEnded_ = 0;
  std::size_t toolsLeftRunning_ = 0;
  std::vector<Duration> firstStarts_;
  std::vector<Duration> restarts_;
};

}  // namespace systest

#endif  // DOCKHAND_TESTS_SYSTEM_KILLS_H
