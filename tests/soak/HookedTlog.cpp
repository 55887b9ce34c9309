#include "HookedTlog.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <memory>

#include "Tlog.h"

namespace {

void (*lineHook)(int) = nullptr;

}  // namespace

void soak::setLogLineHook(void (*hook)(int sourceLine)) {
  lineHook = hook;
}

TlogContext* TlogContext::GetLogContext(const char* name, const char* /*file*/, int /*line*/) {
  static std::map<std::string, std::unique_ptr<TlogContext>> contexts;
  auto& context = contexts[name];
  if (context == nullptr) {
    context = std::make_unique<TlogContext>(name);
    // Compose lines of all levels.
    context->setThreshold(1);
  }
  return context.get();
}

void TlogInit() {}

void TlogPrintf(const TlogContext* /*context*/, int /*level*/, const char* /*file*/, int line,
                const char* format, ...) {
  const int error = errno;
  std::array<char, 1024> text;
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  if (lineHook != nullptr) {
    lineHook(line);
  }
  errno = error;
}

void TlogStackTrace() {}
