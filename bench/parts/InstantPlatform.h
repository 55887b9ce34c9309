#ifndef DOCKHAND_BENCH_INSTANTPLATFORM_H
#define DOCKHAND_BENCH_INSTANTPLATFORM_H

#include <cstddef>
#include <string>
#include <vector>

#include "NoSystem.h"

namespace bench {

/// A fake system without delays and without a journal, so that only the handler's own work is measured.
/// Every directory holds `names`, in this order. Every other call fails.
class InstantPlatform : public NoSystem {
 public:
  std::vector<std::string> names;

  int scandir(const std::string& path, dirent*** entries, int (*filter)(const dirent*),
              int (*compare)(const dirent**, const dirent**)) override;
  DIR* opendir(const std::string& path) override;
  dirent* readdir(DIR* directory) override;
  int closedir(DIR* directory) override;

 private:
  std::size_t position_ = 0;
  dirent entry_{};
};

}  // namespace bench

#endif  // DOCKHAND_BENCH_INSTANTPLATFORM_H
