#ifndef TESTS_UNIT_SLEEP_H
#define TESTS_UNIT_SLEEP_H

#include <functional>

/// What sleep(3) does in a program that Sleep.cpp is part of: it is called with the seconds and returns those
/// that are left. Without it sleep returns at once.
extern std::function<unsigned int(unsigned int)> onSleep;

#endif  // TESTS_UNIT_SLEEP_H
