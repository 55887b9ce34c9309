// Log lines as entries of the journal.

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

#include "TlogTest.h"

namespace {

// Replaces the journal: a folder with its two sockets. Standard error is connected to one, as under systemd.
class TestJournal {
 public:
  TestJournal() {
    require(mkdtemp(folder_.data()) != nullptr, "mkdtemp");
    const int listener = bound("stdout", SOCK_STREAM);
    require(listen(listener, 1) == 0, "listen");
    const int connection = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = addressOf("stdout");
    require(connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "connect");
    stream_ = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    require(stream_ >= 0, "accept");
    close(listener);
    entries_ = bound("socket", SOCK_DGRAM | SOCK_NONBLOCK);
    redirection_.emplace(connection);
    close(connection);
  }
  ~TestJournal() {
    redirection_.reset();
    removeSocket();
    unlink((folder_ + "/stdout").c_str());
    rmdir(folder_.c_str());
    close(stream_);
    close(entries_);
  }
  TestJournal(const TestJournal&) = delete;
  TestJournal& operator=(const TestJournal&) = delete;

  void removeSocket() const { unlink((folder_ + "/socket").c_str()); }
  // JOURNAL_STREAM for standard error, with offsets that make its numbers wrong.
  static std::string name(dev_t deviceOffset = 0, ino_t inodeOffset = 0) {
    struct stat status {};
    require(fstat(STDERR_FILENO, &status) == 0, "fstat");
    return std::to_string(status.st_dev + deviceOffset) + ':' + std::to_string(status.st_ino + inodeOffset);
  }
  // Priority and message of each entry since the last call.
  std::vector<std::pair<char, std::string>> entries() const {
    const std::string fields =
        std::string("\nSYSLOG_FACILITY=3\nSYSLOG_IDENTIFIER=") + program_invocation_short_name + "\nMESSAGE=";
    std::vector<std::pair<char, std::string>> all;
    for (std::string entry; !(entry = received(entries_)).empty();) {
      const auto message = entry.find(fields);
      if (entry.rfind("PRIORITY=", 0) != 0 || message != 10 || entry.back() != '\n') {
        throw std::runtime_error("not an entry: " + entry);
      }
      entry.pop_back();
      all.emplace_back(entry[9], entry.substr(message + fields.size()));
    }
    return all;
  }
  std::string textOnTheStream() const { return received(stream_); }

 private:
  sockaddr_un addressOf(const std::string& name) const {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (folder_ + '/' + name).copy(std::data(address.sun_path), sizeof address.sun_path - 1);
    return address;
  }
  int bound(const std::string& name, int type) const {
    const int made = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    const sockaddr_un address = addressOf(name);
    require(made >= 0 && bind(made, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
            "bind");
    return made;
  }
  static std::string received(int from) {
    std::string bytes(1U << 20U, '\0');
    const ssize_t count = recv(from, bytes.data(), bytes.size(), 0);
    require(count >= 0 || errno == EAGAIN, "recv");
    bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    return bytes;
  }

  std::string folder_ = testing::TempDir() + "tlog-test-XXXXXX";
  int stream_ = -1;
  int entries_ = -1;
  std::optional<RedirectedStandardError> redirection_;
};

using Entries = std::vector<std::pair<char, std::string>>;

using TlogJournal = Tlog;

TEST_F(TlogJournal, LineHasItsPriorityAndNoTimestamp) {
  const TestJournal journal;
  initWith("JOURNAL_STREAM", TestJournal::name());
  const std::string thread = std::to_string(gettid());
  for (int level = 1; level <= 5; ++level) {
    TlogPrintf(context_, level, "F", level, "<0>text");
  }
  const Entries expected = {
      {'7', thread + " 1 Test.Context F:1 <0>text"}, {'7', thread + " 2 Test.Context F:2 <0>text"},
      {'5', thread + " 3 Test.Context F:3 <0>text"}, {'4', thread + " 4 Test.Context F:4 <0>text"},
      {'3', thread + " 5 Test.Context F:5 <0>text"},
  };
  EXPECT_EQ(journal.entries(), expected);
  EXPECT_EQ(journal.textOnTheStream(), "");
}

TEST_F(TlogJournal, LineWithoutMemoryHasAPriority) {
  const TestJournal journal;
  initWith("JOURNAL_STREAM", TestJournal::name());
  {
    const MemoryShortage shortage(0);
    TlogPrintf(nullptr, 5, "F", 7, "text");
  }
  const Entries expected = {
      {'3', std::to_string(gettid()) + " 5 - F:7 (no memory for the text of this line)"}};
  EXPECT_EQ(journal.entries(), expected);
}

TEST_F(TlogJournal, ReportOfABadValueHasAPriority) {
  const TestJournal journal;
  require(setenv("TLOG_LEVEL", "9", 1) == 0, "setenv");
  initWith("JOURNAL_STREAM", TestJournal::name());
  const Entries entries = journal.entries();
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0].first, '4');
  EXPECT_TRUE(matches(entries[0].second, R"([0-9]+ 4 - Src/Tlog/Tlog:[0-9]+ TLOG_LEVEL: .*)"))
      << entries[0].second;
}

TEST_F(TlogJournal, AVeryLongLineIsSeveralEntries) {
  const TestJournal journal;
  initWith("JOURNAL_STREAM", TestJournal::name());
  const std::string text(100000, 'x');
  TlogPrintf(context_, 5, "F", 1, "%s", text.c_str());
  std::string line;
  for (const auto& [priority, part] : journal.entries()) {
    EXPECT_EQ(priority, '3');
    EXPECT_LE(part.size(), 48U * 1024);
    line += part;
  }
  EXPECT_TRUE(line == std::to_string(gettid()) + " 5 Test.Context F:1 " + text) << line.size();
}

TEST_F(TlogJournal, WithoutItsSocketTheLineIsWrittenToStandardError) {
  const TestJournal journal;
  initWith("JOURNAL_STREAM", TestJournal::name());
  journal.removeSocket();
  TlogPrintf(context_, 3, "F", 1, "text");
  EXPECT_THAT(journal.textOnTheStream(), IsOneLine(R"(\S+Z [0-9]+ 3 Test\.Context F:1 text)"));
}

TEST_F(TlogJournal, AnotherStreamInTheEnvironmentIsNotTheJournal) {
  const TestJournal journal;
  const std::string right = TestJournal::name();
  for (const std::string& value : {TestJournal::name(0, 1), right.substr(0, right.find(':') + 1),
                                   TestJournal::name(1, 0), std::string("nonsense"), std::string()}) {
    initWith("JOURNAL_STREAM", value);
    TlogPrintf(context_, 3, "F", 1, "text");
    EXPECT_THAT(journal.textOnTheStream(), IsOneLine(R"(\S+Z [0-9]+ 3 Test\.Context F:1 text)")) << value;
    EXPECT_EQ(journal.entries(), Entries()) << value;
  }
}

TEST_F(TlogJournal, AClosedStandardErrorIsNotTheJournal) {
  const TestJournal journal;
  const std::string name = TestJournal::name();
  const int kept = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
  close(STDERR_FILENO);
  initWith("JOURNAL_STREAM", name);
  dup2(kept, STDERR_FILENO);
  close(kept);
  TlogPrintf(context_, 3, "F", 1, "text");
  EXPECT_THAT(journal.textOnTheStream(), IsOneLine(R"(\S+Z [0-9]+ 3 Test\.Context F:1 text)"));
  EXPECT_EQ(journal.entries(), Entries());
}

}  // namespace
