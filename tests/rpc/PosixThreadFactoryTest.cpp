#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <thrift/concurrency/Exception.h>
#include <thrift/concurrency/FunctionRunner.h>

#include <climits>
#include <filesystem>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>

#include "DeathTestStyle.h"
#include "PosixThreadFactory.h"

using apache::thrift::concurrency::FunctionRunner;
using apache::thrift::concurrency::Runnable;
using apache::thrift::concurrency::SystemResourceException;
using apache::thrift::concurrency::Thread;

namespace ravel::rpc {
namespace {

std::shared_ptr<Runnable> runnable(const std::function<void()>& function) {
  return std::make_shared<FunctionRunner>(function);
}

/// Runs `look` in a thread of the factory and returns its result.
template <class Result>
Result inThread(const PosixThreadFactory& factory, const std::function<Result()>& look) {
  std::promise<Result> seen;
  factory.newThread(runnable([&seen, &look] { seen.set_value(look()); }))->start();
  return seen.get_future().get();
}

class Attributes {
 public:
  Attributes() { pthread_attr_init(&value); }
  ~Attributes() { pthread_attr_destroy(&value); }
  Attributes(const Attributes&) = delete;
  Attributes& operator=(const Attributes&) = delete;

  template <typename Value>
  Value get(int (*getter)(const pthread_attr_t*, Value*)) const {
    Value found{};
    EXPECT_EQ(getter(&value, &found), 0);
    return found;
  }
  int detachState() const { return get(pthread_attr_getdetachstate); }
  std::size_t stackSize() const { return get(pthread_attr_getstacksize); }
  std::size_t guardSize() const { return get(pthread_attr_getguardsize); }
  int policy() const { return get(pthread_attr_getschedpolicy); }
  int priority() const { return get(pthread_attr_getschedparam).sched_priority; }
  int inheritance() const { return get(pthread_attr_getinheritsched); }

  pthread_attr_t value{};
};

TEST(PosixThreadFactory, GivesThreadsAStackOfOneMegabyte) {
  Attributes attributes;
  inThread<int>(PosixThreadFactory(), [&attributes] {
    pthread_attr_destroy(&attributes.value);
    return pthread_getattr_np(pthread_self(), &attributes.value);
  });
  const std::size_t megabyte = std::size_t{1024} * 1024;
  // The guard may be within the stack or outside it.
  EXPECT_GE(attributes.stackSize() + attributes.guardSize(), megabyte);
  // glibc may reuse the stack of an earlier thread, of at most four times the size. The default is 8 MiB.
  EXPECT_LE(attributes.stackSize(), 4 * megabyte);
}

TEST(PosixThreadFactory, DetachesThreads) {
  Attributes attributes;
  inThread<int>(PosixThreadFactory(), [&attributes] {
    pthread_attr_destroy(&attributes.value);
    return pthread_getattr_np(pthread_self(), &attributes.value);
  });
  EXPECT_EQ(attributes.detachState(), PTHREAD_CREATE_DETACHED);
}

TEST(PosixThreadFactory, RequestsRoundRobinOfNormalPriorityByDefault) {
  Attributes attributes;
  PosixThreadFactory().apply(attributes.value);
  EXPECT_EQ(attributes.detachState(), PTHREAD_CREATE_DETACHED);
  EXPECT_EQ(attributes.stackSize(), std::size_t{1024} * 1024);
  EXPECT_EQ(attributes.policy(), SCHED_RR);
  EXPECT_EQ(attributes.priority(), 43);  // 3/7 of 1..99
}

TEST(PosixThreadFactory, SpreadsThePrioritiesOverTheRangeOfThePolicy) {
  Attributes attributes;
  PosixThreadFactory(PosixThreadFactory::FIFO, PosixThreadFactory::LOWEST).apply(attributes.value);
  EXPECT_EQ(attributes.policy(), SCHED_FIFO);
  EXPECT_EQ(attributes.priority(), sched_get_priority_min(SCHED_FIFO));
  PosixThreadFactory(PosixThreadFactory::FIFO, PosixThreadFactory::HIGHEST).apply(attributes.value);
  EXPECT_EQ(attributes.priority(), 85);  // 6/7 of 1..99
  PosixThreadFactory(PosixThreadFactory::OTHER, PosixThreadFactory::HIGHEST).apply(attributes.value);
  EXPECT_EQ(attributes.policy(), SCHED_OTHER);
  EXPECT_EQ(attributes.priority(), 0);
}

TEST(PosixThreadFactory, NeedsNoPrivilegesForItsPolicy) {
  Attributes attributes;
  PosixThreadFactory().apply(attributes.value);
  EXPECT_EQ(attributes.inheritance(), PTHREAD_INHERIT_SCHED);
  EXPECT_EQ(inThread<int>(PosixThreadFactory(), [] { return sched_getscheduler(0); }), sched_getscheduler(0));
}

TEST(PosixThreadFactory, StartsAThreadOnce) {
  const auto threads = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                         std::filesystem::directory_iterator());
  };
  std::promise<void> started;
  std::promise<void> finish;
  std::promise<void> finished;
  auto thread = PosixThreadFactory().newThread(runnable([&] {
    started.set_value();
    finish.get_future().wait();
    finished.set_value();
  }));
  EXPECT_EQ(thread->getState(), Thread::uninitialized);
  thread->start();
  started.get_future().wait();
  EXPECT_EQ(thread->getState(), Thread::started);
  const auto before = threads();
  thread->start();
  EXPECT_EQ(threads(), before);
  finish.set_value();
  finished.get_future().wait();
}

TEST(PosixThreadFactory, KeepsARunningThreadAlive) {
  std::promise<void> go;
  std::promise<void> done;
  auto task = runnable([&] {
    go.get_future().wait();
    done.set_value();
  });
  PosixThreadFactory().newThread(task)->start();
  EXPECT_NE(task->thread(), nullptr);
  go.set_value();
  done.get_future().wait();
}

TEST(PosixThreadFactory, DropsAThreadThatWasNeverStarted) {
  auto task = runnable([] {});
  PosixThreadFactory().newThread(task).reset();
  EXPECT_EQ(task->thread(), nullptr);
}

TEST(PosixThreadFactory, ReportsAThreadThatCannotBeMade) {
  const PosixThreadFactory factory(PosixThreadFactory::OTHER, PosixThreadFactory::NORMAL, INT_MAX);
  auto thread = factory.newThread(runnable([] {}));
  for (int attempt = 0; attempt < 2; ++attempt) {
    try {
      thread->start();
      FAIL() << "no exception";
    } catch (const SystemResourceException& error) {
      EXPECT_EQ(std::string(error.what()).rfind("pthread_create: ", 0), 0U) << error.what();
    }
    EXPECT_EQ(thread->getState(), Thread::uninitialized);
  }
}

TEST(PosixThreadFactory, RefusesWhatItDoesNotSupport) {
  using Factory = PosixThreadFactory;
  EXPECT_THROW(Factory(Factory::ROUND_ROBIN, Factory::NORMAL, 1, false), std::invalid_argument);
  EXPECT_THROW(Factory(Factory::ROUND_ROBIN, Factory::NORMAL, 0), std::invalid_argument);
  EXPECT_THROW(Factory(Factory::ROUND_ROBIN, Factory::INCREMENT), std::invalid_argument);
  EXPECT_THROW(Factory(Factory::ROUND_ROBIN, Factory::DECREMENT), std::invalid_argument);
  Factory factory;
  factory.setDetached(false);
  EXPECT_THROW(factory.newThread(runnable([] {})), std::invalid_argument);
}

TEST(PosixThreadFactoryDeathTest, EndsTheProcessWithAReportWhenAnExceptionLeavesAThread) {
  useStyleForThreads();
  EXPECT_DEATH(
      {
        PosixThreadFactory().newThread(runnable([] { throw std::runtime_error("out of luck"); }))->start();
        std::promise<void>().get_future().wait();
      },
      "An exception in a thread ends the process: out of luck");
}

TEST(PosixThreadFactoryDeathTest, EndsTheProcessAlsoWhenWhatLeavesAThreadIsNoException) {
  useStyleForThreads();
  EXPECT_DEATH(
      {
        PosixThreadFactory().newThread(runnable([] { throw 42; }))->start();
        std::promise<void>().get_future().wait();
      },
      "terminate called after throwing an instance of 'int'");
}

}  // namespace
}  // namespace ravel::rpc
