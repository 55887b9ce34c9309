#ifndef TESTS_SUPPORT_IDLECROWD_H
#define TESTS_SUPPORT_IDLECROWD_H

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <vector>

#include "FileDescriptor.h"
#include "LocalSocketPath.h"

/// Sets how many descriptors this process, and what it starts, may have, as long as it lives.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(rlim_t count) {
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before_), 0);
    EXPECT_GE(before_.rlim_max, count) << "the test needs a higher limit of descriptors";
    const rlimit limit{count, before_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;
  ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before_); }

 private:
  rlimit before_{};
};

/// Five thousand clients that connect to the daemon and say nothing. For some the kernel has no room: those
/// try once and stay without a connection.
class IdleCrowd {
 public:
  static constexpr std::size_t clientCount = 5000;

  IdleCrowd() {
    const sockaddr_un address = ravel::rpc::localSocketAddress(ravel::rpc::localSocketPath(9020));
    clients_.reserve(clientCount);
    while (clients_.size() < clientCount) {
      clients_.emplace_back(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
      const int client = clients_.back().get();
      if (connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        EXPECT_EQ(errno, EAGAIN) << "client " << clients_.size();
      }
    }
  }

  void leave() { clients_.clear(); }

 private:
  const DescriptorLimit room_{clientCount + 256};
  std::vector<ravel::rpc::FileDescriptor> clients_;
};

#endif  // TESTS_SUPPORT_IDLECROWD_H
