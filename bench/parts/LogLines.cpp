// The cost of a log line: one below the threshold, and one that is written.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "ModuleLog.h"

namespace {

const Dockhand::ModuleLog moduleLog{TlogContext::GetLogContext("Dockhand.bench", "bench/parts/LogLines", 1),
                                    "bench/parts/LogLines"};

/// Discards standard error while this object lives, so that the terminal's speed is not measured.
class SilentStandardError {
 public:
  SilentStandardError() : saved_(dup(STDERR_FILENO)) {
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(nowhere, STDERR_FILENO);
    close(nowhere);
  }
  SilentStandardError(const SilentStandardError&) = delete;
  SilentStandardError& operator=(const SilentStandardError&) = delete;
  ~SilentStandardError() {
    dup2(saved_, STDERR_FILENO);
    close(saved_);
  }

 private:
  int saved_;
};

void writeLines(benchmark::State& state, std::int32_t level) {
  const SilentStandardError silence;
  const std::string name = "sdb";
  int number = 7;
  for (auto _ : state) {
    benchmark::DoNotOptimize(number);
    moduleLog.write(level, 1, "GetDeviceType(", number, ")=", name);
  }
}

void suppressedLogLine(benchmark::State& state) {
  writeLines(state, TlogContext::defaultThreshold - 1);
}

void emittedLogLine(benchmark::State& state) {
  writeLines(state, TlogContext::defaultThreshold);
}

}  // namespace

BENCHMARK(suppressedLogLine);
BENCHMARK(emittedLogLine);
