#ifndef TESTS_SUPPORT_EVENTUALLY_H
#define TESTS_SUPPORT_EVENTUALLY_H

#include <chrono>
#include <functional>
#include <thread>

namespace testsupport {

/// Waits for another thread or process. The limit only ends a test that has failed.
inline bool eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace testsupport

#endif  // TESTS_SUPPORT_EVENTUALLY_H
