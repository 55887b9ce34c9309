#ifndef TESTS_SUPPORT_DEATHTESTSTYLE_H
#define TESTS_SUPPORT_DEATHTESTSTYLE_H

#include <gtest/gtest.h>

#include "Emulator.h"

/// For a death test of a program that already has threads: it starts the program again. A program under QEMU
/// cannot start another program, so there the test forks a copy.
inline void useStyleForThreads() {
  testing::FLAGS_gtest_death_test_style = isEmulated() ? "fast" : "threadsafe";
}

#endif  // TESTS_SUPPORT_DEATHTESTSTYLE_H
