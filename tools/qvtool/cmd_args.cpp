// qvtool args: a command line as the device's applications parse it.

#include <iostream>
#include <list>
#include <string>
#include <vector>

#include "cli.h"
#include "common_utilities/parameters.h"

namespace qvtool {
namespace {

using quorvel::utilities::Parameters;

std::string Shown(const std::string& text) {
    return text.empty() ? "(empty)" : text;
}

void PrintList(const char* title, const std::list<std::string>& items) {
    std::cout << title << " (" << items.size() << ")\n";
    for (const auto& item : items)
        std::cout << "  " << Shown(item) << '\n';
}

void PrintOptions(const Parameters::Options& options) {
    std::cout << "options (" << options.size() << ")\n";
    for (const auto& [key, value] : options) {
        std::string name = key == '\0' ? std::string("-(zero key)") : std::string("-") + key;
        name.resize(std::max<size_t>(name.size(), 4), ' ');
        std::cout << "  " << name << "  " << Shown(value) << '\n';
    }
}

int RunArgs(Args& args) {
    std::vector<std::string> words = args.Rest();
    const bool as_argv = !words.empty() && words[0] == "--argv";
    if (as_argv) words.erase(words.begin());
    if (!as_argv && words.size() != 1)
        throw Failure(kUsage, "give the line as one quoted word, or the words after --argv");

    Parameters parameters;
    if (as_argv) {
        std::vector<const char*> argv;
        for (const auto& word : words)
            argv.push_back(word.c_str());
        parameters.Set(static_cast<int>(argv.size()), argv.data());
    } else {
        parameters.Set(words[0]);
    }
    PrintList("tokens", parameters.GetTokens());
    PrintOptions(parameters.GetOptions());
    PrintList("arguments", parameters.GetArguments());
    return kOk;
}

const bool registered = Register(
    {"args", "how an application of the device parses a command line",
     "usage: qvtool args 'LINE'\n"
     "       qvtool args --argv WORD...\n"
     "Splits LINE (a command line as one text, as another process hands it on) or the WORDs\n"
     "(an argv array, joined by blanks first) by the device's rules, and prints the tokens, the\n"
     "options with their values, and the arguments:\n"
     "  - \"a b\" is one token, quotes dropped; -p\"a b\" one token, quotes kept\n"
     "  - \"-x VALUE\": VALUE is the option's value and an argument too\n"
     "  - \"-xyz\": x with the value yz, and y and z with empty values, all at once\n"
     "  - options may repeat; every value is listed\n"
     "  - arguments are the tokens not beginning with -, cut at their blanks\n"
     "A word -h or --help asks qvtool for this text; inside LINE they are parsed.\n",
     RunArgs});

}  // namespace
}  // namespace qvtool
