#ifndef DOCKHANDCTL_TEXT_H
#define DOCKHANDCTL_TEXT_H

#include <ostream>
#include <string>
#include <vector>

/// Texts for people. Texts from disks are untrusted and go through printable(). Call useUtf8() first. One
/// thread at a time.
namespace dockhandctl {

/// Makes the functions below read texts as UTF-8, whatever the user's locale is. If the system has no such
/// locale, everything but ASCII counts as unprintable.
void useUtf8();

/// The text without what could drive a terminal or mislead the reader. Control characters, bytes that are not
/// UTF-8, and characters that reorder or hide text are written \xHH, byte by byte. A backslash becomes two.
std::string printable(const std::string& text);

/// The width of a printable text in columns of a terminal.
int columns(const std::string& text);

/// Writes "dockhandctl: " and the text as a line to standard error.
void complain(const std::string& text);

/// Columns of equal width, two blanks apart.
class Table {
 public:
  explicit Table(std::vector<std::string> headings);

  /// Takes one printable cell for each heading.
  void add(std::vector<std::string> cells);
  void print(std::ostream& out) const;

 private:
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace dockhandctl

#endif  // DOCKHANDCTL_TEXT_H
