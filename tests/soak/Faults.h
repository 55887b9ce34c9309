#ifndef DOCKHAND_TESTS_SOAK_FAULTS_H
#define DOCKHAND_TESTS_SOAK_FAULTS_H

#include <cstdint>
#include <string>
#include <vector>

namespace soak {

/// Which of the calls of one operation fail, and with which errno. Drawn by chance once; after that a call
/// always has the same answer, so that the system and the model meet the same faults without telling each
/// other.
class Faults {
 public:
  /// No call fails.
  Faults() = default;
  /// By chance: none, a few, all, or all of one name. `operation` is the one that will meet them.
  Faults(std::uint64_t seed, const std::string& operation);

  /// The errno with which a call fails, 0 where it goes through. `call` as FaultyPlatform names it.
  int of(const std::string& call) const;

  /// The errnos that are drawn: each that the judges of mount and mkdir know, one below 40 that they do not,
  /// and one beyond.
  static const std::vector<int>& errors();
  /// The names of the calls that can fail, as FaultyPlatform has them.
  static const std::vector<std::string>& calls();

 private:
  std::uint64_t seed_ = 0;
  /// Of a thousand calls so many fail,
  unsigned perMille_ = 0;
  /// of this name where it is not empty.
  std::string only_;
};

/// The calls of one operation in their order, answered by its faults.
struct Calls {
  Faults faults;
  std::vector<std::string> made;

  /// Notes a call, and says with which errno it fails.
  int fail(const std::string& call) {
    made.push_back(call);
    return faults.of(call);
  }
};

}  // namespace soak

#endif  // DOCKHAND_TESTS_SOAK_FAULTS_H
