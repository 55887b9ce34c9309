// The only program in a ShellBox, under many names. It appends its arguments, its name first, to the file in
// the environment variable RECORD. A line with their count comes before them, a NUL byte after each.

#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char** argv) {
  std::FILE* const record = std::fopen(std::getenv("RECORD"), "ab");
  if (record == nullptr) {
    return EXIT_FAILURE;
  }
  std::fprintf(record, "%d\n", argc);
  for (int i = 0; i < argc; ++i) {
    std::fwrite(argv[i], 1, std::strlen(argv[i]) + 1, record);
  }
  return std::fclose(record) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
