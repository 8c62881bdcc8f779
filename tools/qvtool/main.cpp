// qvtool: every capability of libcommon_utilities.so from the command line.

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <set>
#include <string>
#include <vector>

#include "cli.h"
#include "moorglass_host.h"

namespace {

using qvtool::Args;
using qvtool::Command;
using qvtool::Commands;
using qvtool::Failure;

constexpr const char* kOverview =
    "qvtool: the common utility library of the reader, from the command line.\n"
    "\n"
    "usage: qvtool [--verbose | --log-level N] COMMAND [ARGS...]\n"
    "       qvtool COMMAND --help\n"
    "\n"
    "Library log lines are hidden unless --verbose (level 4) or --log-level N (1 errors ..\n"
    "5 trace) or the environment variable QV_LOG_LEVEL asks for them.\n"
    "\n"
    "Exit codes: 0 done, 1 the operation failed, 2 bad command line, 3 something named on\n"
    "the command line does not exist, 4 a service it needs is unavailable, 130 interrupted.\n"
    "\n"
    "Commands:\n";

void PrintOverview(std::ostream& out, const std::string& family = {}) {
    if (family.empty()) out << kOverview;
    for (const auto& [name, command] : Commands()) {
        if (!family.empty() && name.rfind(family + " ", 0) != 0) continue;
        std::string padded = name;
        padded.resize(std::max<size_t>(padded.size(), 18), ' ');
        out << "  " << padded << "  " << command.summary << '\n';
    }
}

// The command named by the first one or two words; the words used are removed.
const Command* FindCommand(std::vector<std::string>& words) {
    if (words.size() >= 2) {
        auto it = Commands().find(words[0] + " " + words[1]);
        if (it != Commands().end()) {
            words.erase(words.begin(), words.begin() + 2);
            return &it->second;
        }
    }
    auto it = Commands().find(words[0]);
    if (it == Commands().end()) return nullptr;
    words.erase(words.begin());
    return &it->second;
}

bool IsFamily(const std::string& word) {
    for (const auto& entry : Commands()) {
        if (entry.first.rfind(word + " ", 0) == 0) return true;
    }
    return false;
}

// Library lines would muddle the tool's own output; they are shown only when asked for.
void SetLogLevel(std::vector<std::string>& words) {
    int level = std::getenv("QV_LOG_LEVEL") ? qvhost_log_level() : 0;
    while (!words.empty()) {
        if (words[0] == "--verbose" || words[0] == "-v") {
            level = 4;
            words.erase(words.begin());
        } else if (words[0] == "--log-level" && words.size() > 1) {
            level = static_cast<int>(qvtool::ParseInteger(words[1], "--log-level"));
            words.erase(words.begin(), words.begin() + 2);
        } else {
            break;
        }
    }
    qvhost_set_log_level(level);
}

int Run(std::vector<std::string> words) {
    SetLogLevel(words);
    if (words.empty() || words[0] == "--help" || words[0] == "-h" || words[0] == "help") {
        PrintOverview(std::cout);
        return words.empty() ? qvtool::kUsage : qvtool::kOk;
    }
    if (words[0] == "--version") words[0] = "version";
    std::string first = words[0];
    const Command* command = FindCommand(words);
    if (!command) {
        if (IsFamily(first)) {
            bool help = words.size() == 1 || words[1] == "--help";
            std::cerr << (help ? "" : "qvtool: unknown command " + first + " " + words[1] + "\n");
            PrintOverview(help ? std::cout : std::cerr, first);
            return help ? qvtool::kOk : qvtool::kUsage;
        }
        std::cerr << "qvtool: unknown command '" << first << "' (see qvtool --help)\n";
        return qvtool::kUsage;
    }
    Args args(std::move(words));
    if (args.WantsHelp()) {
        std::cout << command->usage;
        return qvtool::kOk;
    }
    try {
        return command->run(args);
    } catch (const Failure& failure) {
        std::cerr << "qvtool: " << command->name << ": " << failure.what() << '\n';
        if (failure.code() == qvtool::kUsage) {
            std::cerr << "usage: see qvtool " << command->name << " --help\n";
        }
        return failure.code();
    }
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const Failure& failure) {
        std::cerr << "qvtool: " << failure.what() << '\n';
        return failure.code();
    } catch (const std::exception& e) {
        std::cerr << "qvtool: " << e.what() << '\n';
        return qvtool::kFailed;
    }
}
