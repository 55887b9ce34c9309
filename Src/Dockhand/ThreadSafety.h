#ifndef DOCKHAND_THREADSAFETY_H
#define DOCKHAND_THREADSAFETY_H

// Annotations of locks, which clang checks with -Wthread-safety. Other compilers ignore them.

#ifdef __clang__
#define DOCKHAND_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define DOCKHAND_THREAD_SAFETY(attribute)
#endif

/// On a class: its objects are locks.
#define CAPABILITY(name) DOCKHAND_THREAD_SAFETY(capability(name))
/// On a class: an object holds a lock while it lives.
#define SCOPED_CAPABILITY DOCKHAND_THREAD_SAFETY(scoped_lockable)
/// On a member: may be used only while the lock is held.
#define GUARDED_BY(lock) DOCKHAND_THREAD_SAFETY(guarded_by(lock))
/// On a function: the caller holds the lock.
#define REQUIRES(...) DOCKHAND_THREAD_SAFETY(requires_capability(__VA_ARGS__))
/// On a function: the caller does not hold the lock.
#define EXCLUDES(...) DOCKHAND_THREAD_SAFETY(locks_excluded(__VA_ARGS__))
/// On a function: takes the lock, and the caller holds it from then on.
#define ACQUIRE(...) DOCKHAND_THREAD_SAFETY(acquire_capability(__VA_ARGS__))
/// The same, if the function returns `result`.
#define TRY_ACQUIRE(result) DOCKHAND_THREAD_SAFETY(try_acquire_capability(result))
/// On a function: releases the lock.
#define RELEASE(...) DOCKHAND_THREAD_SAFETY(release_capability(__VA_ARGS__))

#endif  // DOCKHAND_THREADSAFETY_H
