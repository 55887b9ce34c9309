// Files by extension, in folders where every tenth file matches.

#include <benchmark/benchmark.h>

#include <cstddef>
#include <string>
#include <vector>

#include "DockhandClient.h"
#include "Folder.h"
#include "InstantPlatform.h"
#include "LinuxPlatform.h"

namespace {

void search(benchmark::State& state, Dockhand::Platform& platform, const std::string& folder) {
  Dockhand::DockhandClient handler(platform);
  // No device has this number, so the folder is relative to /.
  constexpr std::int16_t noDevice = 0;
  std::vector<std::string> files;
  for (auto _ : state) {
    files.clear();
    files.shrink_to_fit();
    handler.GetFilesByExtension(files, noDevice, folder, "mp3");
    benchmark::DoNotOptimize(files.data());
  }
  if (files.size() != static_cast<std::size_t>(state.range(0) / 10)) {
    state.SkipWithError("not all files are found");
  }
}

void overInstantPlatform(benchmark::State& state) {
  bench::InstantPlatform platform;
  platform.names = bench::songNames(static_cast<std::size_t>(state.range(0)));
  search(state, platform, "songs");
}

void overLinux(benchmark::State& state) {
  const bench::Folder folder(bench::songNames(static_cast<std::size_t>(state.range(0))));
  Dockhand::LinuxPlatform platform;
  search(state, platform, folder.path().relative_path());
}

}  // namespace

BENCHMARK(overInstantPlatform)
    ->Name("search, instant system, entries")
    ->Unit(benchmark::kMicrosecond)
    ->Arg(100)
    ->Arg(10'000)
    ->Arg(1'000'000);
BENCHMARK(overLinux)
    ->Name("search, Linux, entries")
    ->Unit(benchmark::kMicrosecond)
    ->Arg(100)
    ->Arg(10'000)
    ->Arg(1'000'000);
