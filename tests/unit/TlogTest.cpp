// The logging library: lines, levels, targets, threads and stack traces.

#include "TlogTest.h"

#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <ctime>
#include <fstream>
#include <future>
#include <new>
#include <thread>
#include <utility>

#include "TlogLine.h"
#include "TlogSettings.h"

namespace {

TlogContext* const contextBeforeMain =
    TlogContext::GetLogContext("Test.BeforeMain", "tests/unit/TlogTest", 1);

// Captures standard error in an unnamed file.
class CapturedStandardError {
 public:
  std::string text() const {
    std::string content(static_cast<std::size_t>(status().st_size), '\0');
    require(pread(file_.fd, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()),
            "pread");
    return content;
  }
  std::vector<std::string> lines() const { return linesOf(text()); }
  struct stat status() const {
    struct stat result {};
    require(fstat(file_.fd, &result) == 0, "fstat");
    return result;
  }

 private:
  struct File {
    std::string path = testing::TempDir() + "tlog-test-XXXXXX";
    const int fd = mkostemp(path.data(), O_CLOEXEC);
    File() {
      require(fd >= 0, "mkostemp");
      unlink(path.c_str());
    }
    ~File() { close(fd); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
  };
  const File file_;
  const RedirectedStandardError redirection_{file_.fd};
};

// A pipe for standard error. collect() reads it while the writer runs, and returns everything.
class PipedStandardError {
 public:
  explicit PipedStandardError(int flags = 0) {
    std::array<int, 2> ends{};
    require(pipe2(ends.data(), O_CLOEXEC | flags) == 0, "pipe2");
    readEnd_ = ends[0];
    fcntl(readEnd_, F_SETFL, 0);
    writeEnd_ = ends[1];
  }
  ~PipedStandardError() {
    closeWriteEnd();
    close(readEnd_);
  }
  PipedStandardError(const PipedStandardError&) = delete;
  PipedStandardError& operator=(const PipedStandardError&) = delete;

  int writeEnd() const { return writeEnd_; }
  // Fills it, so that the next write blocks until someone reads.
  void fill() const {
    require(fcntl(writeEnd_, F_SETFL, O_NONBLOCK) == 0, "fcntl");
    while (write(writeEnd_, ".", 1) == 1) {
    }
    require(errno == EAGAIN && fcntl(writeEnd_, F_SETFL, 0) == 0, "fill a pipe");
  }
  void closeWriteEnd() {
    if (writeEnd_ >= 0) {
      close(writeEnd_);
    }
    writeEnd_ = -1;
  }
  std::string readToEnd() const {
    std::string all;
    std::array<char, 4096> buffer{};
    ssize_t count = 0;
    while ((count = read(readEnd_, buffer.data(), buffer.size())) > 0) {
      all.append(buffer.data(), static_cast<std::size_t>(count));
    }
    require(count == 0, "read");
    return all;
  }

  template <typename Writer>
  std::string collect(Writer writer) {
    std::future<std::string> all = std::async(std::launch::async, [this] { return readToEnd(); });
    {
      const RedirectedStandardError redirection(writeEnd_);
      writer();
    }
    closeWriteEnd();
    return all.get();
  }

 private:
  int readEnd_ = -1;
  int writeEnd_ = -1;
};

using TlogLine = Tlog;
using TlogLevel = Tlog;
using TlogTarget = Tlog;
using TlogThreads = Tlog;
using TlogStack = Tlog;

}  // namespace

TEST_F(TlogLine, HasTimestampThreadLevelContextPlaceAndText) {
  const CapturedStandardError captured;
  TlogPrintf(context_, 3, "Src/Some/File", 42, "mounted %s, %d files", "/media/a b", 7);
  EXPECT_THAT(
      captured.text(),
      IsOneLine(
          R"([0-9]{4}-[0-9][0-9]-[0-9][0-9]T[0-9][0-9]:[0-9][0-9]:[0-9][0-9]\.[0-9]{6}Z [0-9]+ 3 Test\.Context Src/Some/File:42 )"
          R"(mounted /media/a b, 7 files)"));
}

TEST_F(TlogLine, NamesTheKernelsThreadNumber) {
  const CapturedStandardError captured;
  pid_t writer = 0;
  std::thread([&] {
    writer = gettid();
    TlogPrintf(context_, 3, "F", 1, "text");
  }).join();
  EXPECT_NE(writer, gettid());
  EXPECT_NE(captured.text().find("Z " + std::to_string(writer) + " 3 "), std::string::npos)
      << captured.text();
}

TEST_F(TlogLine, HasADashForAMissingContext) {
  const CapturedStandardError captured;
  TlogPrintf(nullptr, 5, "F", 1, "text");
  EXPECT_THAT(captured.text(), IsOneLine(R"(\S+Z [0-9]+ 5 - F:1 text)"));
}

TEST_F(TlogLine, TimestampLiesBetweenTheClockBeforeAndAfter) {
  const CapturedStandardError captured;
  std::timespec before{};
  std::timespec after{};
  clock_gettime(CLOCK_REALTIME, &before);
  TlogPrintf(context_, 3, "F", 1, "text");
  clock_gettime(CLOCK_REALTIME, &after);
  const std::string timestamp = captured.text().substr(0, 27);
  EXPECT_LE(tlog::formatTimestamp(before).data(), timestamp);
  EXPECT_LE(timestamp, tlog::formatTimestamp(after).data());
}

TEST_F(TlogLine, TimestampIsUtcWithSixDigitsOfMicroseconds) {
  require(setenv("TZ", "XYZ-5", 1) == 0, "setenv");
  tzset();
  EXPECT_STREQ(tlog::formatTimestamp({1795230245, 123456789}).data(), "2026-11-21T03:04:05.123456Z");
  EXPECT_STREQ(tlog::formatTimestamp({1795230245, 7999}).data(), "2026-11-21T03:04:05.000007Z");
  EXPECT_STREQ(tlog::formatTimestamp({4102444800, 0}).data(), "2100-01-01T00:00:00.000000Z");
  unsetenv("TZ");
  tzset();
}

TEST_F(TlogLine, WritesControlCharactersAsHexEscapes) {
  const CapturedStandardError captured;
  TlogPrintf(context_, 3, "F", 1, "a\nb\rc\x1b[31m\td\x7f%c\x01", 0);
  EXPECT_THAT(captured.text(), IsOneLine(R"(.* F:1 a\\x0ab\\x0dc\\x1b\[31m\\x09d\\x7f\\x00\\x01)"));
}

TEST_F(TlogLine, EscapesOnlyControlAndBidirectionalCharacters) {
  for (const auto& [text, expected] : std::vector<std::pair<std::string, std::string>>{
           // Kept: blanks, backslashes, text in UTF-8, and other bytes that are not UTF-8.
           {"  C:\\x0a ~ \xc2\xa0\xc3\xa4\xe2\x82\xac\xf0\x9f\x92\xbe ",
            "  C:\\x0a ~ \xc2\xa0\xc3\xa4\xe2\x82\xac\xf0\x9f\x92\xbe "},
           {"\xa0", "\xa0"},
           {"\xc2", "\xc2"},
           {"\xc2z", "\xc2z"},
           {"\xff\xfe", "\xff\xfe"},
           {"\xb0"
            "C",
            "\xb0"
            "C"},
           {"\xc2\xc2\xa0", "\xc2\xc2\xa0"},
           // C1 in UTF-8, and what follows it.
           {"\xc2\x80\xc2\x9b\xc2\x9f\xc2\xa0", "\\xc2\\x80\\xc2\\x9b\\xc2\\x9f\xc2\xa0"},
           // C1 as bytes.
           {"\x80\x9b\x9f\xa0", "\\x80\\x9b\\x9f\xa0"},
           // U+2029 to U+202F.
           {"\xe2\x80\xa9\xe2\x80\xaa\xe2\x80\xae\xe2\x80\xaf",
            "\xe2\x80\xa9\\xe2\\x80\\xaa\\xe2\\x80\\xae\xe2\x80\xaf"},
           // U+2065 to U+206A.
           {"\xe2\x81\xa5\xe2\x81\xa6\xe2\x81\xa9\xe2\x81\xaa",
            "\xe2\x81\xa5\\xe2\\x81\\xa6\\xe2\\x81\\xa9\xe2\x81\xaa"},
           // Letters whose last byte alone would be C1.
           {"\xc3\x89\xc3\x9b\xe2\x82\xac\xf0\x9f\x92\x9b", "\xc3\x89\xc3\x9b\xe2\x82\xac\xf0\x9f\x92\x9b"},
           // Not UTF-8: truncated, a byte missing, overlong, a surrogate, beyond the last character.
           {"\xe2\x82", "\xe2\\x82"},
           {"\xc2\xc2\x85", "\xc2\\xc2\\x85"},
           {"\xe2\x80z\xf0\x9f\x92", "\xe2\\x80z\xf0\\x9f\\x92"},
           {"\xc1\x9b\xe0\x82\x9b", "\xc1\\x9b\xe0\\x82\\x9b"},
           {"\xed\xa0\x80", "\xed\xa0\\x80"},
           {"\xf4\x90\x80\x80", "\xf4\\x90\\x80\\x80"},
           {"\xc2\n\xc3\x1b", "\xc2\\x0a\xc3\\x1b"}}) {
    EXPECT_EQ(tlog::escapeControlCharacters(text), expected);
  }
}

TEST_F(TlogLine, TakesPerCentSignsOfAnArgumentVerbatim) {
  const CapturedStandardError captured;
  TlogPrintf(context_, 3, "F", 1, "%s", "100%s %n %d%%");
  EXPECT_THAT(captured.text(), IsOneLine(R"(.* F:1 100%s %n %d%%)"));
}

TEST_F(TlogLine, IsNeverTruncated) {
  for (const std::size_t length : {0U, 1U, 511U, 512U, 1023U, 1024U, 4096U, 65536U, 1000000U}) {
    const CapturedStandardError captured;
    TlogPrintf(context_, 3, "F", 1, "<%s>", std::string(length, 'x').c_str());
    const std::string text = captured.text();
    EXPECT_EQ(text.substr(text.find('<')), '<' + std::string(length, 'x') + ">\n") << length;
  }
}

TEST_F(TlogLine, ShowsAFormatThatCannotBeFormatted) {
  const CapturedStandardError captured;
  const std::array<wchar_t, 2> euro{0x20ac, 0};  // not in the C locale
  TlogPrintf(context_, 3, "F", 1, "label %ls", euro.data());
  EXPECT_THAT(captured.text(), IsOneLine(R"(.* F:1 \(cannot be formatted\) label %ls)"));
}

TEST_F(TlogLine, IsOneWrite) {
  std::array<int, 2> ends{};
  require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) == 0, "socketpair");
  {
    const RedirectedStandardError redirection(ends[1]);
    TlogPrintf(context_, 3, "F", 1, "first");
    TlogPrintf(context_, 3, "F", 2, "second");
  }
  close(ends[1]);
  std::vector<std::string> packets;
  std::array<char, 1024> buffer{};
  for (ssize_t count = 0; (count = recv(ends[0], buffer.data(), buffer.size(), 0)) > 0;) {
    packets.emplace_back(buffer.data(), static_cast<std::size_t>(count));
  }
  close(ends[0]);
  ASSERT_EQ(packets.size(), 2U);
  EXPECT_THAT(packets[0], IsOneLine(R"(\S+Z .* F:1 first)"));
  EXPECT_THAT(packets[1], IsOneLine(R"(\S+Z .* F:2 second)"));
}

TEST_F(TlogLine, LeavesErrnoAlone) {
  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  require(full >= 0, "open /dev/full");
  const RedirectedStandardError redirection(full);
  close(full);
  errno = ENOTCONN;
  TlogPrintf(context_, 3, "F", 1, "text");
  EXPECT_EQ(errno, ENOTCONN);
  TlogStackTrace();
  EXPECT_EQ(errno, ENOTCONN);
}

TEST_F(TlogLine, HasAFixedTextWithoutMemoryForItsOwn) {
  const std::string text(100, 'x');
  int pieces = 0;
  for (bool happened = true; happened; ++pieces) {
    const CapturedStandardError captured;
    errno = ENOTCONN;
    {
      const MemoryShortage shortage(pieces);
      TlogPrintf(context_, 4, "F", 7, "%s", text.c_str());
    }
    EXPECT_EQ(errno, ENOTCONN);
    happened = MemoryShortage::happened();
    const std::string expected = happened ? R"(\(no memory for the text of this line\))" : text;
    EXPECT_THAT(captured.text(), IsOneLine(R"(\S+Z [0-9]+ 4 Test\.Context F:7 )" + expected));
  }
  EXPECT_GT(pieces, 3);
}

TEST_F(TlogLine, IsWrittenWhateverTheThreshold) {
  const CapturedStandardError captured;
  context_->setThreshold(6);
  TlogPrintf(context_, 1, "F", 1, "text");
  EXPECT_EQ(captured.lines().size(), 1U);
}

TEST_F(TlogLine, IsWrittenCompletelyIntoANonBlockingPipe) {
  const std::string text(300000, 'x');
  const std::string all =
      PipedStandardError(O_NONBLOCK).collect([&] { TlogPrintf(context_, 3, "F", 1, "<%s>", text.c_str()); });
  EXPECT_TRUE(all.substr(all.find('<')) == '<' + text + ">\n") << all.size();
}

namespace {

// Returns once the thread sleeps in the kernel or has ended.
void waitUntilAsleep(pid_t thread) {
  char state = 'R';
  while (state == 'R') {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string stat;
    std::getline(file, stat);
    const auto name = stat.rfind(')');
    state = name == std::string::npos ? 'X' : stat.at(name + 2);
  }
}

}  // namespace

TEST_F(TlogLine, IsWrittenAlthoughSignalsInterruptTheWrite) {
  struct sigaction action {};
  struct sigaction before {};
  action.sa_handler = [](int) {};
  require(sigaction(SIGUSR1, &action, &before) == 0, "sigaction");

  PipedStandardError pipe;
  pipe.fill();
  std::future<std::string> all;
  {
    const RedirectedStandardError redirection(pipe.writeEnd());
    std::promise<pid_t> writerId;
    std::thread writer([&] {
      writerId.set_value(gettid());
      TlogPrintf(context_, 3, "F", 1, "<text>");
    });
    const pid_t thread = writerId.get_future().get();
    for (int i = 0; i < 20; ++i) {
      waitUntilAsleep(thread);
      pthread_kill(writer.native_handle(), SIGUSR1);
    }
    all = std::async(std::launch::async, [&] { return pipe.readToEnd(); });
    writer.join();
  }
  pipe.closeWriteEnd();
  const std::string text = all.get();
  sigaction(SIGUSR1, &before, nullptr);
  EXPECT_THAT(text.substr(std::min(text.size(), text.find_first_not_of('.'))),
              IsOneLine(R"(\S+Z [0-9]+ 3 Test\.Context F:1 <text>)"));
}

TEST(TlogStart, WritesToStandardErrorBeforeInit) {
  const CapturedStandardError captured;
  TlogPrintf(contextBeforeMain, 3, "F", 1, "early");
  EXPECT_THAT(captured.text(), IsOneLine(R"(\S+Z [0-9]+ 3 Test\.BeforeMain F:1 early)"));
}

TEST(TlogStart, ContextBeforeInitHasTheDefaultThreshold) {
  EXPECT_EQ(TlogContext::GetLogContext("Test.NeverSet", "F", 1)->threshold(), TlogContext::defaultThreshold);
}

TEST_F(TlogLine, IsLostWithoutHarmWhenItsReaderHasGone) {
  std::signal(SIGPIPE, SIG_DFL);
  TlogInit();
  struct sigaction action {};
  require(sigaction(SIGPIPE, nullptr, &action) == 0, "sigaction");
  ASSERT_EQ(action.sa_handler, SIG_IGN);
  std::array<int, 2> ends{};
  require(pipe2(ends.data(), O_CLOEXEC) == 0, "pipe2");
  close(ends[0]);
  {
    const RedirectedStandardError redirection(ends[1]);
    TlogPrintf(context_, 3, "F", 1, "text");
  }
  close(ends[1]);
}

TEST(TlogStart, ResetsAnIgnoredSigchldSoThatCommandsEnd) {
  std::signal(SIGCHLD, SIG_IGN);
  TlogInit();
  struct sigaction action {};
  require(sigaction(SIGCHLD, nullptr, &action) == 0, "sigaction");
  EXPECT_EQ(action.sa_handler, SIG_DFL);
  EXPECT_EQ(std::system("exit 3"), 3 << 8);
}

TEST_F(TlogLevel, IsThreeForAllContextsByDefault) {
  context_->setThreshold(1);
  TlogInit();
  EXPECT_EQ(context_->threshold(), 3);
  EXPECT_EQ(contextBeforeMain->threshold(), 3);
}

TEST_F(TlogLevel, GetLogContextReturnsTheSameContextForTheSameName) {
  TlogContext* const again = TlogContext::GetLogContext(std::string("Test.Context").c_str(), "other", 9);
  EXPECT_EQ(again, context_);
  EXPECT_EQ(again->name(), "Test.Context");
  EXPECT_NE(again, contextBeforeMain);
}

TEST_F(TlogLevel, AppliesToContextsMadeBeforeAndAfterInit) {
  initWith("TLOG_LEVEL", "4,Test.BeforeMain=2,Test.MadeLater=1");
  EXPECT_EQ(contextBeforeMain->threshold(), 2);
  EXPECT_EQ(context_->threshold(), 4);
  EXPECT_EQ(TlogContext::GetLogContext("Test.MadeLater", "F", 1)->threshold(), 1);
  EXPECT_EQ(TlogContext::GetLogContext("Test.MadeLater2", "F", 1)->threshold(), 4);
}

TEST_F(TlogLevel, TakesExceptionsInAnyPlace) {
  const auto thresholds = tlog::parseThresholds("A=1,5,B.C=6");
  ASSERT_TRUE(thresholds);
  EXPECT_EQ(thresholds->of("A"), 1);
  EXPECT_EQ(thresholds->of("B.C"), 6);
  EXPECT_EQ(thresholds->of("B"), 5);
}

TEST_F(TlogLevel, KeepsTheDefaultIfThereAreOnlyExceptions) {
  const auto thresholds = tlog::parseThresholds("Dockhand.UsbClient=2");
  ASSERT_TRUE(thresholds);
  EXPECT_EQ(thresholds->of("Dockhand.UsbClient"), 2);
  EXPECT_EQ(thresholds->of("Dockhand"), 3);
}

TEST_F(TlogLevel, RefusesEverythingButAListOfLevelsFromOneToSix) {
  for (const char* value :
       {"0",     "7",   "-1",  "+3",      "03", "3.0",   "x",   "3x",     " 3",
        "3 ",    "3,",  ",3",  "3,,A=1",  "=2", "A=",    "A=0", "A=7",    "A=x",
        "A=1=2", "3,4", "3,3", "A=1,A=2", "A",  "3;A=1", "10",  "3,A= 1", "99999999999999999999",
        "\n"}) {
    EXPECT_FALSE(tlog::parseThresholds(value)) << value;
  }
}

TEST_F(TlogLevel, ReportsABadValueOnceAndUsesTheDefaultForAll) {
  const CapturedStandardError captured;
  initWith("TLOG_LEVEL", "5,Test.Context=2,\x1b]0;x");
  EXPECT_EQ(context_->threshold(), 3);
  EXPECT_EQ(TlogContext::GetLogContext("Test.AfterBadValue", "F", 1)->threshold(), 3);
  EXPECT_THAT(captured.text(), IsOneLine(R"(\S+Z [0-9]+ 4 - Src/Tlog/Tlog:[0-9]+ TLOG_LEVEL: bad value )"
                                         R"("5,Test\.Context=2,\\x1b\]0;x", using the default, 3)"));
}

TEST_F(TlogLevel, EmptyValueCountsAsAbsent) {
  const CapturedStandardError captured;
  initWith("TLOG_LEVEL", "");
  initWith("TLOG_TARGET", "");
  EXPECT_EQ(context_->threshold(), 3);
  EXPECT_EQ(captured.text(), "");
  TlogPrintf(context_, 3, "F", 1, "text");
  EXPECT_EQ(captured.lines().size(), 1U);
}

TEST_F(TlogTarget, StderrWritesToStandardError) {
  const CapturedStandardError captured;
  initWith("TLOG_TARGET", "stderr");
  TlogPrintf(context_, 3, "F", 1, "text");
  EXPECT_THAT(captured.text(), IsOneLine(R"(\S+Z [0-9]+ 3 Test\.Context F:1 text)"));
}

TEST_F(TlogTarget, SyslogWritesNothingToStandardError) {
  const CapturedStandardError captured;
  initWith("TLOG_TARGET", "syslog");
  TlogPrintf(context_, 5, "F", 1, "text");
  TlogStackTrace();
  EXPECT_EQ(captured.text(), "");
}

TEST_F(TlogTarget, BadLevelIsReportedOnStandardErrorEvenIfTheTargetIsSyslog) {
  const CapturedStandardError captured;
  require(setenv("TLOG_TARGET", "syslog", 1) == 0, "setenv");
  initWith("TLOG_LEVEL", "loud");
  ASSERT_EQ(captured.lines().size(), 1U);
  EXPECT_NE(captured.text().find("TLOG_LEVEL: bad value \"loud\""), std::string::npos) << captured.text();
}

TEST_F(TlogTarget, ReportsABadValueOnceAndUsesStandardError) {
  for (const char* value : {"SYSLOG", "stderr ", "file:/tmp/x", "3"}) {
    const CapturedStandardError captured;
    initWith("TLOG_TARGET", value);
    TlogPrintf(context_, 3, "F", 1, "text");
    const std::vector<std::string> lines = captured.lines();
    ASSERT_EQ(lines.size(), 2U) << value;
    EXPECT_NE(
        lines[0].find(std::string(" TLOG_TARGET: bad value \"") + value + "\", using the default, stderr"),
        std::string::npos)
        << lines[0];
    EXPECT_TRUE(matches(lines[1], R"(\S+Z .* F:1 text)")) << lines[1];
  }
}

TEST_F(TlogTarget, SyslogLineHasNoTimestampAndNoLineEnd) {
  EXPECT_EQ(tlog::composeLine(77, 4, "Dockhand.Mount", "Src/A", 5, "two\nlines \\ 50%"),
            "77 4 Dockhand.Mount Src/A:5 two\\x0alines \\ 50%");
  EXPECT_EQ(tlog::composeLine(77, 4, nullptr, nullptr, 5, ""), "77 4 - -:5 ");
}

TEST_F(TlogTarget, SyslogPriorityFollowsTheLevel) {
  EXPECT_EQ(tlog::syslogPriority(0), LOG_DEBUG);
  EXPECT_EQ(tlog::syslogPriority(1), LOG_DEBUG);
  EXPECT_EQ(tlog::syslogPriority(2), LOG_DEBUG);
  EXPECT_EQ(tlog::syslogPriority(3), LOG_NOTICE);
  EXPECT_EQ(tlog::syslogPriority(4), LOG_WARNING);
  EXPECT_EQ(tlog::syslogPriority(5), LOG_ERR);
  EXPECT_EQ(tlog::syslogPriority(6), LOG_ERR);
}

TEST_F(TlogThreads, LinesNeverMix) {
  constexpr int threadCount = 8;
  constexpr int linesPerThread = 200;
  // More than PIPE_BUF: the kernel keeps shorter writes together.
  constexpr std::size_t length = 6000;
  const std::string all = PipedStandardError().collect([&] {
    std::vector<std::thread> threads;
    threads.reserve(threadCount);
    for (int i = 0; i < threadCount; ++i) {
      threads.emplace_back([this, i] {
        const std::string text(length, static_cast<char>('a' + i));
        for (int line = 0; line < linesPerThread; ++line) {
          TlogPrintf(context_, 3, "F", line, "%s", text.c_str());
        }
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
  });

  std::array<int, threadCount> seen{};
  for (const std::string& line : linesOf(all)) {
    ASSERT_GT(line.size(), length);
    const std::string head = line.substr(0, line.size() - length);
    const char letter = line.back();
    const auto thread = static_cast<std::size_t>(letter - 'a');
    ASSERT_LT(thread, seen.size());
    const std::string place = " F:" + std::to_string(seen[thread]++) + ' ';
    ASSERT_TRUE(matches(head, R"(\S+Z [0-9]+ 3 Test\.Context)" + place)) << head;
    ASSERT_TRUE(line.substr(head.size()) == std::string(length, letter)) << line;
  }
  for (const int count : seen) {
    EXPECT_EQ(count, linesPerThread);
  }
}

TEST_F(TlogThreads, GetTheSameContextForTheSameName) {
  constexpr int rounds = 100;
  std::vector<std::vector<TlogContext*>> found(4);
  std::vector<std::thread> threads;
  threads.reserve(found.size());
  for (auto& contexts : found) {
    threads.emplace_back([&contexts] {
      for (int i = 0; i < rounds; ++i) {
        const std::string name = "Test.Shared" + std::to_string(i);
        contexts.push_back(TlogContext::GetLogContext(name.c_str(), "F", 1));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (const auto& contexts : found) {
    EXPECT_EQ(contexts, found.front());
  }
  EXPECT_EQ(found.front()[7]->name(), "Test.Shared7");
}

// All memory of this program, except types with extended alignment.
void* operator new(std::size_t size) {
  void* const memory = MemoryShortage::isNow() ? nullptr : std::malloc(std::max(size, std::size_t{1}));
  if (memory == nullptr) {
    errno = ENOMEM;
    throw std::bad_alloc();
  }
  return memory;
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

// Outside the unnamed namespace, so that its name is exported.
void traceFromANamedFunction();
__attribute__((noinline)) void traceFromANamedFunction() {
  TlogStackTrace();
  // Prevents a tail call, which would leave no frame.
  std::atomic_signal_fence(std::memory_order_seq_cst);
}

TEST_F(TlogStack, NamesTheCallingFunctions) {
  const CapturedStandardError captured;
  traceFromANamedFunction();
  const std::vector<std::string> lines = captured.lines();
  ASSERT_GE(lines.size(), 3U);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const std::string frame = std::to_string(i) + "# ";
    EXPECT_TRUE(matches(lines[i], R"(\S+Z [0-9]+ 1 - Src/Tlog/Tlog:[0-9]+ )" + frame + ".+")) << lines[i];
  }
  EXPECT_NE(captured.text().find("# traceFromANamedFunction() in "), std::string::npos) << captured.text();
  EXPECT_NE(captured.text().find("NamesTheCallingFunctions"), std::string::npos) << captured.text();
}

TEST_F(TlogStack, DoesNotThrowWithoutMemory) {
  bool happened = true;
  for (int pieces = 0; happened; ++pieces) {
    const CapturedStandardError captured;
    const MemoryShortage shortage(pieces);
    EXPECT_NO_THROW(TlogStackTrace()) << pieces;
    happened = MemoryShortage::happened();
  }
}

TEST_F(TlogStack, HasNoOtherThreadsLinesBetweenItsOwn) {
  constexpr int traces = 20;
  const std::string all = PipedStandardError().collect([this] {
    std::atomic<bool> done{false};
    std::vector<std::thread> others;
    others.reserve(3);
    for (int i = 0; i < 3; ++i) {
      others.emplace_back([this, &done] {
        while (!done) {
          TlogPrintf(context_, 3, "F", 1, "other");
        }
      });
    }
    for (int i = 0; i < traces; ++i) {
      traceFromANamedFunction();
    }
    done = true;
    for (std::thread& other : others) {
      other.join();
    }
  });

  // Every trace is made at the same place, so all are as deep as the first one.
  int tracesSeen = 0;
  int depth = 0;
  int next = 0;
  for (const std::string& line : linesOf(all)) {
    const bool isOther = line.find(" Test.Context ") != std::string::npos;
    const bool isTop = line.find(" 0# ") != std::string::npos;
    if (isOther || isTop) {
      depth = depth == 0 ? next : depth;
      ASSERT_EQ(next, depth) << line;
    }
    if (isTop) {
      ++tracesSeen;
      next = 1;
    } else if (!isOther) {
      ASSERT_NE(line.find(' ' + std::to_string(next) + "# "), std::string::npos) << line;
      ++next;
    }
  }
  EXPECT_EQ(tracesSeen, traces);
}
