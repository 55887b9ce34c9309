#include "Tool.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace image {
namespace {

constexpr int cannotRun = 126;
constexpr int notFound = 127;

bool isProgram(const std::string& path, struct stat& status) {
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && access(path.c_str(), X_OK) == 0;
}

/// Returns only on failure.
void execute(const std::string& tool, const std::string& program, std::vector<std::string>& arguments) {
  std::vector<char*> words;
  words.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) {
    words.push_back(argument.data());
  }
  words.push_back(nullptr);
  execv(program.c_str(), words.data());
  complainOfErrno(tool, quoted(program));
}

}  // namespace

std::string nextProgram(const std::string& tool, const std::string& name) {
  struct stat self {};
  if (stat("/proc/self/exe", &self) != 0) {
    // A program that cannot recognise itself would call itself for ever.
    complainOfErrno(tool, "/proc/self/exe");
    return "";
  }
  const char* const value = std::getenv("PATH");
  const std::string path = value != nullptr ? value : "";
  std::string next;
  for (std::size_t begin = 0; begin <= path.size();) {
    const std::size_t end = std::min(path.find(':', begin), path.size());
    // An empty entry means the current directory.
    std::string program = end == begin ? "." : path.substr(begin, end - begin);
    program.append("/").append(name);
    begin = end + 1;
    struct stat status {};
    if (!isProgram(program, status)) {
      continue;
    }
    if (status.st_dev == self.st_dev && status.st_ino == self.st_ino) {
      next.clear();
    } else if (next.empty()) {
      next = program;
    }
  }
  if (next.empty()) {
    complain(tool,
             (name == tool ? "" : name + ": ") + "not found in the PATH " + quoted(path) + "; install it");
  }
  return next;
}

int passOn(const std::string& tool, std::vector<std::string> arguments) {
  const std::string program = nextProgram(tool, tool);
  if (program.empty()) {
    return notFound;
  }
  execute(tool, program, arguments);
  return cannotRun;
}

pid_t start(const std::string& tool, const std::string& program, std::vector<std::string> arguments,
            int input) {
  const pid_t process = fork();
  if (process == 0) {
    if (dup2(input, STDIN_FILENO) == STDIN_FILENO) {
      execute(tool, program, arguments);
    }
    _exit(cannotRun);
  }
  if (process < 0) {
    complainOfErrno(tool, "fork");
  }
  return process;
}

int waitFor(pid_t process) {
  int status = 0;
  while (waitpid(process, &status, 0) < 0) {
    if (errno != EINTR) {
      return cannotRun;
    }
  }
  constexpr int signalled = 128;
  return WIFEXITED(status) ? WEXITSTATUS(status) : signalled + WTERMSIG(status);
}

int readableText(const std::string& tool, const std::string& text) {
  const int file = memfd_create(tool.c_str(), MFD_CLOEXEC);
  if (file < 0 || write(file, text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
      lseek(file, 0, SEEK_SET) != 0) {
    complainOfErrno(tool, "cannot hold the text");
    return -1;
  }
  return file;
}

std::string quoted(const std::string& text) {
  return "\"" + text + "\"";
}

void complain(const std::string& tool, const std::string& text) {
  // One call, so that the lines of several programs do not mix.
  std::fprintf(stderr, "%s\n", (tool + ": " + text).c_str());
}

void complainOfErrno(const std::string& tool, const std::string& text) {
  complain(tool, text + ": " + std::strerror(errno));
}

}  // namespace image
