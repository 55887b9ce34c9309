#ifndef TESTS_HOSTILE_BADCLIENTS_H
#define TESTS_HOSTILE_BADCLIENTS_H

#include <cstddef>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "TUnixSocket.h"

namespace hostiletest {

/// Clients that mean no good: each connects, sends something that is no call, or more than it should, and
/// reads no answer.
class BadClients {
 public:
  /// One more of each way, over and over, the first one silent, until `count` of them are connected.
  void come(std::size_t count);
  /// All of them close their connections.
  void leave() { connections_.clear(); }

 private:
  std::string nextMessage();

  // Every run sends the same.
  std::mt19937 random_{1};
  std::size_t next_ = 0;
  std::vector<std::unique_ptr<ravel::rpc::TUnixSocket>> connections_;
};

}  // namespace hostiletest

#endif  // TESTS_HOSTILE_BADCLIENTS_H
