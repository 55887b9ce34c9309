#ifndef DOCKHAND_BENCH_SAMPLING_H
#define DOCKHAND_BENCH_SAMPLING_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace bench {

using Arguments = std::vector<std::string>;

/// `what`, ": " and the text of errno.
std::string errorText(const std::string& what);

/// Microseconds that `action` takes.
template <typename Action>
double timed(const Action& action) {
  const auto begin = std::chrono::steady_clock::now();
  action();
  return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin).count();
}

/// The value below which `share` (0 to 1) of the values lie.
double quantile(std::vector<double> values, double share);

/// Microseconds of each of `count` runs, after a few warm-up runs.
std::vector<double> sample(std::size_t count, const std::function<void()>& action);

/// Prints one result for the calling program.
void report(const std::string& name, double value);
/// Reports the median as "microseconds".
void reportMedian(const std::vector<double>& values);

/// Parses a positive number; throws std::logic_error if it is none.
std::size_t number(const std::string& argument);

}  // namespace bench

#endif  // DOCKHAND_BENCH_SAMPLING_H
