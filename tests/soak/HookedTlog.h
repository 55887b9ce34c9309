#ifndef DOCKHAND_TESTS_SOAK_HOOKEDTLOG_H
#define DOCKHAND_TESTS_SOAK_HOOKEDTLOG_H

namespace soak {

/// Stands in for the logging library: composes each line, drops it, and tells this function its number.
/// Called in the thread that writes the line, which finds errno as it was. Set before any other thread writes
/// one.
void setLogLineHook(void (*hook)(int sourceLine));

}  // namespace soak

#endif  // DOCKHAND_TESTS_SOAK_HOOKEDTLOG_H
