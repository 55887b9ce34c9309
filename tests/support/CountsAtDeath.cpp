// A process that aborts writes no counts, so what a test of its death has run would seem never to have been
// run.

#include <csignal>

extern "C" {
// C++ is not provided for in this header.
#include <gcov.h>
}

namespace {

/// abort() goes on to end the process when the handler returns.
void writeCounts(int /*signal*/) {
  __gcov_dump();
}

[[maybe_unused]] const auto installed = std::signal(SIGABRT, writeCounts);

}  // namespace
