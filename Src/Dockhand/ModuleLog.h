#ifndef DOCKHAND_MODULELOG_H
#define DOCKHAND_MODULELOG_H

#include <cerrno>
#include <cstdint>
#include <new>
#include <sstream>
#include <string>
#include <type_traits>

#include "Tlog.h"

namespace Dockhand {

/// Writes the log lines of one source module.
///
/// A module is a name that log readers filter by, not a file: all sources of the handler are one module.
/// Every call site has its own line number in its module. It never changes, because log readers and support
/// notes refer to it.
///
/// Threads: any number at once.
struct ModuleLog {
  /// Takes the lines and has their threshold. Null lets every line through.
  TlogContext* context;
  /// Path of the module, as the lines show it.
  const char* sourceFile;

  bool isWanted(std::int32_t level) const { return context == nullptr || context->threshold() <= level; }

  // Write a line, one function for each level. `sourceLine` is the number of the call site.

  /// Level 2: steps, and values that were read.
  template <typename... Pieces>
  void trace(int sourceLine, const Pieces&... pieces) const {
    write(2, sourceLine, pieces...);
  }
  /// Level 3: rare and intended actions, such as each shell command.
  template <typename... Pieces>
  void notice(int sourceLine, const Pieces&... pieces) const {
    write(3, sourceLine, pieces...);
  }
  /// Level 4: a failure that the operation survives.
  template <typename... Pieces>
  void warning(int sourceLine, const Pieces&... pieces) const {
    write(4, sourceLine, pieces...);
  }
  /// Level 5: an unknown device, or a failure of the operation.
  template <typename... Pieces>
  void error(int sourceLine, const Pieces&... pieces) const {
    write(5, sourceLine, pieces...);
  }

  /// Writes the pieces as one line, without separators. A bool becomes 0 or 1. The caller must widen an 8-bit
  /// number, which would become a character. Composes nothing for a line that is not wanted. If there is no
  /// memory for the text, the line has a fixed text. Keeps errno.
  template <typename... Pieces>
  void write(std::int32_t level, int sourceLine, const Pieces&... pieces) const {
    static_assert((!std::is_same_v<Pieces, std::int8_t> && ...), "widen an 8-bit number to int");
    if (!isWanted(level)) {
      return;
    }
    const int error = errno;
    std::string composed;
    const char* text = "(no memory for the text of this line)";
    try {
      std::ostringstream stream;
      (stream << ... << pieces);
      // A stream without memory reports it only in its state.
      if (stream) {
        composed = stream.str();
        text = composed.c_str();
      }
    } catch (const std::bad_alloc&) {
      // The line gets the fixed text.
    }
    TlogPrintf(context, level, sourceFile, sourceLine, "%s", text);
    errno = error;
  }

  /// Dumps the calling thread's stack at level 1. Without a context there is no dump, because nobody asked
  /// for one.
  void writeStackTrace() const {
    if (context != nullptr && context->threshold() <= 1) {
      TlogStackTrace();
    }
  }
};

/// The handler's module: everything that DockhandClient does.
extern ModuleLog usbClientLog;

}  // namespace Dockhand

#endif  // DOCKHAND_MODULELOG_H
