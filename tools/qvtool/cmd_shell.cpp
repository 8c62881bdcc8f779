// qvtool shell, message, dialog, open: the device shell and the requests applications send it
// through the mailbox of the shared control block.

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <iostream>

#include "cli.h"
#include "common_utilities/shell_calls.h"
#include "moorglass.h"
#include "moorglass_host.h"
#include "shell_server.h"

namespace qvtool {
namespace {

std::atomic<bool> g_stop{false};
volatile std::sig_atomic_t g_asking = 0;

void OnShellInterrupt(int) {
    g_stop.store(true);
}

// An interrupted request would hold the mailbox for ever: give it back on the way out.
void OnAskInterrupt(int) {
    if (g_asking && mgmpc) __atomic_store_n(&mgmpc->uiquery, 0, __ATOMIC_RELEASE);
    _exit(kInterrupted);
}

// Sends one request; SIGINT ends it with the mailbox freed.
template <typename Call>
auto Ask(Call call) {
    if (mgmpc == nullptr) throw Failure(kUnavailable, "this device has no shell mailbox");
    struct sigaction action {};
    action.sa_handler = OnAskInterrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    g_asking = 1;
    auto result = call();
    g_asking = 0;
    return result;
}

int RunShell(Args& args) {
    qvhost::ShellServer::Options options;
    options.out = args.Flag("--quiet") ? nullptr : &std::cout;
    if (auto answers = args.Option("--answers")) {
        if (!qvhost::ParseAnswerScript(*answers, &options.script))
            throw Failure(kUsage, "answers are 1, 2 or 0, separated by commas: " + *answers);
    }
    args.Done();
    if (::isatty(STDIN_FILENO)) {
        options.ask = [](const qvhost::ShellRequest& request) {
            return qvhost::AskOnTerminal(request, std::cin, std::cout);
        };
    }
    if (mgmpc == nullptr) throw Failure(kUnavailable, "this device has no shell mailbox");
    struct sigaction action {};
    action.sa_handler = OnShellInterrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    qvhost::ShellServer server(std::move(options));
    std::cout << "shell ready; requests are recorded in " << qvhost::ShellServer::LogPath()
              << std::endl;
    server.Run(g_stop);
    return kInterrupted;
}

int IconOption(Args& args) {
    auto icon = args.Option("--icon");
    return icon ? static_cast<int>(ParseInteger(*icon, "--icon")) : 0;
}

int RunMessage(Args& args) {
    int icon = IconOption(args);
    auto timeout = args.Option("--timeout");
    int ms = timeout ? static_cast<int>(ParseInteger(*timeout, "--timeout")) : 3000;
    std::string title = args.Next("TITLE");
    std::string text = args.Next("TEXT");
    args.Done();
    Ask([&] {
        quorvel::utilities::SystemMessage(icon, title, text, ms);
        return 0;
    });
    std::cout << "shown\n";
    return kOk;
}

int RunDialog(Args& args) {
    int icon = IconOption(args);
    std::string title = args.Next("TITLE");
    std::string text = args.Next("TEXT");
    std::string button1 = args.Next("BUTTON1");
    std::string button2 = args.NextOptional().value_or("");
    args.Done();
    int answer =
        Ask([&] { return quorvel::utilities::SystemDialog(icon, title, text, button1, button2); });
    if (answer == MG_UIANSWER_BUTTON1)
        std::cout << "button 1: " << button1 << "\n";
    else if (answer == MG_UIANSWER_BUTTON2)
        std::cout << "button 2: " << button2 << "\n";
    else
        std::cout << "no button (answer " << answer << ")\n";
    return kOk;
}

int RunOpen(Args& args) {
    std::string book = args.Next("BOOK");
    args.Done();
    struct stat info;
    if (::stat(book.c_str(), &info) != 0) throw Failure(kNotFound, "no such book: " + book);
    Ask([&] {
        quorvel::utilities::SystemOpenBook(book);
        return 0;
    });
    std::cout << "asked the shell to open " << book << "\n";
    return kOk;
}

const bool registered_shell = Register(
    {"shell", "run the device shell in this terminal (host only)",
     "usage: qvtool shell [--answers 1,2,0] [--quiet]\n"
     "Serves the mailbox through which applications ask the shell for messages, dialogs and\n"
     "books (qvtool message, dialog, open): shows each request here and records it in shell.log\n"
     "of the host state directory. Dialogs take the --answers in order (1 or 2 for a button, 0\n"
     "for none), then ask on the terminal, else take the first button. Ctrl-C ends it (130).\n",
     RunShell});

const bool registered_message = Register(
    {"message", "show a system message through the shell",
     "usage: qvtool message [--icon N] [--timeout MS] TITLE TEXT\n"
     "Waits until the shell has shown the message (run qvtool shell in another terminal).\n"
     "Exits 4 when the device has no shell mailbox.\n",
     RunMessage});

const bool registered_dialog =
    Register({"dialog", "ask a question with two buttons through the shell",
              "usage: qvtool dialog [--icon N] TITLE TEXT BUTTON1 [BUTTON2]\n"
              "Waits for the answer and prints the button taken.\n",
              RunDialog});

const bool registered_open = Register({"open", "ask the shell to open a book",
                                       "usage: qvtool open BOOK\n"
                                       "Exits 3 when BOOK does not exist.\n",
                                       RunOpen});

}  // namespace
}  // namespace qvtool
