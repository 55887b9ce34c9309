// The text for a failed mkdir or mount, and whether the opening continues.

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <map>

#include "FailureJudges.h"
#include "HandlerTest.h"

namespace {

struct Judgement {
  std::string text;
  bool accepted;
};

const std::map<int, Judgement> mkdirJudgements = {
    {1,
     {"Error on usb mount: The file system containing pathname does not support the creation of directories.",
      true}},
    {2,
     {"Error on usb mount: A directory component  in pathname does not exist or is a dangling symbolic link.",
      false}},
    {12, {"Error on usb mount: Insufficient kernel memory was available.", false}},
    {13, {"Error on usb mount: The parent directory does not allow write permission to the process", false}},
    {14, {"Error on usb mount: Pathname points outside your accessible address space.", false}},
    {17, {"", true}},
    {20,
     {"Error on usb mount: A component used as a directory in pathname is not, in fact, a directory", false}},
    {28,
     {"Error on usb mount: The new  directory  cannot  be  created because the user's disk quota is "
      "exhausted.",
      false}},
    {30, {"Error on usb mount: Pathname refers to a file on a read-only file system.", false}},
    {36, {"Error on usb mount: Partname was too long.", false}},
    {40, {"Error on usb mount: Too many symbolic links were encountered in resolving pathname.", false}},
};
const Judgement unknownMkdirError = {"Error on usb mount: Unknown mkdir error", false};

const std::map<int, Judgement> mountJudgements = {
    {1, {"Error on usb mount: The caller does not have the required privileges.", false}},
    {2, {"Error on usb mount: A pathname was empty or had a nonexistent component.", false}},
    {6, {"Error on usb mount: The major number of the block device source is out of range.", false}},
    {12,
     {"Error on usb mount: The kernel could not allocate a free page to copy filenames or data into.",
      false}},
    {13, {"Error on usb mount: A component of a path was not searchable.", false}},
    {14, {"Error on usb mount: One of the pointer arguments points outside the user address space.", false}},
    {15, {"Error on usb mount: source is not a block device (and a device was required).", false}},
    {16, {"Error on usb mount: Source  is  already  mounted.", true}},
    {19, {"Error on usb mount: Filesystemtype not configured in the kernel.", false}},
    {20, {"Error on usb mount: target, or a prefix of source, is not a directory.", false}},
    {22, {"Error on usb mount: Source had an invalid superblock (EINVAL).", true}},
    {24, {"Error on usb mount: Table of dummy devices is full.", false}},
    {36, {"Error on usb mount: A pathname was longer than MAXPATHLEN.", false}},
    {40, {"TError on usb mount: Too many links  encountered during pathname resolution.", false}},
};
const Judgement unknownMountError = {"Error on usb mount: Unknown mount error.", false};

Judgement expected(int error, const std::map<int, Judgement>& judgements, const Judgement& unknown) {
  const auto found = judgements.find(error);
  return found != judgements.end() ? found->second : unknown;
}

class FailureJudges : public HandlerTest {
 protected:
  /// The numbers of the tables, some above them, and some that no system call sets.
  static std::vector<int> errors() {
    std::vector<int> numbers = {INT_MIN, -40, -1, 61, 133, INT_MAX};
    for (int error = 0; error <= 45; ++error) {
      numbers.push_back(error);
    }
    return numbers;
  }
};

TEST_F(FailureJudges, PrintAndJudgeEachErrorOfMkdir) {
  for (const int error : errors()) {
    const Judgement judgement = expected(error, mkdirJudgements, unknownMkdirError);
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(Dockhand::acceptMkdirError(error), judgement.accepted) << error;
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), judgement.text + "\n") << error;
  }
  EXPECT_THAT(journal().events(), IsEmpty());
}

TEST_F(FailureJudges, JudgeTheErrorNumberThatIsPassedForMkdir) {
  ::testing::internal::CaptureStdout();
  errno = EEXIST;
  EXPECT_FALSE(Dockhand::acceptMkdirError(ESRCH));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Error on usb mount: Unknown mkdir error\n");
}

TEST_F(FailureJudges, FlushTheirOutput) {
  ::testing::internal::CaptureStdout();
  Dockhand::acceptMkdirError(36);
  struct stat output {};
  const int status = fstat(STDOUT_FILENO, &output);
  const std::string text = ::testing::internal::GetCapturedStdout();
  ASSERT_EQ(status, 0);
  EXPECT_EQ(static_cast<std::size_t>(output.st_size), text.size());
  EXPECT_EQ(text, "Error on usb mount: Partname was too long.\n");
}

TEST_F(FailureJudges, LogAndJudgeEachErrorOfMount) {
  for (const int error : errors()) {
    const Judgement judgement = expected(error, mountJudgements, unknownMountError);
    journal().clear();
    ::testing::internal::CaptureStdout();
    errno = error;
    const bool accepted = Dockhand::acceptMountError();
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "") << error;
    EXPECT_EQ(accepted, judgement.accepted) << error;
    EXPECT_THAT(journal().events(), ElementsAre("log 2 @590 " + judgement.text)) << error;
  }
}

TEST_F(FailureJudges, JudgeAMountEvenIfItsLineIsBelowTheThreshold) {
  setThreshold(3);
  errno = EINVAL;
  EXPECT_TRUE(Dockhand::acceptMountError());
  errno = ENODEV;
  EXPECT_FALSE(Dockhand::acceptMountError());
  EXPECT_THAT(journal().events(), IsEmpty());
}

TEST_F(FailureJudges, JudgeAMountEvenIfLoggingChangesErrno) {
  journal().onLine = [](const LoggedLine&) { errno = ENODEV; };
  errno = EBUSY;
  EXPECT_TRUE(Dockhand::acceptMountError());
  errno = ENOENT;
  journal().onLine = [](const LoggedLine&) { errno = EBUSY; };
  EXPECT_FALSE(Dockhand::acceptMountError());
}

}  // namespace
