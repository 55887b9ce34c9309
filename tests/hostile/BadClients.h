#ifndef TESTS_HOSTILE_BADCLIENTS_H
#define TESTS_HOSTILE_BADCLIENTS_H

#include <cstddef>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "TUnixSocket.h"

namespace hostiletest {

/// Malicious clients: each connects, sends garbage or too much, and reads no reply.
class BadClients {
 public:
  /// Connects clients of each kind in turn, the first one silent, until `count` are connected.
  void come(std::size_t count);
  /// Closes all connections.
  void leave() { connections_.clear(); }

 private:
  std::string nextMessage();

  // A fixed seed: every run sends the same.
  std::mt19937 random_{1};
  std::size_t next_ = 0;
  std::vector<std::unique_ptr<ravel::rpc::TUnixSocket>> connections_;
};

}  // namespace hostiletest

#endif  // TESTS_HOSTILE_BADCLIENTS_H
