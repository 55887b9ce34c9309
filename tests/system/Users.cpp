#include "Users.h"

#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>

namespace systest {

namespace {

constexpr unsigned timeoutSeconds = 60;
constexpr int didNotAct = 255;

int become(const User& user) {
  if (setgroups(user.furtherGroups.size(), user.furtherGroups.data()) != 0 ||
      setresgid(user.group, user.group, user.group) != 0 || setresuid(user.id, user.id, user.id) != 0) {
    std::fprintf(stderr, "cannot become user %u: %s\n", user.id, std::strerror(errno));
    return didNotAct;
  }
  return 0;
}

int actAs(const User& user, const std::function<int()>& action) {
  alarm(timeoutSeconds);
  try {
    const int failure = become(user);
    return failure != 0 ? failure : action();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "user %u: %s\n", user.id, error.what());
    return didNotAct;
  }
}

}  // namespace

int runAs(const User& user, const std::function<int()>& action) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(actAs(user, action));
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status) ||
      WEXITSTATUS(status) == didNotAct) {
    throw std::runtime_error("user " + std::to_string(user.id) + ": process ended with status " +
                             std::to_string(status));
  }
  return WEXITSTATUS(status);
}

}  // namespace systest
