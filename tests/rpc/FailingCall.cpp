#include "FailingCall.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>

namespace transport_test {
namespace {

struct Plan {
  std::mutex mutex;
  std::string call;
  int error = 0;
  bool always = false;
  int letThrough = 0;
  bool happened = false;
};

Plan& plan() {
  static Plan instance;
  return instance;
}

/// The errno that the call must fail with now; 0 if it succeeds.
int errorOf(const char* call) {
  Plan& planned = plan();
  const std::lock_guard<std::mutex> lock(planned.mutex);
  if (planned.call != call || (planned.happened && !planned.always)) {
    return 0;
  }
  if (planned.letThrough > 0) {
    --planned.letThrough;
    return 0;
  }
  planned.happened = true;
  return planned.error;
}

bool fails(const char* call) {
  const int error = errorOf(call);
  if (error != 0) {
    errno = error;
  }
  return error != 0;
}

}  // namespace

FailingCall::FailingCall(const std::string& call, int error, Times times) {
  Plan& planned = plan();
  const std::lock_guard<std::mutex> lock(planned.mutex);
  planned.call = call;
  planned.error = error;
  planned.always = times == always;
  planned.letThrough = 0;
  planned.happened = false;
}

FailingCall::~FailingCall() {
  Plan& planned = plan();
  const std::lock_guard<std::mutex> lock(planned.mutex);
  planned.call.clear();
}

FailingCall& FailingCall::after(int successes) {
  Plan& planned = plan();
  const std::lock_guard<std::mutex> lock(planned.mutex);
  planned.letThrough = successes;
  return *this;
}

bool FailingCall::happened() const {
  Plan& planned = plan();
  const std::lock_guard<std::mutex> lock(planned.mutex);
  return planned.happened;
}

}  // namespace transport_test

using transport_test::errorOf;
using transport_test::fails;

// On 32-bit processors the calls with a 64-bit time_t have other names. glibc's macro for this does not tell:
// newer versions define it on 64-bit processors too.
#if __SIZEOF_POINTER__ == 4
#define __real_lstat64 __real___lstat64_time64
#define __wrap_lstat64 __wrap___lstat64_time64
#define __real_setsockopt __real___setsockopt64
#define __wrap_setsockopt __wrap___setsockopt64
#endif

// The linker's option --wrap demands these names.
extern "C" {

// Defines the call that the linker uses instead of the real one.
#define WRAP(Result, name, parameters, arguments)       \
  Result __real_##name parameters;                      \
  Result __wrap_##name parameters {                     \
    return fails(#name) ? -1 : __real_##name arguments; \
  }

// clang-format off
WRAP(int, eventfd, (unsigned int count, int flags), (count, flags))
WRAP(int, chmod, (const char* path, mode_t mode), (path, mode))
WRAP(int, flock, (int descriptor, int operation), (descriptor, operation))
WRAP(int, lstat64, (const char* path, struct stat64* status), (path, status))
WRAP(int, unlink, (const char* path), (path))
WRAP(int, socket, (int domain, int type, int protocol), (domain, type, protocol))
WRAP(int, connect, (int socket, const sockaddr* address, socklen_t size), (socket, address, size))
WRAP(int, bind, (int socket, const sockaddr* address, socklen_t size), (socket, address, size))
WRAP(int, listen, (int socket, int backlog), (socket, backlog))
WRAP(int, accept4, (int socket, sockaddr* address, socklen_t* size, int flags), (socket, address, size, flags))
WRAP(int, poll, (pollfd* descriptors, nfds_t count, int timeout), (descriptors, count, timeout))
WRAP(ssize_t, write, (int descriptor, const void* bytes, size_t size), (descriptor, bytes, size))
WRAP(int, setsockopt, (int socket, int level, int option, const void* value, socklen_t size),
     (socket, level, option, value, size))
// clang-format on

int __real_pthread_attr_setstacksize(pthread_attr_t* attributes, size_t size);
int __wrap_pthread_attr_setstacksize(pthread_attr_t* attributes, size_t size) {
  const int error = errorOf("pthread_attr_setstacksize");
  return error != 0 ? error : __real_pthread_attr_setstacksize(attributes, size);
}

}  // extern "C"
