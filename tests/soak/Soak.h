#ifndef DOCKHAND_TESTS_SOAK_SOAK_H
#define DOCKHAND_TESTS_SOAK_SOAK_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "CheckedHandler.h"
#include "MediaService.h"
#include "World.h"

namespace soak {

/// What the process has, at rest.
struct Figures {
  std::size_t residentKiB = 0;
  std::size_t heapBytes = 0;  ///< in use, of what malloc has handed out
  std::size_t descriptors = 0;
};

struct Settings {
  /// DOCKHAND_SOAK_ROUNDS, or this many.
  std::size_t rounds = 0;
  /// DOCKHAND_SOAK_SEED, or a new one each time.
  std::uint64_t seed = 0;
};

/// Reads the environment.
Settings settingsFor(std::size_t defaultRounds);

/// Several clients at once over the service with a checked handler. The service's threads never end, so there
/// is one such object in a process, and it is never destroyed.
class Soak {
 public:
  /// `sticksOfClients` says who has which sticks. `world` must live as long as the process.
  Soak(World& world, std::vector<std::vector<Stick>> sticksOfClients, const Settings& settings);

  /// All rounds, once, in ten laps, after one more to warm up. After each lap everything is brought to rest
  /// and looked at.
  void run();

  /// Figures at the start (after the warm-up), in the middle and at the end.
  const Figures& start() const { return start_; }
  const Figures& middle() const { return middle_; }
  const Figures& end() const { return end_; }
  /// How the memory has grown from the middle to the end, in words; empty: not at all, but for a slack.
  std::string growth() const;
  /// What was left when it should have been nothing, in words.
  const std::string& leftAtRest() const { return leftAtRest_; }
  const Settings& settings() const { return settings_; }
  CheckedHandler& handler() { return *handler_; }
  /// Writes the figures to standard output.
  void print();

 private:
  void lap(std::size_t number);
  /// Ends the faults, pulls out everything and clears what the faults have left, as a service would.
  void bringToRest(std::size_t lapNumber);
  void clearPlaces();
  void compareCallbacks();
  Figures measure() const;

  World& world_;
  const std::vector<std::vector<Stick>> sticksOfClients_;
  const Settings settings_;
  FaultyPlatform platform_;
  std::shared_ptr<CheckedHandler> handler_;
  std::unique_ptr<testsupport::MediaService> mediaService_;
  Figures start_;
  Figures middle_;
  Figures end_;
  std::string leftAtRest_;
};

}  // namespace soak

#endif  // DOCKHAND_TESTS_SOAK_SOAK_H
