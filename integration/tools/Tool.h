#ifndef INTEGRATION_TOOLS_TOOL_H
#define INTEGRATION_TOOLS_TOOL_H

#include <sys/types.h>

#include <string>
#include <vector>

/// What the wrappers share. Each is one program with one thread, and stands before the real tool of its name
/// in the daemon's PATH.
namespace image {

/// Exit status of a wrapper that refuses, or whose own work fails.
constexpr int failed = 1;

/// The program called `name` that comes next in the PATH: the first one behind the last folder that has this
/// very program, or a link to it. So two copies of this folder do not call each other for ever. Where there
/// is none, returns "" after a complaint in the name of `tool`.
std::string nextProgram(const std::string& tool, const std::string& name);

/// Runs the next program called `tool` in place of this one. `arguments[0]` is passed on too. Returns only on
/// failure: an exit status, after a complaint.
int passOn(const std::string& tool, std::vector<std::string> arguments);

/// Starts a program in a process of its own, with the descriptor `input` as its standard input. Returns its
/// process id, or -1 after a complaint in the name of `tool`.
pid_t start(const std::string& tool, const std::string& program, std::vector<std::string> arguments,
            int input);

/// Waits for a process. Its exit status, or 128 and the number of the signal that ended it.
int waitFor(pid_t process);

/// A descriptor from which `text` can be read; -1, after a complaint, where there is no memory.
int readableText(const std::string& tool, const std::string& text);

/// Writes "TOOL: TEXT" to standard error.
void complain(const std::string& tool, const std::string& text);

/// The same, with errno's text behind it.
void complainOfErrno(const std::string& tool, const std::string& text);

}  // namespace image

#endif  // INTEGRATION_TOOLS_TOOL_H
