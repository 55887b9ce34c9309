#ifndef DOCKHAND_TESTS_SOAK_SOAK_H
#define DOCKHAND_TESTS_SOAK_SOAK_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "CheckedHandler.h"
#include "Machine.h"
#include "MediaService.h"
#include "World.h"

namespace soak {

/// The resources of the process at rest.
struct Figures {
  std::size_t residentKiB = 0;
  std::size_t heapBytes = 0;  ///< allocated by malloc and not freed
  std::size_t descriptors = 0;
};

struct Settings {
  /// DOCKHAND_SOAK_ROUNDS, or the default.
  std::size_t rounds = 0;
  /// DOCKHAND_SOAK_SEED, or a new seed each time.
  std::uint64_t seed = 0;
};

/// Reads the environment.
Settings settingsFor(std::size_t defaultRounds);

/// Several concurrent clients of a service with a checked handler. The service's threads never end, so a
/// process has one such object and never destroys it.
class Soak {
 public:
  /// `sticksOfClients` has the sticks of each client. `world` must live as long as the process.
  Soak(World& world, std::vector<std::vector<Stick>> sticksOfClients, const Settings& settings);

  /// Runs all rounds once, in ten laps after a warm-up lap. Each lap ends with a clean-up and a comparison.
  void run();

  /// Figures after the warm-up, in the middle and at the end.
  const Figures& start() const { return start_; }
  const Figures& middle() const { return middle_; }
  const Figures& end() const { return end_; }
  /// The growth of memory from the middle to the end, as text; empty if it is within the slack.
  std::string growth() const;
  /// What was left after the clean-ups, as text; empty is right.
  const std::string& leftAtRest() const { return leftAtRest_; }
  const Settings& settings() const { return settings_; }
  CheckedHandler& handler() { return *handler_; }
  /// Prints the figures to standard output.
  void print();

 private:
  void lap(std::size_t number);
  /// Ends the faults, pulls out all sticks, and cleans up after the faults as a service would.
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
