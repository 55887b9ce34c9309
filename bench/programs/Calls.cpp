// Calls that do nothing, on one connection and on several at once.

#include <atomic>
#include <cstddef>
#include <exception>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Bus.h"
#include "Commands.h"
#include "Stub.h"
#include "Wire.h"

namespace bench {

namespace {

using Calls = std::vector<double>;

/// Makes `count` calls from each of several threads at once. `connect` opens the connection of a thread and
/// returns the call to make.
template <typename Connect>
void load(std::size_t connections, std::size_t count, const Connect& connect) {
  std::vector<Calls> calls(connections);
  std::atomic<std::size_t> ready{0};
  std::atomic<bool> go{false};
  std::exception_ptr failure;
  std::mutex failureMutex;
  std::vector<std::thread> threads;
  for (Calls& mine : calls) {
    threads.emplace_back([&mine, &connect, &ready, &go, &failure, &failureMutex, count] {
      try {
        const auto call = connect();
        call();
        ++ready;
        while (!go) {
          std::this_thread::yield();
        }
        mine.reserve(count);
        for (std::size_t i = 0; i < count; ++i) {
          mine.push_back(timed(call));
        }
      } catch (...) {
        ++ready;
        const std::lock_guard<std::mutex> lock(failureMutex);
        failure = std::current_exception();
      }
    });
  }
  while (ready < connections) {
    std::this_thread::yield();
  }
  const double microseconds = timed([&] {
    go = true;
    for (std::thread& thread : threads) {
      thread.join();
    }
  });
  if (failure) {
    std::rethrow_exception(failure);
  }
  Calls all;
  for (const Calls& some : calls) {
    all.insert(all.end(), some.begin(), some.end());
  }
  report("calls_per_second", static_cast<double>(all.size()) / microseconds * 1e6);
  report("p99", quantile(all, 0.99));
}

}  // namespace

void stubCall(const Arguments& arguments) {
  Stub stub;
  reportMedian(sample(number(arguments.at(0)), [&] { stub->IsDeviceOpen(0); }));
}

void rawCall(const Arguments& arguments) {
  const RawConnection connection(arguments.at(0));
  reportMedian(sample(number(arguments.at(1)), [&] { connection.callNothing(); }));
}

void peerPing(const Arguments& arguments) {
  Bus bus;
  reportMedian(sample(number(arguments.at(0)), [&] {
    if (!bus.ping()) {
      throw std::runtime_error("the peer does not run");
    }
  }));
}

void stubLoad(const Arguments& arguments) {
  load(number(arguments.at(0)), number(arguments.at(1)),
       [] { return [stub = std::make_shared<Stub>()] { (*stub)->IsDeviceOpen(0); }; });
}

void rawLoad(const Arguments& arguments) {
  load(number(arguments.at(1)), number(arguments.at(2)), [&arguments] {
    return [connection = std::make_shared<RawConnection>(arguments.at(0))] { connection->callNothing(); };
  });
}

void peerLoad(const Arguments& arguments) {
  load(number(arguments.at(0)), number(arguments.at(1)),
       [] { return [bus = std::make_shared<Bus>()] { bus->ping(); }; });
}

void manyConnections(const Arguments& arguments) {
  // All at once: there are more connections than workers, so most of them wait.
  std::vector<std::unique_ptr<RawConnection>> connections;
  for (std::size_t i = 0; i < number(arguments.at(1)); ++i) {
    connections.push_back(std::make_unique<RawConnection>(arguments.at(0)));
  }
  for (auto& connection : connections) {
    connection->callNothing();
    connection.reset();
  }
  report("connections", static_cast<double>(connections.size()));
}

}  // namespace bench
