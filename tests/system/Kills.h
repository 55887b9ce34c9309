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

/// A call whose answer is not waited for. `receive` throws when the connection has ended without one.
struct Call {
  std::function<void(UsbClient&)> send;
  std::function<bool(UsbClient&)> receive;
};

/// Kills of the daemon at random moments of one operation, and what is to be told of them.
class Kills {
 public:
  /// So many kills before the answer are wanted: DOCKHAND_KILLS, or a few.
  static std::size_t wanted();

  /// `operation` is the name in what is printed.
  explicit Kills(std::string operation);

  /// Makes the call, waits for its answer and takes note of how long that took; the answer.
  bool measure(UsbClient& client, const Call& call);
  /// Moments are drawn from these parts of the operation only, of which the first one is the earliest.
  void setParts(std::vector<std::pair<Duration, Duration>> parts) { parts_ = std::move(parts); }

  /// Makes the call and kills the daemon at a moment of the operation that is drawn anew. The daemon's tools
  /// are ended too, as a service manager does it, or run on, as they do without one.
  void kill(Daemon& daemon, UsbClient& client, const Call& call);

  /// How many kills were before the operation's answer.
  std::size_t before() const { return kills_ - answered_; }

  /// Returns once the killed daemon's tools have ended.
  void waitForTools() const;

  /// Starts a daemon and takes note of how long it took to answer its first call.
  void start(std::optional<Daemon>& daemon, const Environment& environment);

  /// What is drawn by chance in a test comes from here.
  std::mt19937_64& random() { return random_; }
  /// The last kill, for the message of a failure.
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
  /// By the last line that the daemon wrote.
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
