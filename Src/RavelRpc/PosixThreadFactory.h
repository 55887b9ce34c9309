#ifndef RAVELRPC_POSIXTHREADFACTORY_H
#define RAVELRPC_POSIXTHREADFACTORY_H

#include <pthread.h>
#include <thrift/concurrency/Thread.h>
#include <thrift/concurrency/ThreadFactory.h>

#include <memory>

namespace ravel::rpc {

/// Makes detached POSIX threads with a given stack size. Thrift's own factory makes std::threads, each with
/// the 8 MiB that the process has as its default.
///
/// Locks: none. Threads: any; the settings do not change after the construction.
class PosixThreadFactory : public apache::thrift::concurrency::ThreadFactory {
 public:
  enum POLICY { OTHER, FIFO, ROUND_ROBIN };

  /// Steps in the policy's range of priorities. INCREMENT and DECREMENT are not supported.
  enum PRIORITY { LOWEST, LOWER, LOW, NORMAL, HIGH, HIGHER, HIGHEST, INCREMENT, DECREMENT };

  /// Takes the settings of all threads that it will make. Throws std::invalid_argument for `detached` = false
  /// (joinable threads are not supported), a stack of less than 1 MiB, INCREMENT and DECREMENT.
  explicit PosixThreadFactory(POLICY policy = ROUND_ROBIN, PRIORITY priority = NORMAL,
                              int stackSizeMegabytes = 1, bool detached = true);

  /// A thread that runs `runnable` once it is started. Throws std::invalid_argument after setDetached(false).
  /// While the thread runs, it keeps itself and the runnable alive.
  ///
  /// start() makes the thread and does not wait for it. A second start() does nothing. If the thread cannot
  /// be made, start() throws SystemResourceException with the system's reason and may be called again. join()
  /// returns at once. getId() is always empty. An exception that leaves the runnable is reported on Thrift's
  /// output and ends the process, as in any thread.
  std::shared_ptr<apache::thrift::concurrency::Thread> newThread(
      std::shared_ptr<apache::thrift::concurrency::Runnable> runnable) const override;

  /// Writes the settings into `attributes`, which the caller has initialised: detached, stack size, policy
  /// and priority. Policy and priority take effect only if the caller also sets PTHREAD_EXPLICIT_SCHED, which
  /// needs privileges. Otherwise a thread inherits those of its creator. Throws SystemResourceException.
  void apply(pthread_attr_t& attributes) const;

 private:
  POLICY policy_;
  PRIORITY priority_;
  int stackSizeMegabytes_;
};

}  // namespace ravel::rpc

#endif  // RAVELRPC_POSIXTHREADFACTORY_H
