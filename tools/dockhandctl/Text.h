#ifndef DOCKHANDCTL_TEXT_H
#define DOCKHANDCTL_TEXT_H

#include <ostream>
#include <string>
#include <vector>

/// Texts for people. Those that come from disks are not to be trusted: they go through printable(). Call
/// useUtf8() first. One thread at a time.
namespace dockhandctl {

/// Makes the functions below take texts for UTF-8 whatever the user's locale is. Where the system has no such
/// locale, everything that is not ASCII counts as unprintable.
void useUtf8();

/// The text with all that could drive a terminal or mislead the reader written \xHH, byte by byte: control
/// characters, bytes that are no UTF-8, characters that reorder or hide text. A backslash becomes two.
std::string printable(const std::string& text);

/// How many columns of a terminal a printable text takes.
int columns(const std::string& text);

/// "dockhandctl: " and the text, as a line on standard error.
void complain(const std::string& text);

/// Columns of equal width, two blanks apart.
class Table {
 public:
  explicit Table(std::vector<std::string> headings);

  /// As many cells as there are headings, already printable.
  void add(std::vector<std::string> cells);
  void print(std::ostream& out) const;

 private:
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace dockhandctl

#endif  // DOCKHANDCTL_TEXT_H
