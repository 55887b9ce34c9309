// Restarts the program with an allocator that keeps no memory for later threads, so that all memory in use
// has an owner.

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
