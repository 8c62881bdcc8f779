// Inside the library only: starting a system program without a shell. Arguments go to the program
// as an argument vector, so that no character of a URL, a path or a name can end a quoted word or
// run a command, and nothing needs refusing for the sake of a shell.
#pragma once

#include <string>
#include <vector>

namespace quorvel {
namespace utilities {

// Runs args[0], found on the PATH, with the signal mask cleared and SIGPIPE, SIGINT, SIGQUIT and
// SIGTERM at their defaults, and waits for it. Its standard output goes to `output` when given,
// else where this process's goes. Returns the wait status, or -1 when the program could not be
// started or waited for.
int RunProgram(std::vector<std::string> args, std::string* output = nullptr);

}  // namespace utilities
}  // namespace quorvel
