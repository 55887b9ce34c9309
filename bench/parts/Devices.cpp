// Scanning /dev and listing the devices, over a fake system without delays and over the real one.

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "DockhandClient.h"
#include "Folder.h"
#include "InstantPlatform.h"
#include "LinuxPlatform.h"

namespace {

/// The real system with another folder in place of /dev: we must not put nodes into the real one.
class LinuxWithOwnDev : public Dockhand::LinuxPlatform {
 public:
  explicit LinuxWithOwnDev(const std::string& dev) : dev_(dev) {}

  int scandir(const std::string& /*path*/, dirent*** entries, int (*filter)(const dirent*),
              int (*compare)(const dirent**, const dirent**)) override {
    return LinuxPlatform::scandir(dev_, entries, filter, compare);
  }

 private:
  const std::string dev_;
};

void scan(benchmark::State& state, Dockhand::Platform& platform) {
  Dockhand::DockhandClient handler(platform);
  for (auto _ : state) {
    handler.CheckForAndUpdateNewDevices();
  }
}

void list(benchmark::State& state, Dockhand::Platform& platform) {
  Dockhand::DockhandClient handler(platform);
  std::vector<std::int16_t> devices;
  for (auto _ : state) {
    devices.clear();
    handler.GetListOfInsertedDevices(devices, false);
    benchmark::DoNotOptimize(devices.data());
  }
  if (devices.size() != static_cast<std::size_t>(state.range(0))) {
    state.SkipWithError("not all devices are listed");
  }
}

/// Runs one of the above; the benchmark's argument is the number of nodes.
template <void (*operation)(benchmark::State&, Dockhand::Platform&)>
void overInstantPlatform(benchmark::State& state) {
  bench::InstantPlatform platform;
  platform.names = bench::deviceNames(static_cast<std::size_t>(state.range(0)));
  operation(state, platform);
}

template <void (*operation)(benchmark::State&, Dockhand::Platform&)>
void overLinux(benchmark::State& state) {
  const bench::Folder dev(bench::deviceNames(static_cast<std::size_t>(state.range(0))));
  LinuxWithOwnDev platform(dev.path());
  operation(state, platform);
}

}  // namespace

BENCHMARK(overInstantPlatform<scan>)->Name("scan, instant system, nodes")->Arg(0)->Arg(16)->Arg(128);
BENCHMARK(overLinux<scan>)->Name("scan, Linux, nodes")->Arg(0)->Arg(16)->Arg(128);
BENCHMARK(overInstantPlatform<list>)->Name("listing, instant system, devices")->Arg(1)->Arg(8)->Arg(64);
BENCHMARK(overLinux<list>)->Name("listing, Linux, devices")->Arg(1)->Arg(8)->Arg(64);
