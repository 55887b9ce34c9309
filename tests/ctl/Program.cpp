#include "Program.h"

#include <fcntl.h>
#include <grp.h>
#include <pty.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <stdexcept>

#include "ArgumentVector.h"
#include "Emulator.h"

namespace ctltest {
namespace {

using ravel::rpc::FileDescriptor;

struct Pipe {
  FileDescriptor reading;
  FileDescriptor writing;

  Pipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
      throw std::runtime_error("no pipe");
    }
    reading.reset(ends[0]);
    writing.reset(ends[1]);
  }
};

std::vector<std::string> environmentWith(const std::map<std::string, std::string>& changes) {
  std::vector<std::string> result;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string text = *variable;
    if (changes.count(text.substr(0, text.find('='))) == 0) {
      result.push_back(text);
    }
  }
  for (const auto& [name, value] : changes) {
    result.push_back(name + "=" + value);
  }
  return result;
}

/// False at the end. A terminal ends with an error.
bool readMore(int descriptor, std::string& text) {
  char buffer[4096];
  ssize_t count = 0;
  while ((count = read(descriptor, buffer, sizeof(buffer))) < 0 && errno == EINTR) {
  }
  if (count <= 0) {
    return false;
  }
  text.append(buffer, static_cast<std::size_t>(count));
  return true;
}

std::string readUntilIn(int descriptor, std::string& soFar, const std::string& text) {
  while (soFar.find(text) == std::string::npos) {
    if (!readMore(descriptor, soFar)) {
      throw std::runtime_error("the stream ended before \"" + text + "\": " + soFar);
    }
  }
  exchangeAMessage();
  return soFar;
}

}  // namespace

void exchangeAMessage() {
  const FileDescriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  auto* const name = reinterpret_cast<sockaddr*>(&address);
  socklen_t size = sizeof(sa_family_t);  // Lets the kernel choose a name.
  bool exchanged = bind(socket.get(), name, size) == 0;
  size = sizeof(address);
  exchanged =
      exchanged && getsockname(socket.get(), name, &size) == 0 && connect(socket.get(), name, size) == 0;
  char message = 'x';
  exchanged =
      exchanged && ::send(socket.get(), &message, 1, 0) == 1 && recv(socket.get(), &message, 1, 0) == 1;
  if (!exchanged) {
    throw std::runtime_error("cannot send a message to myself");
  }
}

Program::Program(const Arguments& arguments, const RunOptions& options) {
  exchangeAMessage();
  // A process with threads must not allocate between fork and exec, so prepare all here.
  const FileDescriptor program(open(DOCKHANDCTL_PROGRAM, O_RDONLY | O_CLOEXEC));
  const std::vector<std::string> emulator = emulatorWords();
  // Use the descriptor: the other user may be unable to follow the path.
  const FileDescriptor started(emulator.empty() ? fcntl(program.get(), F_DUPFD_CLOEXEC, 0)
                                                : open(emulator[0].c_str(), O_RDONLY | O_CLOEXEC));
  std::vector<std::string> words = emulator;
  if (!emulator.empty()) {
    words.insert(words.end(), {"-0", "dockhandctl"});
  }
  words.push_back(emulator.empty() ? "dockhandctl" : "/proc/self/fd/" + std::to_string(program.get()));
  words.insert(words.end(), arguments.begin(), arguments.end());
  const std::vector<char*> argumentPointers = argumentVector(words);
  std::vector<std::string> environment = environmentWith(options.environment);
  const std::vector<char*> environmentPointers = argumentVector(environment);
  const FileDescriptor input(open(options.inputFile.c_str(), O_RDONLY | O_CLOEXEC));
  const FileDescriptor file(
      options.outputFile.empty() ? -1 : open(options.outputFile.c_str(), O_WRONLY | O_CLOEXEC));
  Pipe out;
  Pipe err;
  const int output = file.valid() ? file.get() : out.writing.get();

  int terminal = -1;
  pid_ = options.terminal ? forkpty(&terminal, nullptr, nullptr, nullptr) : fork();
  if (pid_ < 0) {
    throw std::runtime_error("cannot fork");
  }
  if (pid_ == 0) {
    if (options.stopped) {
      tcflow(STDOUT_FILENO, TCOOFF);
    }
    if (!options.terminal) {
      dup2(input.get(), STDIN_FILENO);
      dup2(output, STDOUT_FILENO);
      dup2(err.writing.get(), STDERR_FILENO);
    }
    constexpr unsigned nobody = 65534;
    if (!options.asNobody || (setgroups(0, nullptr) == 0 && setgid(nobody) == 0 && setuid(nobody) == 0)) {
      if (!emulator.empty()) {
        fcntl(program.get(), F_SETFD, 0);
      }
      fexecve(started.get(), argumentPointers.data(), environmentPointers.data());
    }
    _exit(127);
  }
  if (options.terminal) {
    fcntl(terminal, F_SETFD, FD_CLOEXEC);
    out_.reset(terminal);
  } else {
    out_ = std::move(out.reading);
    err_ = std::move(err.reading);
  }
}

Program::~Program() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

std::string Program::readUntil(const std::string& text) {
  return readUntilIn(out_.get(), outcome_.out, text);
}

std::string Program::readErrorUntil(const std::string& text) {
  return readUntilIn(err_.get(), outcome_.err, text);
}

void Program::type(const std::string& text) {
  exchangeAMessage();
  if (write(out_.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    throw std::runtime_error("cannot type on the terminal");
  }
}

void Program::send(int signal) const {
  ::kill(pid_, signal);
}

Outcome Program::wait() {
  while (out_.valid() && readMore(out_.get(), outcome_.out)) {
  }
  while (err_.valid() && readMore(err_.get(), outcome_.err)) {
  }
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  exchangeAMessage();
  outcome_.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return outcome_;
}

Outcome run(const Arguments& arguments, const RunOptions& options) {
  return Program(arguments, options).wait();
}

}  // namespace ctltest
