// bench_daemon SOCKET: the smallest possible daemon. One thread accepts connections. Ten threads serve them,
// one connection at a time each. Every call gets the same reply.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <queue>
#include <string>
#include <thread>
#include <vector>

#include "Wire.h"

namespace {

class Connections {
 public:
  void add(int connection) {
    const std::lock_guard<std::mutex> lock(mutex_);
    waiting_.push(connection);
    added_.notify_one();
  }

  int take() {
    std::unique_lock<std::mutex> lock(mutex_);
    added_.wait(lock, [this] { return !waiting_.empty(); });
    const int connection = waiting_.front();
    waiting_.pop();
    return connection;
  }

 private:
  std::mutex mutex_;
  std::condition_variable added_;
  std::queue<int> waiting_;
};

void serve(int connection) {
  std::string call(bench::callBytes.size(), '\0');
  while (recv(connection, call.data(), call.size(), MSG_WAITALL) == static_cast<ssize_t>(call.size())) {
    if (send(connection, bench::answerBytes.data(), bench::answerBytes.size(), MSG_NOSIGNAL) < 0) {
      break;
    }
  }
  close(connection);
}

}  // namespace

int main(int argc, char** argv) {
  constexpr int workers = 10;
  constexpr int backlog = 128;
  if (argc != 2) {
    std::fprintf(stderr, "usage: bench_daemon SOCKET\n");
    return 2;
  }
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::string(argv[1]).copy(address.sun_path, sizeof(address.sun_path) - 1);
  unlink(argv[1]);
  const int listening = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (bind(listening, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      listen(listening, backlog) != 0) {
    std::perror(argv[1]);
    return 1;
  }
  Connections connections;
  std::vector<std::thread> threads;
  for (int i = 0; i < workers; ++i) {
    threads.emplace_back([&connections] {
      while (true) {
        serve(connections.take());
      }
    });
  }
  while (true) {
    connections.add(accept4(listening, nullptr, nullptr, SOCK_CLOEXEC));
  }
}
