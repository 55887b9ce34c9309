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

// On 32-bit processors the calls with a 64-bit time_t have other names.
#ifdef __USE_TIME_BITS64
#define __real_lstat64 __real___lstat64_time64
#define __wrap_lstat64 __wrap___lstat64_time64
#define __real_setsockopt __real___setsockopt64
#define __wrap_setsockopt __wrap___setsockopt64
#endif

// The linker's option --wrap demands these names.
extern "C" {

int __real_eventfd(unsigned int count, int flags);
int __wrap_eventfd(unsigned int count, int flags) {
  return fails("eventfd") ? -1 : __real_eventfd(count, flags);
}

int __real_chmod(const char* path, mode_t mode);
int __wrap_chmod(const char* path, mode_t mode) {
  return fails("chmod") ? -1 : __real_chmod(path, mode);
}

int __real_flock(int descriptor, int operation);
int __wrap_flock(int descriptor, int operation) {
  return fails("flock") ? -1 : __real_flock(descriptor, operation);
}

int __real_lstat64(const char* path, struct stat64* status);
int __wrap_lstat64(const char* path, struct stat64* status) {
  return fails("lstat64") ? -1 : __real_lstat64(path, status);
}

int __real_unlink(const char* path);
int __wrap_unlink(const char* path) {
  return fails("unlink") ? -1 : __real_unlink(path);
}

int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol) {
  return fails("socket") ? -1 : __real_socket(domain, type, protocol);
}

int __real_connect(int socket, const sockaddr* address, socklen_t size);
int __wrap_connect(int socket, const sockaddr* address, socklen_t size) {
  return fails("connect") ? -1 : __real_connect(socket, address, size);
}

int __real_bind(int socket, const sockaddr* address, socklen_t size);
int __wrap_bind(int socket, const sockaddr* address, socklen_t size) {
  return fails("bind") ? -1 : __real_bind(socket, address, size);
}

int __real_listen(int socket, int backlog);
int __wrap_listen(int socket, int backlog) {
  return fails("listen") ? -1 : __real_listen(socket, backlog);
}

int __real_accept4(int socket, sockaddr* address, socklen_t* size, int flags);
int __wrap_accept4(int socket, sockaddr* address, socklen_t* size, int flags) {
  return fails("accept4") ? -1 : __real_accept4(socket, address, size, flags);
}

int __real_poll(pollfd* descriptors, nfds_t count, int timeout);
int __wrap_poll(pollfd* descriptors, nfds_t count, int timeout) {
  return fails("poll") ? -1 : __real_poll(descriptors, count, timeout);
}

ssize_t __real_write(int descriptor, const void* bytes, size_t size);
ssize_t __wrap_write(int descriptor, const void* bytes, size_t size) {
  return fails("write") ? -1 : __real_write(descriptor, bytes, size);
}

int __real_setsockopt(int socket, int level, int option, const void* value, socklen_t size);
int __wrap_setsockopt(int socket, int level, int option, const void* value, socklen_t size) {
  return fails("setsockopt") ? -1 : __real_setsockopt(socket, level, option, value, size);
}

int __real_pthread_attr_setstacksize(pthread_attr_t* attributes, size_t size);
int __wrap_pthread_attr_setstacksize(pthread_attr_t* attributes, size_t size) {
  const int error = errorOf("pthread_attr_setstacksize");
  return error != 0 ? error : __real_pthread_attr_setstacksize(attributes, size);
}

}  // extern "C"
