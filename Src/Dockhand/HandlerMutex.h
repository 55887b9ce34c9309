#ifndef DOCKHAND_HANDLERMUTEX_H
#define DOCKHAND_HANDLERMUTEX_H

#include <atomic>
#include <boost/thread/lock_types.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <cassert>
#include <thread>

#include "ThreadSafety.h"

namespace Dockhand {

/// The handler's lock. It is recursive, because operations call one another, and it knows its owner.
///
/// Threads: any.
class CAPABILITY("mutex") HandlerMutex : public boost::recursive_mutex {
 public:
  void lock() ACQUIRE() {
    boost::recursive_mutex::lock();
    enter();
  }
  bool try_lock() TRY_ACQUIRE(true) {
    const bool locked = boost::recursive_mutex::try_lock();
    if (locked) {
      enter();
    }
    return locked;
  }
  void unlock() RELEASE() {
    if (--depth_ == 0) {
      owner_ = std::thread::id();
    }
    boost::recursive_mutex::unlock();
  }

  /// Aborts a debug build if the calling thread does not hold the lock.
  void requireLock() const ASSERT_CAPABILITY(this) { assert(owner_.load() == std::this_thread::get_id()); }

 private:
  void enter() {
    owner_ = std::this_thread::get_id();
    ++depth_;
  }

  std::atomic<std::thread::id> owner_{std::thread::id()};
  /// Recursion depth of the owner.
  int depth_ = 0;
};

/// Holds the handler's lock while it lives.
class SCOPED_CAPABILITY HandlerLock {
 public:
  explicit HandlerLock(HandlerMutex& mutex) ACQUIRE(mutex) : lock_(mutex) {}
  HandlerLock(const HandlerLock&) = delete;
  HandlerLock& operator=(const HandlerLock&) = delete;
  ~HandlerLock() RELEASE() = default;

 private:
  boost::unique_lock<HandlerMutex> lock_;
};

}  // namespace Dockhand

#endif  // DOCKHAND_HANDLERMUTEX_H
