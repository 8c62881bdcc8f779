// A batch of tasks in a forked child process, so that a long or fragile job can neither block
// nor kill the application. Each finished task is reported to the parent application's event
// loop: event 212 with the task's `cmd` and `task_id` as parameters, sent to the parent's task.
//
// The model is batch-wise: fill the queue, then Run; the fork copies the queue into the child,
// and nothing can be added while the child lives. When the child ends, the SIGCHLD handler of the
// class reaps it and empties the parent's queue. The constructors install that handler in place
// of the application's, and one object per class can run at a time (the handler finds it
// through a static pointer).
//
// WorkingProcess_c11 takes callables, and a task that returns non-zero ends the batch: the child
// exits with that code, the remaining tasks don't run, and the parent learns of it through
// `on_error(task_id, code)`.
//
// The SIGCHLD handlers do only what is safe in a signal handler: reap the child, read the failed
// task's id from the pipe, swap in an empty queue made beforehand. The log lines of the child's
// end and `on_error` follow on the thread of the application's event loop (a timer of the loop
// looks for the child's end while a batch runs), or at the latest at the next Run or at the
// destruction. Logging or allocating inside the handler could deadlock the application: it may
// interrupt a thread that holds the logger's or the allocator's lock.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <functional>
#include <memory>
#include <queue>
#include <type_traits>

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace utilities {
namespace process {

// The event that reports a finished task.
constexpr int kTaskDoneEvent = 212;

class QV_EXPORT IRunnable {
public:
    virtual int Run() = 0;
    virtual ~IRunnable() = default;
};

// A callable with no arguments; one returning int reports failure by a non-zero result.
class QV_EXPORT Task {
public:
    Task() = default;
    template <typename F, typename = std::enable_if_t<!std::is_same<std::decay_t<F>, Task>::value>>
    Task(F f) {  // NOLINT: implicit, so that a lambda is a Task
        if constexpr (std::is_void<std::invoke_result_t<F&>>::value) {
            void_task = std::move(f);
            is_void = true;
        } else {
            int_task = std::move(f);
        }
    }
    Task(const Task&) = default;
    Task(Task&&) = default;
    Task& operator=(const Task&) = default;
    Task& operator=(Task&&) = default;
    virtual ~Task() = default;

    std::function<void()> void_task;
    std::function<int()> int_task;
    bool is_void = false;
};

class QV_EXPORT WorkingProcess {
public:
    struct QueueItem {
        std::shared_ptr<IRunnable> task;
        int task_id;
        int cmd;
    };

    WorkingProcess();
    ~WorkingProcess();
    WorkingProcess(const WorkingProcess&) = delete;
    WorkingProcess& operator=(const WorkingProcess&) = delete;

    // Forks the child that runs the queue: 0, or -1 while a child runs or when fork fails.
    int Run();
    // Refused (logged) while a child runs.
    void EnqueueTask(std::shared_ptr<IRunnable> task, int cmd, int task_id);
    // Kills the child: 0 when none runs, else kill's result. The child is not reaped.
    int Stop();
    bool TasksQueueEmpty();

    static void SignalHandler(int signal);
    // The child's work: every task in order, an event after each.
    int Work();

private:
    using Queue = std::queue<QueueItem>;

    std::atomic<bool> running;
    std::shared_ptr<Queue> task_queue_;
    std::atomic<pid_t> pid;
    // Made before the fork and swapped in by the SIGCHLD handler, which thus neither allocates
    // nor frees: the dropped queue waits here until the next call from outside signal context.
    std::shared_ptr<Queue> spare_queue_;
    // errno of a failed waitpid in the handler, logged at the next Run.
    std::atomic<int> wait_errno_{0};

    static std::atomic<WorkingProcess*> s_pThis_;
};

class QV_EXPORT WorkingProcess_c11 {
public:
    struct QueueItem {
        Task task;
        int task_id;
        int cmd;
    };

    WorkingProcess_c11();
    ~WorkingProcess_c11();
    WorkingProcess_c11(const WorkingProcess_c11&) = delete;
    WorkingProcess_c11& operator=(const WorkingProcess_c11&) = delete;

    int Run();
    // 0, or -1 while a child runs.
    int EnqueueTask(Task const& task, int cmd, int task_id);
    int Stop();
    bool TasksQueueEmpty();

    static void SignalHandler_c11(int signal);
    int Work();

    // Called in the parent, on the event loop's thread, with the failed task's id and its code.
    std::function<void(int, int)> on_error;

private:
    using Queue = std::queue<QueueItem>;

    // What the handler saw, for ReportChildEnd; written before `ready` is set.
    struct ChildEnd {
        std::atomic<bool> ready{false};
        pid_t child = 0;
        pid_t waited = 0;
        int wait_errno = 0;
        int status = 0;
        int task_id = 0;
        bool task_id_read = false;
    };

    void ClosePipe();
    // The log lines and on_error of a child's end the handler noted; nothing if none.
    void ReportChildEnd();
    static void ReportTimer(void* self);

    std::atomic<bool> running;
    std::shared_ptr<Queue> task_queue_;
    std::atomic<pid_t> pid;
    int pipe_read_ = -1;
    int pipe_write_ = -1;
    std::shared_ptr<Queue> spare_queue_;
    ChildEnd end_;

    static std::atomic<WorkingProcess_c11*> s_pWorker_;
};

}  // namespace process
}  // namespace utilities
}  // namespace quorvel
