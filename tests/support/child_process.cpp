#include "child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <thread>

namespace qvtest {

// Output goes to an anonymous file rather than a pipe: nothing needs to drain it while the child
// runs, so the parent needs no reader thread. A thread running in the parent at fork time could
// hold an allocator lock that the child would then wait on forever.
struct ChildProcess::State {
    pid_t pid = -1;
    int output_fd = -1;
    bool reaped = false;
    ChildResult result;

    void Reap(int status) {
        reaped = true;
        if (WIFEXITED(status)) result.exit_code = WEXITSTATUS(status);
        if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
    }

    std::string Output() const {
        std::string text;
        char buffer[4096];
        off_t offset = 0;
        for (;;) {
            ssize_t n = ::pread(output_fd, buffer, sizeof buffer, offset);
            if (n <= 0) return text;
            text.append(buffer, static_cast<size_t>(n));
            offset += n;
        }
    }

    ~State() {
        if (pid > 0 && !reaped) {
            ::kill(pid, SIGKILL);
            int status = 0;
            ::waitpid(pid, &status, 0);
        }
        if (output_fd >= 0) ::close(output_fd);
    }
};

namespace {

int AnonymousFile(const char* name) {
    return ::memfd_create(name, MFD_CLOEXEC);
}

// In the child: output to the file, then never return into the caller's stack.
[[noreturn]] void RunChild(int output_fd, const std::function<int()>& fn) {
    ::dup2(output_fd, STDOUT_FILENO);
    ::dup2(output_fd, STDERR_FILENO);
    int code = 99;
    try {
        code = fn();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "child: uncaught exception: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "child: uncaught exception\n");
    }
    std::fflush(stdout);
    std::fflush(stderr);
    ::_exit(code);
}

}  // namespace

ChildProcess::ChildProcess(std::unique_ptr<State> state) : state_(std::move(state)) {}
ChildProcess::ChildProcess(ChildProcess&&) noexcept = default;
ChildProcess& ChildProcess::operator=(ChildProcess&&) noexcept = default;
ChildProcess::~ChildProcess() = default;

ChildProcess ChildProcess::Start(const std::function<int()>& fn) {
    auto state = std::make_unique<State>();
    state->output_fd = AnonymousFile("child-output");
    std::fflush(stdout);
    std::fflush(stderr);
    state->pid = ::fork();
    if (state->pid == 0) RunChild(state->output_fd, fn);
    if (state->pid < 0) state->reaped = true;
    return ChildProcess(std::move(state));
}

ChildProcess ChildProcess::Run(const std::vector<std::string>& argv, const std::string& input) {
    // Everything the child needs is made before the fork: between fork and exec it only
    // rearranges descriptors.
    int input_fd = AnonymousFile("child-input");
    ssize_t written = ::write(input_fd, input.data(), input.size());
    (void)written;
    ::lseek(input_fd, 0, SEEK_SET);
    std::vector<char*> args;
    for (const auto& arg : argv)
        args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    ChildProcess child = Start([&args, input_fd]() -> int {
        ::dup2(input_fd, STDIN_FILENO);
        ::execvp(args[0], args.data());
        std::fprintf(stderr, "can't run %s\n", args[0]);
        return 127;
    });
    ::close(input_fd);
    return child;
}

pid_t ChildProcess::pid() const {
    return state_->pid;
}

void ChildProcess::Kill(int signal) {
    if (state_->pid > 0 && !state_->reaped) ::kill(state_->pid, signal);
}

ChildResult ChildProcess::Wait(std::chrono::milliseconds timeout) {
    State& s = *state_;
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!s.reaped) {
        int status = 0;
        pid_t done = ::waitpid(s.pid, &status, WNOHANG);
        if (done == s.pid) {
            s.Reap(status);
            break;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            s.result.timed_out = true;
            ::kill(s.pid, SIGKILL);
            ::waitpid(s.pid, &status, 0);
            s.Reap(status);
            break;
        }
        std::this_thread::sleep_for(2ms);
    }
    s.result.output = s.Output();
    return s.result;
}

Rendezvous::Rendezvous() {
    if (::pipe(fds_) != 0) fds_[0] = fds_[1] = -1;
}

Rendezvous::~Rendezvous() {
    if (fds_[0] >= 0) ::close(fds_[0]);
    if (fds_[1] >= 0) ::close(fds_[1]);
}

void Rendezvous::Signal() {
    char byte = 1;
    ssize_t ignored = ::write(fds_[1], &byte, 1);
    (void)ignored;
}

bool Rendezvous::Wait(std::chrono::milliseconds timeout) {
    pollfd pfd{fds_[0], POLLIN, 0};
    if (::poll(&pfd, 1, static_cast<int>(timeout.count())) != 1) return false;
    char byte = 0;
    return ::read(fds_[0], &byte, 1) == 1;
}

std::string ChildProcess::OutputSoFar() const {
    return state_->Output();
}

std::string ChildResult::Describe() const {
    std::string how = timed_out     ? "timed out"
                      : signal != 0 ? "killed by signal " + std::to_string(signal)
                                    : "exit code " + std::to_string(exit_code);
    return how + "; output:\n" + output;
}

std::string BuildProgram(const std::string& name) {
    return std::string(QV_BUILD_BIN_DIR) + "/" + name;
}

}  // namespace qvtest
