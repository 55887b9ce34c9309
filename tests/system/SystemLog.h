#ifndef DOCKHAND_TESTS_SYSTEM_SYSTEMLOG_H
#define DOCKHAND_TESTS_SYSTEM_SYSTEMLOG_H

#include <mutex>
#include <string>
#include <thread>

namespace systest {

/// The system log of the test's world: takes at /dev/log what logger(1) sends.
class SystemLog {
 public:
  SystemLog();
  SystemLog(const SystemLog&) = delete;
  SystemLog& operator=(const SystemLog&) = delete;
  ~SystemLog();

  /// All that has arrived, one message a line. What a logger has sent that has ended is in it.
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
