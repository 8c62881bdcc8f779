// killall for the device sandbox: ends the device's applications of a name, and nothing else.
//
//   killall [-SIGNAL] NAME...
//
// On the device every process belongs to the device, so the system's killall kills by name. The
// sandbox shares the host's processes, so the host's killall would also hit the programs of other
// sandboxes (parallel test cases) and of the host itself. devsandbox binds this program over the
// host's killall: it kills only the tasks recorded in this device's host state directory. The
// signal is a number or a name (-9, -KILL, -SIGKILL; TERM by default). Exit status 0 when
// something was signalled, 1 when no task had the name, 2 on a bad command line.

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "moorglass.h"

namespace {

// More tasks of one name than a device ever runs: a task that won't go isn't waited on forever.
constexpr int kMaxTasksPerName = 64;
constexpr int kEndWaitMs = 2000;

int ParseSignal(std::string text) {
    if (text.rfind("SIG", 0) == 0) text = text.substr(3);
    char* end = nullptr;
    long number = std::strtol(text.c_str(), &end, 10);
    if (!text.empty() && *end == '\0') return number > 0 && number < NSIG ? int(number) : -1;
    const std::pair<const char*, int> names[] = {{"KILL", SIGKILL}, {"TERM", SIGTERM},
                                                 {"INT", SIGINT},   {"HUP", SIGHUP},
                                                 {"QUIT", SIGQUIT}, {"USR1", SIGUSR1},
                                                 {"USR2", SIGUSR2}};
    for (const auto& [name, number_of] : names) {
        if (text == name) return number_of;
    }
    return -1;
}

// Signals the task and waits a moment for its end, so that the next look-up finds another one.
bool SignalTask(int task, int signal) {
    int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, task, 0));
    if (pidfd < 0) return false;
    bool sent = ::syscall(SYS_pidfd_send_signal, pidfd, signal, nullptr, 0) == 0;
    if (sent) {
        pollfd ended{pidfd, POLLIN, 0};
        ::poll(&ended, 1, kEndWaitMs);
    }
    ::close(pidfd);
    return sent;
}

bool KillAll(const char* name, int signal) {
    bool any = false;
    int last = -1;
    for (int i = 0; i < kMaxTasksPerName; ++i) {
        int task = FindTaskByAppName(name);
        if (task == -1 || task == last) break;  // none left, or one that outlives the signal
        any = SignalTask(task, signal) || any;
        last = task;
    }
    return any;
}

}  // namespace

int main(int argc, char** argv) {
    int signal = SIGTERM;
    std::vector<const char*> names;
    for (int i = 1; i < argc; ++i) {
        if (argv[i][0] == '-' && names.empty()) {
            signal = ParseSignal(argv[i] + 1);
            if (signal < 0) {
                std::fprintf(stderr, "killall: unknown signal %s\n", argv[i] + 1);
                return 2;
            }
        } else {
            names.push_back(argv[i]);
        }
    }
    if (names.empty()) {
        std::fprintf(stderr, "usage: killall [-SIGNAL] NAME...\n");
        return 2;
    }
    bool any = false;
    for (const char* name : names) {
        if (KillAll(name, signal)) {
            any = true;
        } else {
            std::fprintf(stderr, "%s: no process found\n", name);
        }
    }
    return any ? 0 : 1;
}
