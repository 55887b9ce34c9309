// The time from the start of a process to its first reply.

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
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
      // The child must not outlive this program, even if that is killed.
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

/// Microseconds from the start of a program to its first reply; then ends the program.
double start(const Arguments& words, const std::function<bool()>& answers) {
  constexpr std::chrono::seconds timeout{20};
  constexpr int pauseMicroseconds = 50;
  const auto begin = std::chrono::steady_clock::now();
  const Child child(words);
  while (!answers()) {
    if (child.hasEnded() || std::chrono::steady_clock::now() - begin > timeout) {
      throw std::runtime_error(words.at(0) + " does not reply");
    }
    usleep(pauseMicroseconds);
  }
  const std::chrono::duration<double, std::micro> passed = std::chrono::steady_clock::now() - begin;
  return passed.count();
}

/// Reports the shortest of several starts, because other work of the machine makes the others longer.
void reportStarts(const std::string& count, const std::function<double()>& startOnce) {
  std::vector<double> starts;
  for (std::size_t i = 0; i < number(count); ++i) {
    starts.push_back(startOnce());
  }
  report("microseconds", quantile(starts, 0));
}

bool answersCalls(const std::string& socket) {
  try {
    RawConnection(socket).callNothing();
    return true;
  } catch (const std::runtime_error&) {
    return false;
  }
}

}  // namespace

void startOnSocket(const Arguments& arguments) {
  const Arguments words(arguments.begin() + 2, arguments.end());
  reportStarts(arguments.at(0), [&] { return start(words, [&] { return answersCalls(arguments.at(1)); }); });
}

void startPeer(const Arguments& arguments) {
  const Arguments words(arguments.begin() + 1, arguments.end());
  Bus bus;
  // Wait until the previous peer no longer owns its name.
  reportStarts(arguments.at(0), [&] {
    while (bus.ping()) {
    }
    return start(words, [&] { return bus.ping(); });
  });
}

}  // namespace bench
