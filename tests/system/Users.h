#ifndef DOCKHAND_TESTS_SYSTEM_USERS_H
#define DOCKHAND_TESTS_SYSTEM_USERS_H

#include <sys/types.h>

#include <functional>
#include <vector>

namespace systest {

/// Somebody without any of root's rights. No user database knows these numbers, nor need it.
struct User {
  uid_t id = 0;
  gid_t group = 0;
  std::vector<gid_t> furtherGroups;
};

/// Runs `action` as this user, in a process of its own, and returns what it returns: 0 to 255. Checks belong
/// into the caller. Throws when the process ends in another way, and when it takes long.
int runAs(const User& user, const std::function<int()>& action);

}  // namespace systest

#endif  // DOCKHAND_TESTS_SYSTEM_USERS_H
