#include "Journal.h"

namespace {

bool begins(const std::string& text, const std::string& beginning) {
  return text.rfind(beginning, 0) == 0;
}

}  // namespace

Journal& journal() {
  static Journal instance;
  return instance;
}

void Journal::record(const std::string& event) {
  const std::lock_guard<std::mutex> guard(mutex_);
  events_.push_back(event);
}

void Journal::record(const LoggedLine& line) {
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    events_.push_back("log " + std::to_string(line.level) + " @" + std::to_string(line.sourceLine) + " " +
                      line.text);
    lines_.push_back(line);
  }
  if (onLine) {
    onLine(line);
  }
}

void Journal::clear() {
  const std::lock_guard<std::mutex> guard(mutex_);
  events_.clear();
  lines_.clear();
}

std::vector<std::string> Journal::events() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return events_;
}

std::vector<std::string> Journal::logs() const {
  return eventsBeginning("log ");
}

std::vector<std::string> Journal::calls() const {
  std::vector<std::string> calls;
  for (const std::string& event : events()) {
    if (!begins(event, "log ")) {
      calls.push_back(event);
    }
  }
  return calls;
}

std::vector<std::string> Journal::eventsBeginning(const std::string& beginning) const {
  std::vector<std::string> found;
  for (const std::string& event : events()) {
    if (begins(event, beginning)) {
      found.push_back(event);
    }
  }
  return found;
}

std::vector<LoggedLine> Journal::lines() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return lines_;
}
