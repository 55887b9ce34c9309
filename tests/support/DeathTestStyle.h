#ifndef TESTS_SUPPORT_DEATHTESTSTYLE_H
#define TESTS_SUPPORT_DEATHTESTSTYLE_H

#include <gtest/gtest.h>

#include "Emulator.h"

/// For a death test of a program that has threads by then: it starts the program anew. QEMU cannot start a
/// program for another processor from within one, so there it is a copy.
inline void useStyleForThreads() {
  testing::FLAGS_gtest_death_test_style = isEmulated() ? "fast" : "threadsafe";
}

#endif  // TESTS_SUPPORT_DEATHTESTSTYLE_H
