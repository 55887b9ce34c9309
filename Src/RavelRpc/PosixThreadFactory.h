#ifndef RAVELRPC_POSIXTHREADFACTORY_H
#define RAVELRPC_POSIXTHREADFACTORY_H

#include <pthread.h>
#include <thrift/concurrency/Thread.h>
#include <thrift/concurrency/ThreadFactory.h>

#include <memory>

namespace ravel::rpc {

/// Makes detached POSIX threads with a stack size of one's own; std::thread, and with it Thrift's own
/// factory, gives every thread the 8 MiB of the process.
///
/// Threads: every operation may be called from any thread; the settings do not change after the construction.
/// No locks.
class PosixThreadFactory : public apache::thrift::concurrency::ThreadFactory {
 public:
  enum POLICY { OTHER, FIFO, ROUND_ROBIN };

  /// Steps of the range of priorities that the policy has. INCREMENT and DECREMENT are not supported.
  enum PRIORITY { LOWEST, LOWER, LOW, NORMAL, HIGH, HIGHER, HIGHEST, INCREMENT, DECREMENT };

  /// The settings of the threads to come. Throws std::invalid_argument for `detached` = false (joinable
  /// threads are not supported), a stack of less than 1 MiB, INCREMENT and DECREMENT.
  explicit PosixThreadFactory(POLICY policy = ROUND_ROBIN, PRIORITY priority = NORMAL,
                              int stackSizeMegabytes = 1, bool detached = true);

  /// A thread that will run `runnable` once it is started. The thread keeps the runnable, and itself, alive
  /// as long as it runs.
  ///
  /// Its start() makes the thread and returns without waiting for it; a second start() does nothing. It
  /// throws SystemResourceException with the system's reason when the thread cannot be made, and may then be
  /// tried again. join() returns at once, getId() is always the empty one. An exception that leaves the
  /// runnable is reported on Thrift's GlobalOutput and ends the process, as with any thread.
  ///
  /// Throws std::invalid_argument after setDetached(false).
  std::shared_ptr<apache::thrift::concurrency::Thread> newThread(
      std::shared_ptr<apache::thrift::concurrency::Runnable> runnable) const override;

  /// Writes the settings into `attributes`, which the caller has initialised: detached, stack size, policy
  /// and priority. Policy and priority are not forced: unless the caller also sets PTHREAD_EXPLICIT_SCHED,
  /// which takes privileges, a thread inherits those of the one that makes it. Throws
  /// SystemResourceException.
  void apply(pthread_attr_t& attributes) const;

 private:
  POLICY policy_;
  PRIORITY priority_;
  int stackSizeMegabytes_;
};

}  // namespace ravel::rpc

#endif  // RAVELRPC_POSIXTHREADFACTORY_H
