#ifndef INTEGRATION_TOOLS_TOOL_H
#define INTEGRATION_TOOLS_TOOL_H

#include <sys/types.h>

#include <string>
#include <vector>

/// What the wrappers share. Each is a program with one thread that comes before the real tool of its name in
/// the daemon's PATH.
namespace image {

/// Exit status of a wrapper that refuses, or that fails itself.
constexpr int failed = 1;

/// The next program called `name` in the PATH: the first one after the last folder that has this very
/// program, or a link to it. So two copies of this folder do not call each other for ever. If there is none,
/// complains in the name of `tool` and returns "".
std::string nextProgram(const std::string& tool, const std::string& name);

/// Replaces this program by the next one called `tool`. Passes `arguments[0]` too. Returns only on failure,
/// with an exit status, after a complaint.
int passOn(const std::string& tool, std::vector<std::string> arguments);

/// Starts a program in a new process, with the descriptor `input` as its standard input. Returns the process
/// id. On failure complains in the name of `tool` and returns -1.
pid_t start(const std::string& tool, const std::string& program, std::vector<std::string> arguments,
            int input);

/// Waits for a process. Returns its exit status, or 128 plus the number of the signal that ended it.
int waitFor(pid_t process);

/// A descriptor to read `text` from; -1, after a complaint, if there is no memory.
int readableText(const std::string& tool, const std::string& text);

/// The text in double quotes, for messages.
std::string quoted(const std::string& text);

/// Writes "TOOL: TEXT" to standard error.
void complain(const std::string& tool, const std::string& text);

/// Writes "TOOL: TEXT: REASON", with errno's text as the reason.
void complainOfErrno(const std::string& tool, const std::string& text);

}  // namespace image

#endif  // INTEGRATION_TOOLS_TOOL_H
