// Starts the program again with an allocator that keeps nothing back for the threads to come, so that memory
// that is in use is memory that somebody holds.

#include <unistd.h>

#include <cstdlib>

namespace {

__attribute__((constructor)) void restartWithPlainAllocator(int /*argc*/, char** argv,
                                                            char** /*environment*/) {
  if (std::getenv("GLIBC_TUNABLES") == nullptr) {
    setenv("GLIBC_TUNABLES", "glibc.malloc.tcache_count=0:glibc.malloc.arena_max=1", 1);
    execv("/proc/self/exe", argv);
  }
}

}  // namespace
