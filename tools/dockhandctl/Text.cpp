#include "Text.h"

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cwchar>
#include <cwctype>
#include <iostream>
#include <utility>

namespace dockhandctl {
namespace {

struct Character {
  wchar_t value;
  std::size_t length;
  bool valid;
};

Character characterAt(const std::string& text, std::size_t position) {
  std::mbstate_t state{};
  wchar_t value = 0;
  const std::size_t length = std::mbrtowc(&value, text.data() + position, text.size() - position, &state);
  if (length == 0 || length > text.size()) {  // NUL, or one of the two error values
    return {0, 1, false};
  }
  return {value, length, true};
}

/// Invisible characters that libc calls printable: they reorder or hide the text around them.
bool misleads(wchar_t character) {
  return character == 0x061C || (character >= 0x200B && character <= 0x200F) ||
         (character >= 0x202A && character <= 0x202E) || (character >= 0x2060 && character <= 0x206F) ||
         character == 0xFEFF;
}

bool isPrintable(const Character& character) {
  return character.valid && std::iswprint(static_cast<wint_t>(character.value)) != 0 &&
         wcwidth(character.value) >= 0 && !misleads(character.value);
}

std::string escaped(char byte) {
  char text[5];
  static_cast<void>(std::snprintf(text, sizeof(text), "\\x%02X", static_cast<unsigned char>(byte)));
  return text;
}

}  // namespace

void useUtf8() {
  if (std::setlocale(LC_CTYPE, "C.UTF-8") == nullptr) {
    std::setlocale(LC_CTYPE, "C");
  }
}

std::string printable(const std::string& text) {
  std::string result;
  for (std::size_t position = 0; position < text.size();) {
    const Character character = characterAt(text, position);
    if (character.value == L'\\') {
      result += "\\\\";
    } else if (isPrintable(character)) {
      result.append(text, position, character.length);
    } else {
      for (std::size_t i = 0; i < character.length; ++i) {
        result += escaped(text[position + i]);
      }
    }
    position += character.length;
  }
  return result;
}

int columns(const std::string& text) {
  int result = 0;
  for (std::size_t position = 0; position < text.size();) {
    const Character character = characterAt(text, position);
    result += character.valid ? std::max(0, wcwidth(character.value)) : 1;
    position += character.length;
  }
  return result;
}

void complain(const std::string& text) {
  std::cout.flush();
  std::cerr << "dockhandctl: " << text << std::endl;
}

Table::Table(std::vector<std::string> headings) : rows_{std::move(headings)} {}

void Table::add(std::vector<std::string> cells) {
  rows_.push_back(std::move(cells));
}

void Table::print(std::ostream& out) const {
  std::vector<int> widths(rows_.front().size(), 0);
  for (const auto& row : rows_) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], columns(row[i]));
    }
  }
  for (const auto& row : rows_) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += row[i] + std::string(static_cast<std::size_t>(widths[i] - columns(row[i]) + 2), ' ');
    }
    line.erase(line.find_last_not_of(' ') + 1);
    out << line << '\n';
  }
}

}  // namespace dockhandctl
