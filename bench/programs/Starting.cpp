// From the start of a process to its first answer.

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Bus.h"
#include "Commands.h"
#include "Wire.h"

namespace bench {

namespace {

/// A process that ends with this object.
class Child {
 public:
  explicit Child(std::vector<std::string> words) {
    std::vector<char*> pointers;
    for (std::string& word : words) {
      pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    pid_ = vfork();
    if (pid_ == 0) {
      // Nothing is left behind where this program is killed.
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      execv(pointers[0], pointers.data());
      _exit(127);
    }
    if (pid_ < 0) {
      throw std::runtime_error(errorText("vfork"));
    }
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }

  pid_t pid() const { return pid_; }
  bool hasEnded() const { return waitpid(pid_, nullptr, WNOHANG) == pid_; }

 private:
  pid_t pid_ = -1;
};

/// Starts a program, asks until it answers, and ends it.
void start(const Arguments& words, const std::function<bool()>& answers) {
  constexpr std::chrono::seconds patience{20};
  constexpr int pauseMicroseconds = 50;
  const auto begin = std::chrono::steady_clock::now();
  const Child child(words);
  while (!answers()) {
    if (child.hasEnded() || std::chrono::steady_clock::now() - begin > patience) {
      throw std::runtime_error(words.at(0) + " does not answer");
    }
    usleep(pauseMicroseconds);
  }
  const std::chrono::duration<double, std::micro> passed = std::chrono::steady_clock::now() - begin;
  report("microseconds", passed.count());
}

bool answersCalls(const std::string& socket) {
  try {
    RawConnection(socket).callNothing();
    return true;
  } catch (const std::runtime_error&) {
    return false;
  }
}

Arguments behindFirst(const Arguments& arguments) {
  return {arguments.begin() + 1, arguments.end()};
}

}  // namespace

void startOnSocket(const Arguments& arguments) {
  start(behindFirst(arguments), [&] { return answersCalls(arguments.at(0)); });
}

void startPeer(const Arguments& arguments) {
  Bus bus;
  start(arguments, [&] { return bus.ping(); });
}

}  // namespace bench
