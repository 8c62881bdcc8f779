// The frame of qvtool's subcommands: registration, arguments, exit codes and errors.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace qvtool {

// Exit codes, the same for every subcommand.
enum ExitCode : int {
    kOk = 0,
    kFailed = 1,       // the operation failed
    kUsage = 2,        // the command line is wrong
    kNotFound = 3,     // a file, key or record named on the command line does not exist
    kUnavailable = 4,  // a service the operation needs (network, card) is not there
    kInterrupted = 130,
};

// Thrown by subcommands and helpers; main prints "qvtool: <command>: <message>" and exits.
class Failure : public std::runtime_error {
public:
    Failure(ExitCode code, const std::string& message) : std::runtime_error(message), code_(code) {}
    ExitCode code() const { return code_; }

private:
    ExitCode code_;
};

// The words after the subcommand's name. Options are declared by the subcommand as it reads
// them; whatever is left unread at the end is a usage error.
class Args {
public:
    explicit Args(std::vector<std::string> words);

    // "--name" present (and removed)?
    bool Flag(const std::string& name);
    // "--name VALUE" or "--name=VALUE"; nothing if absent. Repeated: the last.
    std::optional<std::string> Option(const std::string& name);
    // Every value of a repeatable option, in order ("-H a -H b").
    std::vector<std::string> Options(const std::string& name);
    // The next positional word; a usage error names `what` when there is none.
    std::string Next(const std::string& what);
    std::optional<std::string> NextOptional();
    // Every word not read yet, options included, in order; the reading is then done.
    std::vector<std::string> Rest();
    // Ends the reading: anything left over is a usage error.
    void Done() const;

    bool WantsHelp() const { return help_; }

private:
    std::vector<std::string> words_;
    bool help_ = false;
};

struct Command {
    std::string name;     // "sql", or "tracks add" for a family
    std::string summary;  // one line for the overview
    std::string usage;    // the full help text
    std::function<int(Args&)> run;
};

// Adds a command at start-up: `static const bool registered = Register({...});`
bool Register(Command command);
const std::map<std::string, Command>& Commands();

// Numbers from the command line.
long long ParseInteger(const std::string& text, const std::string& what);

// Standard input, whole.
std::string ReadAllInput();
// A file, whole; kNotFound when it can't be read.
std::string ReadFileOrFail(const std::string& path);

// Whole seconds from "215", "3:35" or "1:02:03"; a usage error naming `what` otherwise.
int32_t ParseSeconds(const std::string& text, const std::string& what);

}  // namespace qvtool
