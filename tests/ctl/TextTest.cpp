// Texts for people.

#include <gtest/gtest.h>

#include <sstream>

#include "Text.h"

namespace {

using dockhandctl::columns;
using dockhandctl::printable;

class Text : public ::testing::Test {
 protected:
  Text() { dockhandctl::useUtf8(); }
};

TEST_F(Text, StaysUnchangedWhereItIsPrintable) {
  EXPECT_EQ(printable(""), "");
  EXPECT_EQ(printable("M\u00FCll 100% \u5199\u771F"), "M\u00FCll 100% \u5199\u771F");
}

TEST_F(Text, HasItsControlCharactersEscaped) {
  EXPECT_EQ(printable(std::string("a\0b\t\x1B\x7F\n", 7)), R"(a\x00b\x09\x1B\x7F\x0A)");
  EXPECT_EQ(printable("\u009B"), R"(\xC2\x9B)");
}

TEST_F(Text, HasItsInvalidBytesEscaped) {
  EXPECT_EQ(printable("a\xFF\xC3"), R"(a\xFF\xC3)");
  EXPECT_EQ(printable("\xC0\x80"), R"(\xC0\x80)");
  EXPECT_EQ(printable("\xED\xA0\x80"), R"(\xED\xA0\x80)");
}

TEST_F(Text, HasReorderingAndInvisibleCharactersEscaped) {
  EXPECT_EQ(printable("\u202Egpj\u200B"), R"(\xE2\x80\xAEgpj\xE2\x80\x8B)");
}

TEST_F(Text, HasItsBackslashesDoubled) {
  EXPECT_EQ(printable(R"(\x1B)"), R"(\\x1B)");
}

TEST_F(Text, HasTheWidthThatATerminalShows) {
  EXPECT_EQ(columns("abc"), 3);
  EXPECT_EQ(columns("M\u00FCll"), 4);
  EXPECT_EQ(columns("\u5199\u771F"), 4);
  EXPECT_EQ(columns("e\u0301"), 1);
}

TEST_F(Text, IsAlignedInATable) {
  dockhandctl::Table table({"A", "LONG", "B"});
  table.add({"\u5199\u771F", "x", ""});
  table.add({"1", "22222", "3"});
  std::ostringstream out;
  table.print(out);
  EXPECT_EQ(out.str(),
            "A     LONG   B\n"
            "\u5199\u771F  x\n"
            "1     22222  3\n");
}

}  // namespace
