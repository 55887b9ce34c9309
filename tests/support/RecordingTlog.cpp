// Replaces the logging library: the lines go to the journal.

#include <cstdarg>
#include <cstdio>
#include <map>
#include <memory>

#include "Journal.h"
#include "Tlog.h"

TlogContext* TlogContext::GetLogContext(const char* name, const char* file, int line) {
  static std::map<std::string, std::unique_ptr<TlogContext>> contexts;
  journal().record("context " + std::string(name) + " " + file + " " + std::to_string(line));
  auto& context = contexts[name];
  if (context == nullptr) {
    context = std::make_unique<TlogContext>(name);
  }
  return context.get();
}

void TlogInit() {
  journal().record("TlogInit");
}

void TlogPrintf(const TlogContext* context, int level, const char* file, int line, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  std::va_list again;
  va_copy(again, arguments);
  std::string text(static_cast<std::size_t>(std::vsnprintf(nullptr, 0, format, arguments)), '\0');
  std::vsnprintf(text.data(), text.size() + 1, format, again);
  va_end(again);
  va_end(arguments);
  journal().record(LoggedLine{level, context != nullptr ? context->name() : "-", file, line, text});
}

void TlogStackTrace() {
  journal().record("stack trace");
}
