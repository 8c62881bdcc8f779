#include "child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <mutex>
#include <thread>

namespace qvtest {

struct ChildProcess::State {
    pid_t pid = -1;
    int output_fd = -1;
    std::mutex mutex;
    std::string output;
    std::thread reader;
    bool reaped = false;
    ChildResult result;

    void StartReader() {
        reader = std::thread([this] {
            char buffer[4096];
            for (;;) {
                ssize_t n = ::read(output_fd, buffer, sizeof buffer);
                if (n < 0 && errno == EINTR)
                    continue;
                if (n <= 0)
                    break;
                std::lock_guard<std::mutex> lock(mutex);
                output.append(buffer, static_cast<size_t>(n));
            }
        });
    }

    void Reap(int status) {
        reaped = true;
        if (WIFEXITED(status))
            result.exit_code = WEXITSTATUS(status);
        if (WIFSIGNALED(status))
            result.signal = WTERMSIG(status);
    }

    ~State() {
        if (pid > 0 && !reaped) {
            ::kill(pid, SIGKILL);
            int status = 0;
            ::waitpid(pid, &status, 0);
        }
        if (reader.joinable())
            reader.join();
        if (output_fd >= 0)
            ::close(output_fd);
    }
};

namespace {

struct Pipe {
    int read_end = -1;
    int write_end = -1;
    Pipe() {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) == 0) {
            read_end = fds[0];
            write_end = fds[1];
        }
    }
};

// In the child: output to the pipe, then never return into the caller's stack.
[[noreturn]] void RunChild(const Pipe& out, const std::function<int()>& fn) {
    ::dup2(out.write_end, STDOUT_FILENO);
    ::dup2(out.write_end, STDERR_FILENO);
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
    Pipe out;
    std::fflush(stdout);
    std::fflush(stderr);
    pid_t pid = ::fork();
    if (pid == 0) {
        ::close(out.read_end);
        RunChild(out, fn);
    }
    ::close(out.write_end);
    auto state = std::make_unique<State>();
    state->pid = pid;
    state->output_fd = out.read_end;
    if (pid < 0)
        state->reaped = true;
    state->StartReader();
    return ChildProcess(std::move(state));
}

ChildProcess ChildProcess::Run(const std::vector<std::string>& argv, const std::string& input) {
    Pipe in;
    ChildProcess child =
        Start([argv, input, in_read = in.read_end, in_write = in.write_end]() -> int {
            // The writer of the input is a grandchild, so a large input can't block the program.
            if (::fork() == 0) {
                ::close(in_read);
                ssize_t ignored = ::write(in_write, input.data(), input.size());
                (void)ignored;
                ::_exit(0);
            }
            ::close(in_write);
            ::dup2(in_read, STDIN_FILENO);
            std::vector<char*> args;
            for (const auto& arg : argv)
                args.push_back(const_cast<char*>(arg.c_str()));
            args.push_back(nullptr);
            ::execvp(args[0], args.data());
            std::fprintf(stderr, "can't run %s\n", args[0]);
            return 127;
        });
    ::close(in.read_end);
    ::close(in.write_end);
    return child;
}

pid_t ChildProcess::pid() const {
    return state_->pid;
}

void ChildProcess::Kill(int signal) {
    if (state_->pid > 0 && !state_->reaped)
        ::kill(state_->pid, signal);
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
    if (s.reader.joinable())
        s.reader.join();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.result.output = s.output;
    return s.result;
}

Rendezvous::Rendezvous() {
    if (::pipe(fds_) != 0)
        fds_[0] = fds_[1] = -1;
}

Rendezvous::~Rendezvous() {
    if (fds_[0] >= 0)
        ::close(fds_[0]);
    if (fds_[1] >= 0)
        ::close(fds_[1]);
}

void Rendezvous::Signal() {
    char byte = 1;
    ssize_t ignored = ::write(fds_[1], &byte, 1);
    (void)ignored;
}

bool Rendezvous::Wait(std::chrono::milliseconds timeout) {
    pollfd pfd{fds_[0], POLLIN, 0};
    if (::poll(&pfd, 1, static_cast<int>(timeout.count())) != 1)
        return false;
    char byte = 0;
    return ::read(fds_[0], &byte, 1) == 1;
}

std::string BuildProgram(const std::string& name) {
    return std::string(QV_BUILD_BIN_DIR) + "/" + name;
}

}  // namespace qvtest
