// DownloadManagerFork: the thread that runs wget for each queued item.

#include "common_utilities/download_manager_fork.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <system_error>
#include <vector>

namespace quorvel {
namespace utilities {
namespace {

constexpr long kWaitMs = 100;
// Only a wget that ran to its end with status 0 has the whole file. One killed by a signal left
// a part of it, which must not be renamed as if it were complete; -1 (not started, not waited
// for) fails too.
bool Succeeded(int status) {
    return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

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

// Runs the program named by args[0], found on the PATH, and waits for it: its wait status, or -1.
int RunAndWait(std::vector<std::string> args) {
    std::vector<char*> argv;
    for (std::string& arg : args)
        argv.push_back(arg.data());
    argv.push_back(nullptr);
    SpawnAttributes attributes;
    pid_t pid = 0;
    int err = posix_spawnp(&pid, argv[0], nullptr, &attributes.attr, argv.data(), ::environ);
    if (err != 0) {
        QV_LOG_FAILED(err, "starting %s", argv[0]);
        return -1;
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return status;
}

}  // namespace

DownloadManagerFork::DownloadManagerFork() : running_(false) {
    queue_.Init();
}

DownloadManagerFork::~DownloadManagerFork() {
    running_ = false;
    if (!thread_.joinable()) return;
    try {
        thread_.join();
    } catch (const std::system_error& e) {
        // Destroyed from one of its own callbacks: the thread can't wait for itself.
        QV_LOG_ERROR("join failed with %s", e.what());
        thread_.detach();
    }
}

int DownloadManagerFork::Init(const std::string& folder) {
    QV_RETURN_IF(running_, QV_WRONG_STATE);
    folder_ = folder;
    running_ = true;
    thread_ = std::thread(&DownloadManagerFork::Run, this);
    return QV_OK;
}

int DownloadManagerFork::AddItem(const FileToSync& file, Callback callback) {
    QV_RETURN_UNLESS(callback, QV_INVAL);
    queue_.Push(DownloadItem{file, std::move(callback)});
    return QV_OK;
}

void DownloadManagerFork::Run() {
    while (running_) {
        DownloadItem item;
        if (queue_.Wait(kWaitMs, &item) != QV_OK) continue;
        Process(item);
    }
}

void DownloadManagerFork::Process(const DownloadItem& item) {
    std::string final_path = folder_ + "/" + item.file.name;
    std::string temp = final_path + ".download";
    int status = RunAndWait({"wget", "-O", temp, "--", item.file.url});
    if (!Succeeded(status)) {
        item.callback(QV_FAILED, item.file);
        return;
    }
    std::rename(temp.c_str(), final_path.c_str());
    item.callback(QV_OK, item.file);
}

}  // namespace utilities
}  // namespace quorvel
