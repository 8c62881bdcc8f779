// Running code in other processes of the same sandbox: a function in a forked child, or a
// program. Output (standard output and error together) is captured; nothing is left running.
//
// Fork before starting threads in a test, or fork only into code that execs at once (`Run`): a
// thread of the parent may hold a lock of the allocator at the moment of the fork, and the child
// would wait for it forever. The sanitizer builds' allocators are the usual victims.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace qvtest {

using namespace std::chrono_literals;

struct ChildResult {
    int exit_code = -1;  // -1 unless the child exited
    int signal = 0;      // the signal that ended it, or 0
    bool timed_out = false;
    std::string output;

    bool Succeeded() const { return exit_code == 0; }
    // How it ended and what it printed, for failure messages.
    std::string Describe() const;
};

class ChildProcess {
public:
    // Forks; the child runs `fn` and exits with its result (99 if it throws). The child never
    // returns into the test framework.
    static ChildProcess Start(const std::function<int()>& fn);
    // Starts a program found on PATH, with `input` on its standard input.
    static ChildProcess Run(const std::vector<std::string>& argv, const std::string& input = "");

    ChildProcess(ChildProcess&&) noexcept;
    ChildProcess& operator=(ChildProcess&&) noexcept;
    ~ChildProcess();  // kills and reaps a child still running

    pid_t pid() const;
    void Kill(int signal);
    // Waits for the end; after `timeout` the child is killed and the result says so.
    ChildResult Wait(std::chrono::milliseconds timeout = 60s);
    // What the child printed so far, while it runs (servers announce their ports this way).
    std::string OutputSoFar() const;

private:
    struct State;
    explicit ChildProcess(std::unique_ptr<State> state);
    std::unique_ptr<State> state_;
};

inline ChildResult RunInChild(const std::function<int()>& fn,
                              std::chrono::milliseconds timeout = 60s) {
    return ChildProcess::Start(fn).Wait(timeout);
}

inline ChildResult RunProgram(const std::vector<std::string>& argv, const std::string& input = "",
                              std::chrono::milliseconds timeout = 60s) {
    return ChildProcess::Run(argv, input).Wait(timeout);
}

// A one-shot signal between processes: made before the fork, raised on one side, awaited on the
// other.
class Rendezvous {
public:
    Rendezvous();
    ~Rendezvous();
    Rendezvous(const Rendezvous&) = delete;
    Rendezvous& operator=(const Rendezvous&) = delete;

    void Signal();
    bool Wait(std::chrono::milliseconds timeout = 30s);

private:
    int fds_[2];
};

// Absolute path of a program of this build (the directory of qvtool, devsandbox, ...).
std::string BuildProgram(const std::string& name);

// qvtool of this build, run with `args` and `input` on its standard input.
inline ChildResult Qvtool(std::vector<std::string> args, const std::string& input = "") {
    args.insert(args.begin(), BuildProgram("qvtool"));
    return RunProgram(args, input);
}

inline bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

}  // namespace qvtest
