#include "common_utilities/working_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace quorvel {
namespace utilities {
namespace process {
namespace {

// How often the event loop looks for the end of a running batch.
constexpr int kReportPollMs = 20;

void InstallHandler(void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    sigaddset(&action.sa_mask, SIGCHLD);
    action.sa_flags = 0;
    sigaction(SIGCHLD, &action, nullptr);
}

// SIGCHLD stays blocked on this thread from just before the fork until the parent has noted the
// child (its id, `running`): a child that ends at once is then reaped by the handler as soon as
// the mask is lifted, instead of finding an object that doesn't know it yet.
class ChildSignalBlock {
public:
    ChildSignalBlock() {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGCHLD);
        pthread_sigmask(SIG_BLOCK, &set, &previous_);
    }
    ~ChildSignalBlock() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }
    ChildSignalBlock(const ChildSignalBlock&) = delete;
    ChildSignalBlock& operator=(const ChildSignalBlock&) = delete;

private:
    sigset_t previous_;
};

// What the application had buffered goes out before the fork, so the child can't write it a
// second time.
pid_t ForkChild() {
    std::fflush(nullptr);
    return ::fork();
}

// The child is a copy of the application: it must not run the application's exit handlers and
// static destructors (nor its leak checks) a second time. Its own output is flushed.
[[noreturn]] void EndChild(int code) {
    std::fflush(nullptr);
    ::_exit(code);
}

// Our child's status, or 0 when it still runs (the SIGCHLD came from another child of the
// application: waiting for ours here would freeze the application until the batch ends).
pid_t Reap(pid_t child, int* status) {
    pid_t result;
    do {
        result = ::waitpid(child, status, WNOHANG);
    } while (result < 0 && errno == EINTR);
    return result;
}

// SIGCHLD is blocked by the caller, so the handler can't reap the child between the test and
// the kill; a pid of 0 would signal the whole process group.
int KillAndReap(pid_t child) {
    if (child <= 0) return 0;
    int result = ::kill(child, SIGKILL);
    if (result == 0) ::waitpid(child, nullptr, 0);
    return result;
}

void ReportTaskDone(int cmd, int task_id) {
    QV_LOG_INFO("cur_pid = %i, parent_pid = %i, current_task = %i", ::getpid(), ::getppid(),
                GetCurrentTask());
    QV_LOG_INFO("SendEventTo(%i, %i, %i)", ::getppid(), cmd, task_id);
    SendEventTo(::getppid(), kTaskDoneEvent, cmd, task_id);
}

}  // namespace

// ---- WorkingProcess ---------------------------------------------------------------------------

std::atomic<WorkingProcess*> WorkingProcess::s_pThis_{nullptr};

WorkingProcess::WorkingProcess()
    : running(false), task_queue_(std::make_shared<Queue>()), pid(0) {
    InstallHandler(&WorkingProcess::SignalHandler);
}

// A child still running is killed and reaped, and the handler forgets this object: it must not
// reach a destroyed one.
WorkingProcess::~WorkingProcess() {
    Stop();
    WorkingProcess* self = this;
    s_pThis_.compare_exchange_strong(self, nullptr);
}

void WorkingProcess::EnqueueTask(std::shared_ptr<IRunnable> task, int cmd, int task_id) {
    QV_LOG(QV_LOG_NOTICE, ">>>   EnqueueTask(task, cmd = %i, task_id = %i)   <<<\n", cmd, task_id);
    if (running) {
        QV_LOG(QV_LOG_WARNING, "Can't add task to queue: task already forked and working");
        return;
    }
    task_queue_->push(QueueItem{std::move(task), task_id, cmd});
}

int WorkingProcess::Run() {
    if (int err = wait_errno_.exchange(0)) QV_LOG_ERROR("waitpid: error %i\n", err);
    if (running) {
        QV_LOG_ERROR("Another process has been already running");
        return -1;
    }
    s_pThis_ = this;
    QV_LOG_INFO("cur_pid = %i, current_task = %i", ::getpid(), GetCurrentTask());
    spare_queue_ = std::make_shared<Queue>();
    pid_t child;
    {
        ChildSignalBlock block;
        running = true;
        child = ForkChild();
        pid = child > 0 ? child : 0;
        if (child < 0) {
            QV_LOG_ERROR("Can't create new process");
            running = false;
            return -1;
        }
    }
    if (child > 0) return 0;
    QV_LOG_INFO("Run process");
    Work();
    QV_LOG_INFO("Exit from process");
    EndChild(0);
}

int WorkingProcess::Work() {
    QV_LOG_INFO("task_queue_->empty() = %i", task_queue_->empty() ? 1 : 0);
    while (!task_queue_->empty()) {
        QueueItem& item = task_queue_->front();
        if (item.task) item.task->Run();
        ReportTaskDone(item.cmd, item.task_id);
        task_queue_->pop();
    }
    return 0;
}

// The child is killed and reaped here: left to the handler, which ignores a stopped batch, it
// would stay a zombie for the life of the application. The same holds for WorkingProcess_c11,
// which also closes its pipe.
int WorkingProcess::Stop() {
    ChildSignalBlock block;
    if (!running) return 0;
    running = false;
    task_queue_ = std::make_shared<Queue>();
    return KillAndReap(pid.exchange(0));
}

bool WorkingProcess::TasksQueueEmpty() {
    return task_queue_->empty();
}

void WorkingProcess::SignalHandler(int signal) {
    WorkingProcess* self = s_pThis_;
    if (signal != SIGCHLD || self == nullptr || !self->running || self->pid == 0) return;
    int saved_errno = errno;
    int status = 0;
    pid_t result = Reap(self->pid, &status);
    if (result != 0) {
        self->running = false;
        if (result != self->pid) self->wait_errno_ = errno;
        // The child had its own copy of the queue; the parent's is dropped.
        self->task_queue_.swap(self->spare_queue_);
    }
    errno = saved_errno;
}

// ---- WorkingProcess_c11 -----------------------------------------------------------------------

std::atomic<WorkingProcess_c11*> WorkingProcess_c11::s_pWorker_{nullptr};

WorkingProcess_c11::WorkingProcess_c11()
    : running(false), task_queue_(std::make_shared<Queue>()), pid(0) {
    InstallHandler(&WorkingProcess_c11::SignalHandler_c11);
}

WorkingProcess_c11::~WorkingProcess_c11() {
    Stop();
    ClearTimerEx(&ReportTimer, this);
    ReportChildEnd();
    ClosePipe();
    WorkingProcess_c11* self = this;
    s_pWorker_.compare_exchange_strong(self, nullptr);
}

int WorkingProcess_c11::EnqueueTask(Task const& task, int cmd, int task_id) {
    QV_LOG(QV_LOG_NOTICE, ">>>   EnqueueTask(task, cmd = %i, task_id = %i)   <<<\n", cmd, task_id);
    if (running) {
        QV_LOG(QV_LOG_WARNING, "Can't add task to queue: task already forked and working");
        return -1;
    }
    task_queue_->push(QueueItem{task, task_id, cmd});
    return 0;
}

void WorkingProcess_c11::ClosePipe() {
    for (int* fd : {&pipe_read_, &pipe_write_}) {
        if (*fd >= 0) ::close(*fd);
        *fd = -1;
    }
}

int WorkingProcess_c11::Run() {
    ReportChildEnd();
    if (running) {
        QV_LOG_ERROR("Another process has been already running");
        return -1;
    }
    QV_LOG_INFO("cur_pid = %i, current_task = %i", ::getpid(), GetCurrentTask());
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        QV_LOG_ERROR("Can't open pipe");
        return -1;
    }
    ClosePipe();  // what a stopped batch left behind
    pipe_read_ = fds[0];
    pipe_write_ = fds[1];
    // The handler reads after the child has ended: whatever it wrote is there already, and a
    // child that failed without writing must not leave the handler waiting on our own write end.
    ::fcntl(pipe_read_, F_SETFL, O_NONBLOCK);
    s_pWorker_ = this;
    spare_queue_ = std::make_shared<Queue>();
    pid_t child;
    {
        ChildSignalBlock block;
        child = ForkChild();
        if (child < 0) {
            QV_LOG_ERROR("Can't create new process");
            ClosePipe();
            return -1;
        }
        if (child > 0) {
            pid = child;
            running = true;
        }
    }
    if (child > 0) {
        SetHardTimerEx("WorkingProcess_c11", &ReportTimer, this, kReportPollMs);
        return 0;
    }
    ::close(pipe_read_);
    QV_LOG_INFO("Run process");
    Work();
    QV_LOG_INFO("Exit from process");
    ::close(pipe_write_);
    EndChild(0);
}

int WorkingProcess_c11::Work() {
    QV_LOG_INFO("task_queue_->empty() = %i", task_queue_->empty() ? 1 : 0);
    while (!task_queue_->empty()) {
        const QueueItem& item = task_queue_->front();
        Task task = item.task;
        if (task.is_void && task.void_task) {
            task.void_task();
        } else if (task.int_task) {
            int rc = task.int_task();
            if (rc != 0) {
                QV_LOG_ERROR("Task %i return an error: %i", item.task_id, rc);
                int task_id = item.task_id;
                ssize_t written = ::write(pipe_write_, &task_id, sizeof task_id);
                (void)written;
                QV_LOG_INFO("Pipe has been written");
                ::close(pipe_write_);
                EndChild(rc);
            }
        }
        ReportTaskDone(item.cmd, item.task_id);
        task_queue_->pop();
    }
    return 0;
}

int WorkingProcess_c11::Stop() {
    ChildSignalBlock block;
    if (!running) return 0;
    running = false;
    task_queue_ = std::make_shared<Queue>();
    int result = KillAndReap(pid.exchange(0));
    ClosePipe();
    ClearTimerEx(&ReportTimer, this);
    return result;
}

bool WorkingProcess_c11::TasksQueueEmpty() {
    return task_queue_->empty();
}

void WorkingProcess_c11::SignalHandler_c11(int signal) {
    int saved_errno = errno;
    WorkingProcess_c11* self = s_pWorker_;
    if (signal != SIGCHLD || self == nullptr || !self->running || self->pid == 0) return;
    int status = 0;
    pid_t child = self->pid;
    pid_t result = Reap(child, &status);
    if (result != 0) {
        ChildEnd& end = self->end_;
        end.child = child;
        end.waited = result;
        end.wait_errno = errno;
        end.status = status;
        end.task_id = 0;
        end.task_id_read = false;
        if (result == child && WIFEXITED(status) && WEXITSTATUS(status) != 0) {
            end.task_id_read = ::read(self->pipe_read_, &end.task_id, sizeof end.task_id) > 0;
        }
        self->task_queue_.swap(self->spare_queue_);
        self->ClosePipe();
        self->pid = 0;
        self->running = false;
        end.ready = true;
    }
    errno = saved_errno;
}

void WorkingProcess_c11::ReportChildEnd() {
    if (!end_.ready.exchange(false)) return;
    QV_LOG_TRACE(">>>   SignalHandler  <<<");
    if (end_.waited != end_.child) {
        QV_LOG_ERROR("waitpid: error %i\n", end_.wait_errno);
        return;
    }
    // A child killed by a signal is not reported.
    if (!WIFEXITED(end_.status)) return;
    int code = WEXITSTATUS(end_.status);
    if (code == 0) {
        QV_LOG_INFO("Child terminated normally with exit code %i\n", code);
        return;
    }
    QV_LOG_ERROR("Child terminated normally with error %i", code);
    if (end_.task_id_read && on_error) on_error(end_.task_id, code);
}

void WorkingProcess_c11::ReportTimer(void* self) {
    auto* worker = static_cast<WorkingProcess_c11*>(self);
    worker->ReportChildEnd();
    if (worker->running) SetHardTimerEx("WorkingProcess_c11", &ReportTimer, worker, kReportPollMs);
}

}  // namespace process
}  // namespace utilities
}  // namespace quorvel
