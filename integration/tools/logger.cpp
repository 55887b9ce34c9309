// Comes before the real logger in the daemon's PATH.
//
// The daemon passes the output of the disk tools to logger, and holds its lock meanwhile. The output may
// contain file names of a stick, and the real logger waits for ever if the reader of syslog hangs. This
// logger escapes what could drive a terminal, as the log does, and kills a real logger that takes nothing for
// some seconds. It passes every other call on.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "TlogLine.h"
#include "Tool.h"

namespace {

const std::string tool = "logger";

/// In this time a healthy syslog takes a thousand lines. The daemon serves nobody meanwhile.
constexpr unsigned maxIdleSeconds = 5;

pid_t realLogger = -1;

void endRealLogger(int /*signal*/) {
  kill(realLogger, SIGKILL);
}

/// Takes a line without its end. Keeps tabs, because they lay a text out.
std::string escape(const std::string& line) {
  std::string escaped;
  for (std::size_t begin = 0; begin <= line.size();) {
    const std::size_t tab = std::min(line.find('\t', begin), line.size());
    escaped += tlog::escapeControlCharacters(line.substr(begin, tab - begin));
    escaped += tab < line.size() ? "\t" : "";
    begin = tab + 1;
  }
  return escaped;
}

/// Returns false once nobody reads.
bool passLines(int sink) {
  char* line = nullptr;
  std::size_t room = 0;
  bool taken = true;
  for (ssize_t length = 0; taken && (length = getline(&line, &room, stdin)) > 0;) {
    std::string text(line, static_cast<std::size_t>(length));
    const bool hasEnd = text.back() == '\n';
    if (hasEnd) {
      text.pop_back();
    }
    text = escape(text) + (hasEnd ? "\n" : "");
    for (std::size_t done = 0; taken && done < text.size();) {
      alarm(maxIdleSeconds);
      const ssize_t count = write(sink, text.data() + done, text.size() - done);
      taken = count > 0;
      done += taken ? static_cast<std::size_t>(count) : 0;
    }
  }
  std::free(line);
  return taken;
}

int passText(const std::vector<std::string>& arguments) {
  const std::string program = image::nextProgram(tool, tool);
  if (program.empty()) {
    return image::failed;
  }
  int ends[2] = {-1, -1};
  if (pipe2(ends, O_CLOEXEC) != 0) {
    image::complainOfErrno(tool, "pipe");
    return image::failed;
  }
  // A small pipe is soon full if nobody reads.
  fcntl(ends[1], F_SETPIPE_SZ, 4096);
  realLogger = image::start(tool, program, arguments, ends[0]);
  if (realLogger < 0) {
    return image::failed;
  }
  close(ends[0]);
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGALRM, endRealLogger);
  const bool taken = passLines(ends[1]);
  close(ends[1]);
  alarm(maxIdleSeconds);
  const int status = image::waitFor(realLogger);
  alarm(0);
  constexpr int signalled = 128;
  if (taken && status < signalled) {
    return status;
  }
  image::complain(tool, "the system log does not take the text; the rest is lost; look at the syslog daemon");
  // If the real logger failed before it read anything, its status says more than ours.
  return status > 0 && status < signalled ? status : image::failed;
}

}  // namespace

int main(int count, char** words) {
  const std::vector<std::string> arguments(words, words + count);
  const std::vector<std::string> daemonsOwn = {"-s", "-t", "Dockhand"};
  if (std::vector<std::string>(arguments.begin() + 1, arguments.end()) == daemonsOwn) {
    return passText(arguments);
  }
  return image::passOn(tool, arguments);
}
