#ifndef DOCKHAND_TESTS_SOAK_HOOKEDTLOG_H
#define DOCKHAND_TESTS_SOAK_HOOKEDTLOG_H

namespace soak {

/// Sets a function that gets the number of each log line. This logging library composes each line and drops
/// it. The function runs in the thread that writes the line; errno is preserved. Call this before another
/// thread writes a line.
void setLogLineHook(void (*hook)(int sourceLine));

}  // namespace soak

#endif  // DOCKHAND_TESTS_SOAK_HOOKEDTLOG_H
