#include "ShellBox.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "Fuzzing.h"

namespace fuzz {

namespace fs = std::filesystem;

namespace {

/// Programs that the shell finds: those of a preparation, and some that an escaped label would probably run.
constexpr const char* programs[] = {"mkfs.xfs", "umount", "sfdisk", "dd", "fdisk", "logger", "sh",
                                    "touch",    "rm",     "id",     "ls", "env",   "reboot", "true"};

std::string readFile(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// A new directory that others may enter.
fs::path makeDirectory() {
  std::string path = fs::temp_directory_path() / "dockhand-fuzz-XXXXXX";
  require(mkdtemp(path.data()) != nullptr, "a directory can be made");
  fs::permissions(path, fs::perms(0755));
  return path;
}

}  // namespace

ShellBox::ShellBox() : root_(makeDirectory()) {
  fs::create_directory(root_ / "bin");
  fs::copy_file(RECORD_ARGUMENTS, root_ / "bin" / "recorder");
  for (const char* program : programs) {
    fs::create_symlink("recorder", root_ / "bin" / program);
  }
  for (const char* directory : {"out", "empty"}) {
    fs::create_directory(root_ / directory);
    fs::permissions(root_ / directory, fs::perms(0777));
  }
}

ShellBox::~ShellBox() {
  fs::remove_all(root_);
}

ShellBox::Run ShellBox::run(const std::string& commandLine) {
  Run run;
  run.status = runShell(commandLine);
  run.programs = recordedPrograms();
  run.output = readFile(output());
  for (const auto& entry : fs::directory_iterator(root_ / "empty")) {
    run.files.push_back(entry.path().filename());
  }
  for (const char* directory : {"out", "empty"}) {
    for (const auto& entry : fs::directory_iterator(root_ / directory)) {
      fs::remove_all(entry.path());
    }
  }
  return run;
}

int ShellBox::runShell(const std::string& commandLine) const {
  std::vector<std::string> words = {"/bin/sh", "-c", commandLine};
  if (geteuid() == 0) {
    words.insert(words.begin(), {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                                 "--no-new-privs", "--"});
  }
  std::vector<char*> command;
  for (std::string& word : words) {
    command.push_back(word.data());
  }
  command.push_back(nullptr);
  std::string path = "PATH=" + (root_ / "bin").string();
  std::string record = "RECORD=" + (root_ / "out" / "record").string();
  char* environment[] = {path.data(), record.data(), nullptr};

  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addchdir_np(&actions, (root_ / "empty").c_str());
  pid_t child = 0;
  const int error = posix_spawn(&child, command[0], &actions, &attributes, command.data(), environment);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  require(error == 0, "a shell can be started");
  int status = 0;
  while (waitpid(child, &status, 0) != child) {
    // The signal of libFuzzer's timer interrupts the wait.
    require(errno == EINTR, "a shell can be waited for");
  }
  return status;
}

std::vector<std::vector<std::string>> ShellBox::recordedPrograms() const {
  std::ifstream record(root_ / "out" / "record", std::ios::binary);
  std::vector<std::vector<std::string>> recorded;
  std::string line;
  while (std::getline(record, line)) {
    std::vector<std::string> arguments(std::stoul(line));
    for (std::string& argument : arguments) {
      std::getline(record, argument, '\0');
    }
    recorded.push_back(arguments);
  }
  return recorded;
}

}  // namespace fuzz
