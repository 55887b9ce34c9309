// A process that aborts writes no coverage counts. Without this, code that runs only in death tests would
// count as never run.

#include <csignal>

extern "C" {
// This header has no C++ guard of its own.
#include <gcov.h>
}

namespace {

/// abort() ends the process after the handler returns.
void writeCounts(int /*signal*/) {
  __gcov_dump();
}

[[maybe_unused]] const auto installed = std::signal(SIGABRT, writeCounts);

}  // namespace
