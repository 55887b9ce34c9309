#ifndef DOCKHAND_TESTS_SOAK_SIMULATEDSYSTEM_H
#define DOCKHAND_TESTS_SOAK_SIMULATEDSYSTEM_H

#include <memory>

#include "World.h"

namespace soak {

/// A world over a Machine. Its platform's open files are real descriptors (of memory), so that a leaked one
/// shows among the descriptors of the process.
///
/// Threads: any. Each call holds its mutex and takes no other lock.
std::unique_ptr<World> simulatedSystem();

}  // namespace soak

#endif  // DOCKHAND_TESTS_SOAK_SIMULATEDSYSTEM_H
