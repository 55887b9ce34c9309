#include "Daemon.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "ArgumentVector.h"
#include "Emulator.h"
#include "World.h"

namespace systest {

namespace {

constexpr std::chrono::seconds timeout{20};

std::string logPath(pid_t pid) {
  return std::filesystem::temp_directory_path() / ("daemon_" + std::to_string(pid) + ".stderr");
}

void redirect(int descriptor, const std::string& path) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (file < 0 || dup2(file, descriptor) < 0) {
    _exit(127);
  }
}

pid_t startProgram(const Environment& environment, gid_t group) {
  std::vector<std::string> words = emulatorWords();
  words.push_back(DOCKHAND_PROGRAM);
  const std::vector<char*> command = argumentVector(words);
  const pid_t pid = fork();
  if (pid < 0) {
    throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
  }
  if (pid == 0) {
    // The daemon must not outlive the test, even if the test is killed.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // Its own process group identifies the tools of a killed daemon.
    setpgid(0, 0);
    // The daemon must not inherit descriptors of the caller of the tests.
    close_range(STDERR_FILENO + 1, ~0U, 0);
    for (const auto& [name, value] : environment) {
      setenv(name.c_str(), value.c_str(), 1);
    }
    redirect(STDIN_FILENO, "/dev/null");
    redirect(STDOUT_FILENO, std::filesystem::temp_directory_path() / "daemon.stdout");
    redirect(STDERR_FILENO, logPath(getpid()));
    if (group != getgid() && (setgroups(0, nullptr) != 0 || setgid(group) != 0)) {
      _exit(127);
    }
    execv(command.front(), command.data());
    _exit(127);
  }
  return pid;
}

/// True if the process ends within the given time.
bool hasEnded(pid_t pid, std::chrono::milliseconds wait) {
  const int process = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (process < 0) {
    throw std::runtime_error(std::string("pidfd_open: ") + std::strerror(errno));
  }
  pollfd ended{process, POLLIN, 0};
  const bool answer = poll(&ended, 1, static_cast<int>(wait.count())) == 1;
  close(process);
  return answer;
}

bool answersCalls() {
  try {
    UsbClient client;
    client->IsDeviceOpen(0);
    return true;
  } catch (const apache::thrift::transport::TTransportException&) {
    return false;
  }
}

}  // namespace

Environment withTools() {
  return {{"PATH", "/tmp/bin:/usr/sbin:/usr/bin:/sbin:/bin"}};
}

Environment withImageTools() {
  return {{"PATH", DOCKHAND_IMAGE_TOOLS ":" + withTools().at("PATH")}};
}

Daemon::Daemon(const Environment& environment, gid_t group)
    : pid_(startProgram(environment, group)), logPath_(logPath(pid_)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!answersCalls()) {
    const bool ended = hasEnded(pid_, std::chrono::milliseconds(1));
    if (ended || std::chrono::steady_clock::now() > deadline) {
      kill();
      throw std::runtime_error((ended ? "the daemon ended: " : "the daemon does not reply: ") + log());
    }
  }
}

Daemon::~Daemon() {
  kill();
}

bool Daemon::isRunning() const {
  return !reaped_ && !hasEnded(pid_, std::chrono::milliseconds(0));
}

void Daemon::kill() {
  if (!reaped_) {
    // Only the log says why a daemon ended by itself, and the test deletes it.
    if (!isRunning()) {
      std::cerr << "the daemon ended by itself, with this log: " << log() << '\n';
    }
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    reaped_ = true;
  }
}

std::string Daemon::log() const {
  return readFile(logPath_);
}

std::vector<std::string> Daemon::logLines() const {
  std::istringstream text(log());
  std::vector<std::string> lines;
  std::string line;
  while (std::getline(text, line)) {
    lines.push_back(line);
  }
  return lines;
}

FailedStart startThatFails(const Environment& environment) {
  const pid_t pid = startProgram(environment, 0);
  const bool ended = hasEnded(pid, timeout);
  if (!ended) {
    kill(pid, SIGKILL);
  }
  FailedStart end;
  waitpid(pid, &end.status, 0);
  end.log = readFile(logPath(pid));
  if (!ended) {
    throw std::runtime_error("the daemon did not end: " + end.log);
  }
  return end;
}

}  // namespace systest
