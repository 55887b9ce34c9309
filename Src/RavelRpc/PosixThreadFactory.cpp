#include "PosixThreadFactory.h"

#include <sched.h>
#include <thrift/concurrency/Exception.h>

#include <atomic>
#include <cstddef>
#include <exception>
#include <stdexcept>
#include <string>
#include <utility>

#include "ThriftOutput.h"

using apache::thrift::TOutput;
using apache::thrift::concurrency::Runnable;
using apache::thrift::concurrency::SystemResourceException;
using apache::thrift::concurrency::Thread;

namespace ravel::rpc {
namespace {

void check(const char* call, int error) {
  if (error != 0) {
    throw SystemResourceException(std::string(call) + ": " + TOutput::strerror_s(error));
  }
}

int schedulerPolicy(PosixThreadFactory::POLICY policy) {
  switch (policy) {
    case PosixThreadFactory::FIFO:
      return SCHED_FIFO;
    case PosixThreadFactory::ROUND_ROBIN:
      return SCHED_RR;
    case PosixThreadFactory::OTHER:
      break;
  }
  return SCHED_OTHER;
}

int schedulerPriority(PosixThreadFactory::POLICY policy, PosixThreadFactory::PRIORITY priority) {
  const int minPriority = sched_get_priority_min(schedulerPolicy(policy));
  const int maxPriority = sched_get_priority_max(schedulerPolicy(policy));
  const int stepCount = PosixThreadFactory::HIGHEST - PosixThreadFactory::LOWEST + 1;
  return minPriority + (maxPriority - minPriority) * priority / stepCount;
}

class ThreadAttributes {
 public:
  explicit ThreadAttributes(const PosixThreadFactory& settings) {
    check("pthread_attr_init", pthread_attr_init(&attributes_));
    try {
      settings.apply(attributes_);
    } catch (...) {
      pthread_attr_destroy(&attributes_);
      throw;
    }
  }
  ~ThreadAttributes() { pthread_attr_destroy(&attributes_); }
  ThreadAttributes(const ThreadAttributes&) = delete;
  ThreadAttributes& operator=(const ThreadAttributes&) = delete;

  const pthread_attr_t* get() const { return &attributes_; }

 private:
  pthread_attr_t attributes_{};
};

class PosixThread : public Thread {
 public:
  // The base class always gets "detached". Otherwise its destructor joins a std::thread, which it does not
  // have.
  PosixThread(PosixThreadFactory settings, std::shared_ptr<Runnable> runnable)
      : Thread(true, std::move(runnable)), settings_(std::move(settings)) {}

  void start() override {
    if (started_.exchange(true)) {
      return;
    }
    setState(starting);
    try {
      const ThreadAttributes attributes(settings_);
      auto self = std::make_unique<std::shared_ptr<Thread>>(shared_from_this());
      pthread_t thread{};
      check("pthread_create", pthread_create(&thread, attributes.get(), threadMain, self.get()));
      static_cast<void>(self.release());
    } catch (...) {
      setState(uninitialized);
      started_ = false;
      throw;
    }
  }

  static void* threadMain(void* argument) {
    const std::unique_ptr<std::shared_ptr<Thread>> self(static_cast<std::shared_ptr<Thread>*>(argument));
    Thread& thread = **self;
    thread.setState(started);
    try {
      thread.runnable()->run();
    } catch (const std::exception& error) {
      thriftOutput().printf("An exception in a thread ends the process: %s", error.what());
      throw;
    }
    thread.setState(stopped);
    return nullptr;
  }

 private:
  const PosixThreadFactory settings_;
  std::atomic<bool> started_{false};
};

}  // namespace

PosixThreadFactory::PosixThreadFactory(POLICY policy, PRIORITY priority, int stackSizeMegabytes,
                                       bool detached)
    : ThreadFactory(detached), policy_(policy), priority_(priority), stackSizeMegabytes_(stackSizeMegabytes) {
  if (!detached) {
    throw std::invalid_argument("PosixThreadFactory makes detached threads only");
  }
  if (stackSizeMegabytes < 1) {
    throw std::invalid_argument("PosixThreadFactory: a stack needs at least 1 MiB");
  }
  if (priority > HIGHEST) {
    throw std::invalid_argument("PosixThreadFactory: INCREMENT and DECREMENT are not supported");
  }
}

std::shared_ptr<Thread> PosixThreadFactory::newThread(std::shared_ptr<Runnable> runnable) const {
  if (!isDetached()) {
    throw std::invalid_argument("PosixThreadFactory makes detached threads only");
  }
  auto thread = std::make_shared<PosixThread>(*this, runnable);
  runnable->thread(thread);
  return thread;
}

void PosixThreadFactory::apply(pthread_attr_t& attributes) const {
  check("pthread_attr_setdetachstate", pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED));
  check("pthread_attr_setstacksize",
        pthread_attr_setstacksize(&attributes, static_cast<std::size_t>(stackSizeMegabytes_) * 1024 * 1024));
  check("pthread_attr_setschedpolicy", pthread_attr_setschedpolicy(&attributes, schedulerPolicy(policy_)));
  sched_param parameters{};
  parameters.sched_priority = schedulerPriority(policy_, priority_);
  check("pthread_attr_setschedparam", pthread_attr_setschedparam(&attributes, &parameters));
}

}  // namespace ravel::rpc
