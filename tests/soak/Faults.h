#ifndef DOCKHAND_TESTS_SOAK_FAULTS_H
#define DOCKHAND_TESTS_SOAK_FAULTS_H

#include <cstdint>
#include <string>
#include <vector>

namespace soak {

/// Decides which calls of one operation fail, and with which errno. The decision is random, but the same call
/// always has the same result. So the system and the model see the same faults without communication.
class Faults {
 public:
  /// No call fails.
  Faults() = default;
  /// Random faults for `operation`: none, a few, all, or all calls of one name.
  Faults(std::uint64_t seed, const std::string& operation);

  /// The errno of a call; 0 if it succeeds. `call` has FaultyPlatform's form.
  int of(const std::string& call) const;

  /// The possible errnos: all that the judges of mount and mkdir know, one below 40 that they do not know,
  /// and one above.
  static const std::vector<int>& errors();
  /// The names of the calls that can fail, in FaultyPlatform's form.
  static const std::vector<std::string>& calls();

 private:
  std::uint64_t seed_ = 0;
  /// How many of a thousand calls fail.
  unsigned perMille_ = 0;
  /// If not empty, only calls of this name fail.
  std::string only_;
};

/// The calls of one operation in order, with its faults.
struct Calls {
  Faults faults;
  std::vector<std::string> made;

  /// Records a call and returns its errno, or 0.
  int fail(const std::string& call) {
    made.push_back(call);
    return faults.of(call);
  }
};

}  // namespace soak

#endif  // DOCKHAND_TESTS_SOAK_FAULTS_H
