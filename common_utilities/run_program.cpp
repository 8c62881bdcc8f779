// RunProgram: posix_spawnp rather than fork and exec, because it is safe to call while other
// threads of the process hold locks (the child runs no code of ours before the exec).

#include "common_utilities/run_program.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace utilities {
namespace {

// Signals the child should not inherit as ignored or blocked from this process.
struct SpawnAttributes {
    SpawnAttributes() {
        posix_spawnattr_init(&attr);
        sigset_t set;
        sigemptyset(&set);
        posix_spawnattr_setsigmask(&attr, &set);
        for (int sig : {SIGPIPE, SIGINT, SIGQUIT, SIGTERM})
            sigaddset(&set, sig);
        posix_spawnattr_setsigdefault(&attr, &set);
        posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~SpawnAttributes() { posix_spawnattr_destroy(&attr); }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;
    posix_spawnattr_t attr;
};

// The child's standard output as the write end of a pipe; the read end stays with the parent.
struct OutputPipe {
    OutputPipe() {
        posix_spawn_file_actions_init(&actions);
        if (::pipe2(fds.data(), O_CLOEXEC) != 0) return;
        posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    }
    ~OutputPipe() {
        posix_spawn_file_actions_destroy(&actions);
        CloseWriteEnd();
        if (fds[0] >= 0) ::close(fds[0]);
    }
    OutputPipe(const OutputPipe&) = delete;
    OutputPipe& operator=(const OutputPipe&) = delete;

    bool Open() const { return fds[0] >= 0; }
    void CloseWriteEnd() {
        if (fds[1] >= 0) ::close(fds[1]);
        fds[1] = -1;
    }
    void ReadAll(std::string* output) {
        std::array<char, 4096> buffer;
        for (;;) {
            ssize_t n = ::read(fds[0], buffer.data(), buffer.size());
            if (n > 0) {
                output->append(buffer.data(), static_cast<size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                return;
            }
        }
    }

    std::array<int, 2> fds{-1, -1};
    posix_spawn_file_actions_t actions;
};

int WaitFor(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return status;
}

}  // namespace

int RunProgram(std::vector<std::string> args, std::string* output) {
    if (args.empty()) return -1;
    std::vector<char*> argv;
    for (std::string& arg : args)
        argv.push_back(arg.data());
    argv.push_back(nullptr);
    SpawnAttributes attributes;
    OutputPipe pipe;
    if (output && !pipe.Open()) return -1;
    pid_t pid = 0;
    int err = posix_spawnp(&pid, argv[0], output ? &pipe.actions : nullptr, &attributes.attr,
                           argv.data(), ::environ);
    if (err != 0) {
        QV_LOG_FAILED(err, "starting %s", argv[0]);
        return -1;
    }
    if (output) {
        pipe.CloseWriteEnd();  // so that the read ends when the child closes its copy
        pipe.ReadAll(output);
    }
    return WaitFor(pid);
}

}  // namespace utilities
}  // namespace quorvel
