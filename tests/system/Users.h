#ifndef DOCKHAND_TESTS_SYSTEM_USERS_H
#define DOCKHAND_TESTS_SYSTEM_USERS_H

#include <sys/types.h>

#include <functional>
#include <vector>

namespace systest {

/// A user without root rights. The numbers need not be in a user database.
struct User {
  uid_t id = 0;
  gid_t group = 0;
  std::vector<gid_t> furtherGroups;
};

/// Runs `action` as this user in a child process, and returns its result, 0 to 255. Make checks in the
/// caller. Throws if the process ends in another way, or takes too long.
int runAs(const User& user, const std::function<int()>& action);

}  // namespace systest

#endif  // DOCKHAND_TESTS_SYSTEM_USERS_H
