// Tasks on the host: an application is a process, its task id the process id. What the device's
// shell would know of the running applications lives in the host state directory, one file per
// task ("tasks/<id>": application name, program path, start time), so that any process of the
// device can find a task another one started. A record outlives its task only until someone
// looks: a task counts as running while a process with its id and its start time exists and is
// not a zombie, which also guards against a recycled process id.

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "host_state.h"
#include "moorglass.h"
#include "moorglass_host.h"

extern char** environ;

namespace {

// How long CloseTask gives a task to end after asking, and again after killing it.
constexpr unsigned kGraceMicroseconds = 3000000;
constexpr unsigned kPollMicroseconds = 10000;

struct TaskRecord {
    int id = -1;
    std::string appname;
    std::string path;
    unsigned long long start_time = 0;
};

std::string RecordPath(int id) {
    return std::string(qvhost_tasks_dir()) + "/" + std::to_string(id);
}

std::string BaseName(const std::string& path) {
    auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// State letter and start time (clock ticks since boot) of a process, from /proc.
bool ProcessStat(int pid, char* state, unsigned long long* start_time) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    if (!std::getline(in, text)) return false;
    // The command name may hold blanks and parentheses: the fields start after the last ')'.
    auto close = text.rfind(')');
    if (close == std::string::npos) return false;
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    fields >> *state;
    for (int i = 4; i < 22 && fields >> field; ++i) {
    }
    return static_cast<bool>(fields >> *start_time);
}

bool WriteRecord(const TaskRecord& record) {
    qvhost::EnsureStateDir();
    ::mkdir(qvhost_tasks_dir(), 0755);
    std::string path = RecordPath(record.id);
    std::string temp = path + ".new";
    {
        std::ofstream out(temp, std::ios::trunc);
        out << record.appname << '\n' << record.path << '\n' << record.start_time << '\n';
        if (!out.flush()) return false;
    }
    // By rename, so that a reader sees a whole record or none.
    return std::rename(temp.c_str(), path.c_str()) == 0;
}

std::optional<TaskRecord> ReadRecord(int id) {
    std::ifstream in(RecordPath(id));
    TaskRecord record;
    record.id = id;
    if (!std::getline(in, record.appname) || !std::getline(in, record.path) ||
        !(in >> record.start_time)) {
        return std::nullopt;
    }
    return record;
}

// Running, in the sense above. A task that is our own child and has ended is reaped here, so
// that the applications of the host leave no zombies behind.
bool IsRunning(const TaskRecord& record) {
    char state = 0;
    unsigned long long start_time = 0;
    if (!ProcessStat(record.id, &state, &start_time) || start_time != record.start_time) {
        return false;
    }
    if (state != 'Z' && state != 'X') return true;
    ::waitpid(record.id, nullptr, WNOHANG);
    return false;
}

// The record of a running task; a stale record is removed on the way.
std::optional<TaskRecord> RunningTask(int id) {
    auto record = ReadRecord(id);
    if (!record) return std::nullopt;
    if (IsRunning(*record)) return record;
    ::unlink(RecordPath(id).c_str());
    return std::nullopt;
}

std::vector<TaskRecord> RunningTasks() {
    std::vector<TaskRecord> tasks;
    DIR* dir = ::opendir(qvhost_tasks_dir());
    if (dir == nullptr) return tasks;
    while (dirent* entry = ::readdir(dir)) {
        char* end = nullptr;
        long id = std::strtol(entry->d_name, &end, 10);
        if (id <= 0 || *end != '\0') continue;
        if (auto record = RunningTask(static_cast<int>(id))) tasks.push_back(*record);
    }
    ::closedir(dir);
    return tasks;
}

// Waits, through the platform's sleep, until the process behind `pidfd` has ended.
bool WaitForEnd(int pidfd, unsigned microseconds) {
    for (unsigned waited = 0;; waited += kPollMicroseconds) {
        pollfd ready{pidfd, POLLIN, 0};
        if (::poll(&ready, 1, 0) == 1) return true;
        if (waited >= microseconds) return false;
        qvhost_platform_usleep(kPollMicroseconds);
    }
}

bool Signal(int pidfd, int signal) {
    return ::syscall(SYS_pidfd_send_signal, pidfd, signal, nullptr, 0) == 0;
}

// A task is its own session: a Ctrl-C meant for the application that started it, or a signal
// to that application's group, doesn't reach it. It starts with the default signal handling.
int Spawn(const char* path, char** argv, pid_t* pid) {
    // posix_spawn reports a failed exec only where the child shares the parent's memory until
    // the exec; an emulator that forks instead hands back the pid of a child that exits at once.
    // A program that isn't there or can't run is refused here on every system alike.
    if (::access(path, X_OK) != 0) return errno;
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    for (int signal : {SIGINT, SIGTERM, SIGQUIT, SIGPIPE, SIGCHLD, SIGHUP}) {
        sigaddset(&defaults, signal);
    }
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK |
                                              POSIX_SPAWN_SETSIGDEF);
    char* no_arguments[] = {const_cast<char*>(path), nullptr};
    int err = ::posix_spawn(pid, path, nullptr, &attributes, argv ? argv : no_arguments, environ);
    posix_spawnattr_destroy(&attributes);
    return err;
}

}  // namespace

extern "C" {

const char* qvhost_tasks_dir(void) {
    static thread_local std::string path;
    path = qvhost::StatePath("tasks");
    return path.c_str();
}

int NewTask(const char* path, char** argv, const char* appname, const char* name,
            struct ibitmap_s* icon, unsigned int flags) {
    (void)name;
    (void)icon;
    (void)flags;
    if (path == nullptr || *path == '\0') return -1;
    pid_t pid = 0;
    if (Spawn(path, argv, &pid) != 0) return -1;
    TaskRecord record;
    record.id = pid;
    record.appname = appname && *appname ? appname : BaseName(path);
    record.path = path;
    char state = 0;
    // The start time never changes, exec or not: read now, it names this process for good.
    if (!ProcessStat(pid, &state, &record.start_time) || !WriteRecord(record)) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        return -1;
    }
    return pid;
}

int FindTaskByAppName(const char* name) {
    if (name == nullptr || *name == '\0') return -1;
    const std::string wanted = name;
    const TaskRecord* newest = nullptr;
    std::vector<TaskRecord> tasks = RunningTasks();
    for (const TaskRecord& task : tasks) {
        bool match = task.appname == wanted || task.path == wanted || BaseName(task.path) == wanted;
        if (match && (newest == nullptr || task.start_time > newest->start_time)) newest = &task;
    }
    return newest ? newest->id : -1;
}

int GetCurrentTask(void) {
    return static_cast<int>(::getpid());
}

int CloseTask(int task, int subtask, int force) {
    (void)subtask;  // a host task is one process: there is nothing smaller to close
    if (task <= 0 || !RunningTask(task)) return -1;
    int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, task, 0));
    if (pidfd < 0) return -1;
    bool ended = Signal(pidfd, SIGTERM) && WaitForEnd(pidfd, kGraceMicroseconds);
    if (!ended && force) ended = Signal(pidfd, SIGKILL) && WaitForEnd(pidfd, kGraceMicroseconds);
    ::close(pidfd);
    if (!ended) return -1;
    ::waitpid(task, nullptr, WNOHANG);  // our own child: reap it now
    ::unlink(RecordPath(task).c_str());
    return 0;
}

int OpenBook2(const char* path, int argc, char** argv, int flags) {
    (void)flags;
    if (path == nullptr || *path == '\0' || argc < 0) return -1;
    int running = FindTaskByAppName(path);
    if (running > 0) return running;  // no windows on the host: "forward" changes nothing
    std::vector<char*> list{const_cast<char*>(path)};
    for (int i = 0; i < argc; ++i) list.push_back(argv[i]);
    list.push_back(nullptr);
    std::string appname = BaseName(path);
    return NewTask(path, list.data(), appname.c_str(), appname.c_str(), nullptr, 0);
}

}  // extern "C"
