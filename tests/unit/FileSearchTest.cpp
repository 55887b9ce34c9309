// Files by extension.

#include "HandlerTest.h"

namespace {

class FileSearch : public HandlerTest {
 protected:
  /// Makes a mounted device whose directory "music" contains these names.
  std::int16_t mountWith(const std::vector<std::string>& names) {
    const auto id = plugIn({"sdb1"});
    entry(id).mountPoint = "/media/disk_1";
    entry(id).deviceOpen = true;
    platform.directories["/media/disk_1/music"] = names;
    return id;
  }
  std::vector<std::string> search(std::int16_t deviceId, const std::string& directory,
                                  const std::string& extension) {
    std::vector<std::string> found;
    handler->GetFilesByExtension(found, deviceId, directory, extension);
    return found;
  }
};

TEST_F(FileSearch, FindsTheExtensionAsGivenAndInUpperCaseInTheOrderOfTheDirectory) {
  const auto id = mountWith({"z.mp3", "song.Mp3", "a.MP3", "song.mP3", "m.mp3", "n.mp34", "n.amp3", "n.mp"});
  EXPECT_THAT(search(id, "music", "mp3"), ElementsAre("z.mp3", "a.MP3", "m.mp3"));
  EXPECT_THAT(journal().events(), ElementsAre("log 2 @1402 GetFilesByExtension(1)",
                                              "opendir /media/disk_1/music", "closedir /media/disk_1/music"));
}

TEST_F(FileSearch, FindsNoLowerCaseNameForAnExtensionInUpperCase) {
  const auto id = mountWith({"song.mp3", "song.MP3"});
  EXPECT_THAT(search(id, "music", "MP3"), ElementsAre("song.MP3"));
}

TEST_F(FileSearch, FindsAMixedExtensionAsGivenAndInUpperCase) {
  const auto id = mountWith({"a.Mp3", "b.mp3", "c.MP3", "d.mP3"});
  EXPECT_THAT(search(id, "music", "Mp3"), ElementsAre("a.Mp3", "c.MP3"));
}

TEST_F(FileSearch, ListsHiddenFilesButNeverTheDirectoryItselfAndItsParent) {
  const auto id = mountWith({".", "..", ".x.mp3", ".mp3"});
  EXPECT_THAT(search(id, "music", "mp3"), ElementsAre(".x.mp3", ".mp3"));
}

TEST_F(FileSearch, FindsWithAnEmptyExtensionOnlyNamesThatEndInADot) {
  const auto id = mountWith({".", "..", "...", "a.", "plain", "b.mp3", ".hidden", "c.."});
  EXPECT_THAT(search(id, "music", ""), ElementsAre("...", "a.", "c.."));
}

TEST_F(FileSearch, TreatsANameWithoutADotAsItsExtension) {
  const auto id = mountWith({"mp3", "MP3", "Mp3", "xmp3"});
  EXPECT_THAT(search(id, "music", "mp3"), ElementsAre("mp3", "MP3"));
}

TEST_F(FileSearch, MatchesOnlyTheTextAfterTheLastDot) {
  const auto id = mountWith({"archive.tar.gz"});
  EXPECT_THAT(search(id, "music", "gz"), ElementsAre("archive.tar.gz"));
  EXPECT_THAT(search(id, "music", "tar.gz"), IsEmpty());
  EXPECT_THAT(search(id, "music", ".gz"), IsEmpty());
  EXPECT_THAT(search(id, "music", "tar"), IsEmpty());
}

TEST_F(FileSearch, ListsANameOnceEvenIfItMatchesBothForms) {
  const auto id = mountWith({"a.MP3", "b.7Z", "c.123"});
  EXPECT_THAT(search(id, "music", "MP3"), ElementsAre("a.MP3"));
  EXPECT_THAT(search(id, "music", "123"), ElementsAre("c.123"));
}

TEST_F(FileSearch, ConvertsOnlyTheLettersFromAToZ) {
  const auto id = mountWith({"a.7Z", "b.\xC3\xA4q", "c.\xC3\x84Q", "d.\xC3\xA4Q", "e.\xE4", "f.\xC4"});
  EXPECT_THAT(search(id, "music", "7z"), ElementsAre("a.7Z"));
  EXPECT_THAT(search(id, "music", "\xC3\xA4q"), ElementsAre("b.\xC3\xA4q", "d.\xC3\xA4Q"));
  EXPECT_THAT(search(id, "music", "\xE4"), ElementsAre("e.\xE4"));
}

TEST_F(FileSearch, AppendsToTheList) {
  const auto id = mountWith({"a.mp3"});
  std::vector<std::string> found = {"a.mp3", "before"};
  handler->GetFilesByExtension(found, id, "music", "mp3");
  EXPECT_THAT(found, ElementsAre("a.mp3", "before", "a.mp3"));
}

TEST_F(FileSearch, ListsTheMountPointItselfForAnEmptyDirectory) {
  const auto id = mountWith({});
  platform.directories["/media/disk_1/"] = {"top.mp3"};
  EXPECT_THAT(search(id, "", "mp3"), ElementsAre("top.mp3"));
}

TEST_F(FileSearch, SearchesOnlyTheGivenDirectory) {
  const auto id = mountWith({"album.mp3"});
  platform.directories["/media/disk_1/music/album.mp3"] = {"inner.mp3"};
  EXPECT_THAT(search(id, "music", "mp3"), ElementsAre("album.mp3"));
  EXPECT_THAT(journal().eventsBeginning("opendir"), ElementsAre("opendir /media/disk_1/music"));
}

TEST_F(FileSearch, SearchesFromTheRootDirectoryForADeviceThatWasNeverOpened) {
  const auto id = plugIn({"sdb1"});
  platform.directories["/etc"] = {"a.conf"};
  EXPECT_THAT(search(id, "etc", "conf"), ElementsAre("a.conf"));
}

TEST_F(FileSearch, SearchesFromTheRootDirectoryForAnUnknownDeviceWithoutReportingIt) {
  mountWith({"a.conf"});
  addRecordsUnderUnsignedNumbers();
  platform.directories["/etc"] = {"b.conf"};
  for (const auto id : unknownIds) {
    journal().clear();
    EXPECT_THAT(search(id, "etc", "conf"), ElementsAre("b.conf"));
    EXPECT_THAT(journal().events(), ElementsAre("log 2 @1402 GetFilesByExtension(" + std::to_string(id) + ")",
                                                "opendir /etc", "closedir /etc"));
  }
}

TEST_F(FileSearch, LeavesTheListUnchangedIfTheDirectoryCannotBeOpened) {
  const auto id = mountWith({"a.mp3"});
  std::vector<std::string> found = {"before"};
  handler->GetFilesByExtension(found, id, "missing", "mp3");
  EXPECT_THAT(found, ElementsAre("before"));
  EXPECT_THAT(journal().events(),
              ElementsAre("log 2 @1402 GetFilesByExtension(1)", "opendir /media/disk_1/missing"));
  EXPECT_FALSE(lockIsHeld());
}

TEST_F(FileSearch, FindsNothingInAnEmptyDirectory) {
  const auto id = mountWith({});
  EXPECT_THAT(search(id, "music", "mp3"), IsEmpty());
  EXPECT_THAT(journal().calls(), ElementsAre("opendir /media/disk_1/music", "closedir /media/disk_1/music"));
}

TEST_F(FileSearch, PassesTheDirectoryUnchanged) {
  const auto id = mountWith({});
  const std::string hostile[] = {std::string(65536, 'd'),     "../../etc", "%s%n",
                                 std::string("music\0/x", 8), "/",         "\xFF\xFE"};
  for (const std::string& directory : hostile) {
    journal().clear();
    platform.directories["/media/disk_1/" + directory] = {"a.mp3"};
    EXPECT_THAT(search(id, directory, "mp3"), ElementsAre("a.mp3"));
    EXPECT_THAT(journal().calls(),
                ElementsAre("opendir /media/disk_1/" + directory, "closedir /media/disk_1/" + directory));
  }
}

TEST_F(FileSearch, FindsNothingForExtensionsThatNoNameCanHave) {
  const auto id = mountWith({"a.mp3", "mp3", "b.MP3", "c."});
  for (const std::string& extension : {std::string(65536, 'm'), std::string("mp3\0", 4),
                                       std::string("\0mp3", 4), std::string("*"), std::string("../mp3")}) {
    EXPECT_THAT(search(id, "music", extension), IsEmpty());
  }
}

TEST_F(FileSearch, FindsALongNameInFull) {
  const std::string name = std::string(251, 'n') + ".mp3";
  const auto id = mountWith({name});
  EXPECT_THAT(search(id, "music", "mp3"), ElementsAre(name));
}

TEST_F(FileSearch, LogsNothingAboveTraceLevel) {
  const auto id = mountWith({"a.mp3"});
  setThreshold(3);
  EXPECT_THAT(search(id, "music", "mp3"), ElementsAre("a.mp3"));
  search(id, "missing", "mp3");
  EXPECT_THAT(journal().logs(), IsEmpty());
}

}  // namespace
