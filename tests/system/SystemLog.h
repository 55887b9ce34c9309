#ifndef DOCKHAND_TESTS_SYSTEM_SYSTEMLOG_H
#define DOCKHAND_TESTS_SYSTEM_SYSTEMLOG_H

#include <mutex>
#include <string>
#include <thread>

namespace systest {

/// The system log of the private root: receives messages of logger(1) at /dev/log.
class SystemLog {
 public:
  SystemLog();
  SystemLog(const SystemLog&) = delete;
  SystemLog& operator=(const SystemLog&) = delete;
  ~SystemLog();

  /// All messages, one per line. It includes everything from a logger that has ended.
  std::string text();

 private:
  void receive();

  int socket_ = -1;
  int wake_ = -1;
  std::mutex mutex_;
  std::string text_;
  std::thread receiver_;
};

}  // namespace systest

#endif  // DOCKHAND_TESTS_SYSTEM_SYSTEMLOG_H
