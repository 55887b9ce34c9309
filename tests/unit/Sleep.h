#ifndef TESTS_UNIT_SLEEP_H
#define TESTS_UNIT_SLEEP_H

#include <functional>

/// Replaces sleep(3) in a program that contains Sleep.cpp: gets the seconds, returns the seconds that are
/// left. If it is empty, sleep returns at once.
extern std::function<unsigned int(unsigned int)> onSleep;

#endif  // TESTS_UNIT_SLEEP_H
