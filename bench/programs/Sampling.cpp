#include "Sampling.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace bench {

std::string errorText(const std::string& what) {
  return what + ": " + std::strerror(errno);
}

double quantile(std::vector<double> values, double share) {
  if (values.empty()) {
    throw std::logic_error("no values");
  }
  const auto position = static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), values.begin() + position, values.end());
  return values[static_cast<std::size_t>(position)];
}

std::vector<double> sample(std::size_t count, const std::function<void()>& action) {
  for (std::size_t i = 0; i < count / 10 + 1; ++i) {
    action();
  }
  std::vector<double> values;
  values.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    values.push_back(timed(action));
  }
  return values;
}

void report(const std::string& name, double value) {
  std::printf("%s %.3f\n", name.c_str(), value);
  std::fflush(stdout);
}

void reportMedian(const std::vector<double>& values) {
  report("microseconds", quantile(values, 0.5));
}

std::size_t number(const std::string& argument) {
  return std::stoul(argument);
}

}  // namespace bench
