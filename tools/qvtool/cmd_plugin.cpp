// qvtool plugin: loads a plug-in of the "QVLibrary_" interface and runs it, as applications do
// through LibraryLauncher.

#include <sys/stat.h>

#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "cli.h"
#include "common_utilities/library_launcher.h"

namespace qvtool {
namespace {

using quorvel::utilities::LibraryLauncher;

struct PluginOptions {
    std::string run_name;
    bool notify = false;
    int notifications = 0;
    std::vector<std::string> argv;  // the plug-in's path, then its arguments
};

// The tool's own options stand before PATH; everything behind it belongs to the plug-in.
PluginOptions ParseOptions(std::vector<std::string> words) {
    PluginOptions options;
    size_t i = 0;
    for (; i < words.size() && words[i].rfind("--", 0) == 0; ++i) {
        if (words[i] == "--notify") {
            options.notify = true;
        } else if (words[i] == "--add-notification") {
            ++options.notifications;
        } else if (words[i] == "--run" && i + 1 < words.size()) {
            options.run_name = words[++i];
        } else {
            throw Failure(kUsage, "unknown option " + words[i]);
        }
    }
    if (i == words.size()) throw Failure(kUsage, "missing PATH");
    options.argv.assign(words.begin() + static_cast<long>(i), words.end());
    return options;
}

// Calls an optional entry point; false when the plug-in lacks it.
template <typename Call>
bool Optional(Call call) {
    try {
        call();
        return true;
    } catch (const std::runtime_error&) {
        return false;
    }
}

void Report(const char* what, LibraryLauncher& plugin, int (LibraryLauncher::*get)()) {
    int value = 0;
    if (Optional([&] { value = (plugin.*get)(); }))
        std::cout << what << ' ' << value << '\n';
    else
        std::cout << what << " (not offered by the plug-in)\n";
}

int RunPlugin(Args& args) {
    PluginOptions options = ParseOptions(args.Rest());
    const std::string& path = options.argv[0];
    struct stat info {};
    if (path.find('/') != std::string::npos && ::stat(path.c_str(), &info) != 0)
        throw Failure(kNotFound, "no plug-in " + path);

    LibraryLauncher plugin(path);
    if (!plugin.LoadLibrary()) throw Failure(kFailed, "can't load " + path);
    if (!options.run_name.empty())
        plugin.ChangeFunctionName(LibraryLauncher::eRun, options.run_name);

    std::vector<const char*> argv;
    for (const auto& word : options.argv)
        argv.push_back(word.c_str());
    if (!Optional([&] { plugin.SetParameters(static_cast<int>(argv.size()), argv.data()); }) &&
        argv.size() > 1)
        throw Failure(kFailed, "the plug-in takes no parameters (no QVLibrary_SetParameters)");
    if (options.notify && !Optional([&] { plugin.SetNotificationFlag(true); }))
        throw Failure(kFailed,
                      "the plug-in has no notifications (no QVLibrary_SetNotificationFlag)");
    for (int i = 0; i < options.notifications; ++i) {
        if (!Optional([&] { plugin.AddNotification(); }))
            throw Failure(kFailed, "the plug-in has no QVLibrary_AddNotification");
    }
    if (!Optional([&] { plugin.Run(); })) {
        const std::string name = options.run_name.empty() ? "QVLibrary_Run" : options.run_name;
        throw Failure(kFailed, "the plug-in has no entry point " + name);
    }
    Report("status", plugin, &LibraryLauncher::GetStatus);
    Report("result", plugin, &LibraryLauncher::GetResult);
    return kOk;
}

const bool registered = Register(
    {"plugin", "load a plug-in of the QVLibrary_ interface and run it",
     "usage: qvtool plugin [--run SYMBOL] [--notify] [--add-notification]... PATH [ARGS...]\n"
     "Loads the shared library PATH, hands it PATH and ARGS as its parameters (argc, argv, as\n"
     "main() gets them), runs it and prints its status and result, each entry point looked up\n"
     "as it is first called. The options stand before PATH; everything behind it is the\n"
     "plug-in's, except -h and --help, which ask qvtool for this text.\n"
     "  --run SYMBOL          run through SYMBOL instead of QVLibrary_Run\n"
     "  --notify              turn the plug-in's notifications on before running it\n"
     "  --add-notification    call QVLibrary_AddNotification before running (repeatable)\n"
     "The device's sample plug-ins: /zelgrot/lib/libqvwordcount.so FILE... counts words\n"
     "(--run QVLibrary_RunLines: lines), /zelgrot/lib/libqvsum.so N... adds numbers.\n"
     "Exit code 3 when PATH does not exist, 1 when it does not load or lacks an entry point the\n"
     "options need.\n",
     RunPlugin});

}  // namespace
}  // namespace qvtool
