#include "Machine.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/un.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <system_error>

#include "../Failure.h"
#include "FileDescriptor.h"
#include "LocalSocketPath.h"

namespace dockhandctl::doctor {
namespace {

using ravel::rpc::FileDescriptor;

std::string readAll(int descriptor) {
  std::string result;
  char buffer[4096];
  while (true) {
    const ssize_t count = ::read(descriptor, buffer, sizeof(buffer));
    if (count > 0) {
      result.append(buffer, static_cast<std::size_t>(count));
    } else if (count == 0 || errno != EINTR) {
      return result;
    }
  }
}

class SpawnActions {
 public:
  explicit SpawnActions(int output) {
    posix_spawn_file_actions_init(&actions_);
    posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions_, output, STDERR_FILENO);
  }
  ~SpawnActions() { posix_spawn_file_actions_destroy(&actions_); }
  SpawnActions(const SpawnActions&) = delete;
  SpawnActions& operator=(const SpawnActions&) = delete;

  const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
};

/// Our own environment with another PATH.
std::vector<std::string> environmentWith(const std::vector<std::string>& path) {
  std::string folders;
  for (const std::string& folder : path) {
    folders += (folders.empty() ? "" : ":") + folder;
  }
  std::vector<std::string> result = {"PATH=" + folders};
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string text = *variable;
    if (text.rfind("PATH=", 0) != 0) {
      result.push_back(text);
    }
  }
  return result;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> result;
  result.reserve(texts.size() + 1);
  for (std::string& text : texts) {
    result.push_back(text.data());
  }
  result.push_back(nullptr);
  return result;
}

CommandResult runProgram(const std::string& program, std::vector<std::string> command,
                         const std::vector<std::string>& path) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) {
    throw Failure(ownFailure, "cannot make a pipe for \"" + program + "\"");
  }
  const FileDescriptor reading(ends[0]);
  FileDescriptor writing(ends[1]);
  const SpawnActions actions(writing.get());
  std::vector<std::string> environment = environmentWith(path);
  pid_t child = 0;
  const int error = ::posix_spawn(&child, program.c_str(), actions.get(), nullptr, pointersTo(command).data(),
                                  pointersTo(environment).data());
  writing.reset();
  if (error != 0) {
    return {127, {}};
  }
  CommandResult result;
  result.output = readAll(reading.get());
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

/// Connects to the socket and asks the kernel who listens there.
void findDaemon(Machine& machine) {
  const sockaddr_un address = ravel::rpc::localSocketAddress(machine.socket);
  const FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket.valid() ||
      ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    machine.connectionError = errno;
    return;
  }
  ucred peer{};
  socklen_t size = sizeof(peer);
  if (::getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0) {
    machine.daemon = peer.pid;
  }
}

/// A variable of the daemon; no value if its environment cannot be read.
std::optional<std::string> variableOf(const Machine& machine, const std::string& name,
                                      const std::string& defaultValue) {
  const auto environment = machine.read("/proc/" + std::to_string(machine.daemon) + "/environ");
  if (machine.daemon == 0 || !environment || environment->empty()) {
    return std::nullopt;
  }
  const std::string beginning = name + "=";
  std::istringstream variables(*environment);
  for (std::string variable; std::getline(variables, variable, '\0');) {
    if (variable.rfind(beginning, 0) == 0) {
      return variable.substr(beginning.size());
    }
  }
  return defaultValue;
}

void findPath(Machine& machine) {
  if (machine.daemon != 0) {
    // The default of the daemon's shell.
    const std::string defaultPath = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
    if (const auto path = variableOf(machine, "PATH", defaultPath)) {
      machine.path = splitPath(*path);
      return;
    }
    machine.reasonForOtherPath =
        "the daemon's (process " + std::to_string(machine.daemon) + ") cannot be read";
  } else {
    machine.reasonForOtherPath = "the daemon was not found";
  }
  machine.pathIsDaemons = false;
  const char* const own = std::getenv("PATH");
  machine.path = splitPath(own != nullptr ? own : "");
}

}  // namespace

std::optional<std::string> Machine::read(const std::string& file) const {
  std::ifstream stream(root + file, std::ios::binary);
  std::string text((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
  if (!stream.is_open() || stream.bad()) {
    return std::nullopt;
  }
  return text;
}

std::string Machine::find(const std::string& program) const {
  for (const std::string& folder : path) {
    std::error_code ignored;  // a file that we cannot read does not count
    std::string file = folder;
    file.append("/").append(program);
    const std::string place = root + file;
    if (std::filesystem::is_regular_file(place, ignored) && ::access(place.c_str(), X_OK) == 0) {
      return file;
    }
  }
  return {};
}

std::vector<std::string> splitPath(const std::string& text) {
  std::vector<std::string> result;
  std::istringstream folders(text);
  for (std::string folder; std::getline(folders, folder, ':');) {
    result.push_back(folder.empty() ? "." : folder);
  }
  return result;
}

Machine thisMachine() {
  Machine machine;
  machine.socket = ravel::rpc::localSocketPath(9020);
  findDaemon(machine);
  findPath(machine);
  machine.mountPolicy = variableOf(machine, "DOCKHAND_MOUNTS", "");
  utsname names{};
  if (::uname(&names) == 0) {
    machine.kernelRelease = names.release;
  }
  // Captures a copy, because the machine may move.
  machine.run = [path = machine.path](const std::vector<std::string>& command) -> CommandResult {
    Machine lookup;
    lookup.path = path;
    const bool isPath = command.front().find('/') != std::string::npos;
    const std::string program = isPath ? command.front() : lookup.find(command.front());
    return program.empty() ? CommandResult{127, {}} : runProgram(program, command, path);
  };
  machine.isOnReadOnlyFileSystem = [](const std::string& file) {
    struct statvfs status {};
    return ::statvfs(file.c_str(), &status) == 0 && (status.f_flag & ST_RDONLY) != 0;
  };
  machine.isBlockDevice = [](const std::string& file) {
    struct stat status {};
    return ::stat(file.c_str(), &status) == 0 && S_ISBLK(status.st_mode);
  };
  return machine;
}

}  // namespace dockhandctl::doctor
