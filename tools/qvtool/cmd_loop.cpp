// qvtool loop, qvtool send: the event loop of an application, and events between processes.

#include <cerrno>
#include <climits>
#include <iostream>
#include <string>

#include "cli.h"
#include "event_loop_run.h"
#include "moorglass.h"
#include "moorglass_host.h"

namespace qvtool {
namespace {

long long g_events_left = -1;  // -1: for ever

int PrintEvent(int type, int par1, int par2) {
    std::cout << "event " << type << ' ' << par1 << ' ' << par2 << std::endl;
    if (g_events_left > 0 && --g_events_left == 0) qvhost_stop_event_loop();
    return 0;
}

int RunLoop(Args& args) {
    std::optional<std::string> count = args.Option("--count");
    args.Done();
    if (count) {
        g_events_left = ParseInteger(*count, "--count");
        if (g_events_left < 1) throw Failure(kUsage, "--count must be at least 1");
    }
    // Installed before the announcement: from this line on, senders find the loop.
    qvhost_set_event_handler(&PrintEvent);
    std::cout << "task " << GetCurrentTask() << " waiting for events" << std::endl;
    return RunEventLoop(&PrintEvent) ? kInterrupted : kOk;
}

int ParseInt(const std::string& text, const std::string& what) {
    long long value = ParseInteger(text, what);
    if (value < INT_MIN || value > INT_MAX) throw Failure(kUsage, what + " is out of range");
    return static_cast<int>(value);
}

int RunSend(Args& args) {
    std::string task_text = args.Next("PID");
    std::string event_text = args.Next("EVENT");
    std::string par1_text = args.Next("P1");
    std::string par2_text = args.Next("P2");
    args.Done();
    int task = ParseInt(task_text, "PID");
    if (task < 1) throw Failure(kUsage, "PID must be a task id (a positive process id)");
    if (SendEventTo(task, ParseInt(event_text, "EVENT"), ParseInt(par1_text, "P1"),
                    ParseInt(par2_text, "P2")) != 0) {
        bool missing = errno == ECONNREFUSED || errno == ENOENT || errno == ESRCH;
        throw Failure(missing ? kNotFound : kFailed,
                      "task " + task_text + (missing ? " has no event loop"
                                                     : " did not take the event in time"));
    }
    return kOk;
}

const bool loop_registered =
    Register({"loop", "run an event loop and print the events it receives",
              "usage: qvtool loop [--count N]\n"
              "Runs the event loop of an application process and prints each event it receives\n"
              "as \"event TYPE P1 P2\", after a first line \"task PID waiting for events\": send\n"
              "to it with `qvtool send PID ...` from another shell of the same device. Runs\n"
              "until interrupted (Ctrl-C; exit code 130), or until N events came.\n",
              RunLoop});

const bool send_registered =
    Register({"send", "send one event to another application's event loop",
              "usage: qvtool send PID EVENT P1 P2\n"
              "Sends event number EVENT with parameters P1 and P2 to the event loop of task PID\n"
              "(on the host, its process id). Exit code 3 when that task has no event loop.\n",
              RunSend});

}  // namespace
}  // namespace qvtool
