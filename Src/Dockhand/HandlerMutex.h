#ifndef DOCKHAND_HANDLERMUTEX_H
#define DOCKHAND_HANDLERMUTEX_H

#include <boost/thread/lock_types.hpp>
#include <boost/thread/recursive_mutex.hpp>

#include "ThreadSafety.h"

namespace Dockhand {

/// The handler's lock. It is recursive, because operations call one another.
///
/// Threads: any.
class CAPABILITY("mutex") HandlerMutex : public boost::recursive_mutex {
 public:
  void lock() ACQUIRE() { boost::recursive_mutex::lock(); }
  bool try_lock() TRY_ACQUIRE(true) { return boost::recursive_mutex::try_lock(); }
  void unlock() RELEASE() { boost::recursive_mutex::unlock(); }
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
