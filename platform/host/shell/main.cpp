// host_shell: the device shell of the host, serving the mailbox of the shared control block.
//
//     host_shell [--answers 1,2,0] [--script FILE] [--quiet]
//
// Shows messages, dialogs and book requests on the standard output; dialogs take the answers of
// the script (--answers, or FILE with one or several per line) in order, then ask on the
// terminal, else take the first button. Ends on SIGINT or SIGTERM (exit 0); exits 4 when the
// device has no control block, 2 for a bad command line.

#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include "shell_server.h"

namespace {

std::atomic<bool> g_stop{false};

void OnSignal(int) {
    g_stop.store(true);
}

int Usage(const char* message) {
    std::cerr << "host_shell: " << message << "\nusage: host_shell [--answers 1,2,0] "
              << "[--script FILE] [--quiet]\n";
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    qvhost::ShellServer::Options options;
    options.out = &std::cout;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--quiet") {
            options.out = nullptr;
        } else if ((arg == "--answers" || arg == "--script") && i + 1 < argc) {
            std::string text = argv[++i];
            if (arg == "--script") {
                std::ifstream in(text);
                if (!in) return Usage(("cannot read " + text).c_str());
                std::stringstream all;
                all << in.rdbuf();
                text = all.str();
            }
            if (!qvhost::ParseAnswerScript(text, &options.script)) {
                return Usage("answers are 1, 2 or 0, separated by commas");
            }
        } else {
            return Usage(("unknown argument " + arg).c_str());
        }
    }
    if (::isatty(STDIN_FILENO)) {
        options.ask = [](const qvhost::ShellRequest& request) {
            return qvhost::AskOnTerminal(request, std::cin, std::cout);
        };
    }
    std::signal(SIGINT, OnSignal);
    std::signal(SIGTERM, OnSignal);
    qvhost::ShellServer server(std::move(options));
    std::cout << "shell ready" << std::endl;
    if (!server.Run(g_stop)) {
        std::cerr << "host_shell: this device has no shared control block\n";
        return 4;
    }
    return 0;
}
