// qvtool keyboard: a line of text through the on-screen keyboard, typed on this terminal.
//
// The keyboard waits in a blocking call that keeps the event loop running, as an application's
// would; a reader thread types what comes on standard input into it through the host, and the end
// of the input (Ctrl-D) cancels it.

#include <iostream>
#include <thread>

#include "cli.h"
#include "common_utilities/keyboard.h"
#include "moorglass.h"
#include "moorglass_host.h"

namespace qvtool {
namespace {

int NoEvents(int, int, int) {
    return 0;
}

int RunKeyboard(Args& args) {
    auto label = args.Option("--label");
    auto enter = args.Option("--enter");
    args.Done();
    qvhost_set_event_handler(NoEvents);
    quorvel::keyboard::Keyboard keyboard;
    keyboard.SetTitle(label.value_or("Text"));
    keyboard.SetEnterText(enter.value_or("OK"));
    std::cerr << label.value_or("Text") << ": " << std::flush;
    const int task = GetCurrentTask();
    std::thread typist([task] {
        std::string line;
        bool got = static_cast<bool>(std::getline(std::cin, line));
        while (!qvhost_keyboard_is_open(task))
            std::this_thread::yield();
        qvhost_keyboard_type(task, got ? line.c_str() : nullptr);
    });
    bool answered = false;
    std::string text = keyboard.OpenSynchro(&answered);
    typist.join();
    if (text.empty()) {
        std::cerr << "cancelled\n";
        return kFailed;
    }
    std::cout << text << "\n";
    return kOk;
}

const bool registered = Register(
    {"keyboard", "read a line through the on-screen keyboard",
     "usage: qvtool keyboard [--label L] [--enter T]\n"
     "Opens the keyboard titled L (confirm key T) and waits, with the event loop running, for a\n"
     "line typed on standard input; prints it. An empty line or the end of input (Ctrl-D)\n"
     "cancels (exit 1).\n",
     RunKeyboard});

}  // namespace
}  // namespace qvtool
