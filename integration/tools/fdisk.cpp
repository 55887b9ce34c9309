// Comes before the real fdisk in the daemon's PATH.
//
// The daemon answers fdisk's questions through `echo -e`, and asks for one partition over the whole disk.
// This fdisk
// - removes the "-e " that the echo of dash puts before the first answer;
// - refuses a disk in use;
// - lets sfdisk make a GPT if a DOS table cannot name the end of the disk, that is with more than 2^32
// sectors;
// - fails if the disk has no such partition afterwards: the real fdisk exits with 0 even if it accepts no
// answer.
//
// It passes on every other call, and other answers without the "-e ".

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "Disk.h"
#include "Tool.h"

namespace {

using image::Disk;

const std::string tool = "fdisk";
const std::string daemonsAnswers = "n\np\n1\n\n\nw\n";
constexpr std::uint64_t maxSectorsOfDosTable = std::uint64_t{1} << 32U;

std::string readInput() {
  std::string text;
  std::array<char, 4096> buffer{};
  for (ssize_t count = 0; (count = read(STDIN_FILENO, buffer.data(), buffer.size())) > 0;) {
    text.append(buffer.data(), static_cast<std::size_t>(count));
  }
  return text;
}

std::uint64_t littleEndian(const unsigned char* bytes, int count) {
  std::uint64_t value = 0;
  while (count > 0) {
    --count;
    value = value << 8U | bytes[count];
  }
  return value;
}

/// Sectors of the only partition of a DOS table; 0 if there is none, or more than one.
std::uint64_t sectorsByDosTable(const Disk& disk) {
  constexpr std::size_t firstEntry = 446;
  constexpr std::size_t entrySize = 16;
  constexpr std::size_t typeAt = 4;
  constexpr std::size_t sectorsAt = 12;
  std::array<unsigned char, 512> table{};
  if (!disk.read(0, table.data(), table.size()) || table[510] != 0x55 || table[511] != 0xaa) {
    return 0;
  }
  for (std::size_t i = 1; i < 4; ++i) {
    if (table[firstEntry + i * entrySize + typeAt] != 0) {
      return 0;
    }
  }
  return table[firstEntry + typeAt] == 0 ? 0 : littleEndian(&table[firstEntry + sectorsAt], 4);
}

/// Sectors of the first partition of a GPT; 0 if there is none.
std::uint64_t sectorsByGpt(const Disk& disk) {
  std::array<unsigned char, 512> header{};
  if (!disk.read(disk.sectorSize(), header.data(), header.size()) ||
      std::string(header.begin(), header.begin() + 8) != "EFI PART") {
    return 0;
  }
  constexpr std::size_t entriesAt = 72;
  constexpr std::size_t firstAt = 32;
  constexpr std::size_t lastAt = 40;
  std::array<unsigned char, 128> entry{};
  if (!disk.read(littleEndian(&header[entriesAt], 8) * disk.sectorSize(), entry.data(), entry.size())) {
    return 0;
  }
  const std::uint64_t first = littleEndian(&entry[firstAt], 8);
  return first == 0 ? 0 : littleEndian(&entry[lastAt], 8) - first + 1;
}

int makePartition(const std::string& path) {
  std::uint64_t sectors = 0;
  {
    // Close it at the end of this block: the kernel does not read a new table while a disk is open
    // exclusively.
    const Disk disk(tool, path, O_RDONLY);
    if (!disk.isOpen()) {
      return image::failed;
    }
    sectors = disk.size() / disk.sectorSize();
  }
  const bool needsGpt = sectors > maxSectorsOfDosTable;
  const std::string maker = needsGpt ? "sfdisk" : tool;
  if (needsGpt) {
    image::complain(tool,
                    image::quoted(path) + " has more sectors than a DOS table can name; sfdisk makes a GPT");
  }
  const std::string program = image::nextProgram(tool, maker);
  const int answers = image::readableText(tool, needsGpt ? "label: gpt\ntype=L\n" : daemonsAnswers);
  const pid_t process =
      program.empty() || answers < 0 ? -1 : image::start(tool, program, {maker, path}, answers);
  const int status = process < 0 ? image::failed : image::waitFor(process);
  if (status != 0) {
    return status;
  }
  const Disk disk(tool, path, O_RDONLY);
  if (!disk.isOpen()) {
    return image::failed;
  }
  // On every disk the space before the partition, and after one that ends at a cylinder, is less than an
  // eighth.
  const std::uint64_t made = needsGpt ? sectorsByGpt(disk) : sectorsByDosTable(disk);
  if (made < sectors - sectors / 8) {
    image::complain(tool, image::quoted(path) + " has no partition over the whole disk, although " +
                              image::quoted(program) + " reports success");
    return image::failed;
  }
  return 0;
}

}  // namespace

int main(int count, char** words) {
  const std::vector<std::string> arguments(words, words + count);
  if (arguments.size() != 2 || arguments[1].rfind('-', 0) == 0 || isatty(STDIN_FILENO) != 0) {
    return image::passOn(tool, arguments);
  }
  std::string answers = readInput();
  const std::string option = "-e ";
  if (answers.rfind(option, 0) == 0) {
    answers.erase(0, option.size());
  }
  if (answers == daemonsAnswers) {
    return makePartition(arguments[1]);
  }
  const int text = image::readableText(tool, answers);
  return text >= 0 && dup2(text, STDIN_FILENO) >= 0 ? image::passOn(tool, arguments) : image::failed;
}
