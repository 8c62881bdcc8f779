#include "common_utilities/working_thread.h"

#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>

namespace quorvel {
namespace utilities {
namespace {

// Policy number 3 is the batch class: the worker keeps its share of the processor but never
// preempts the interface. The failure line names the idle class all the same: log searches on
// the device look for that text.
constexpr int kLowPriorityPolicy = 3;

}  // namespace

WorkingThread::WorkingThread()
    : running(false), thread_id(pthread_t()), join_on_destroy(false), idle(true) {}

WorkingThread::~WorkingThread() {
    if (join_on_destroy && HasThread()) {
        // The thread sees join_on_destroy and ends without deleting: this destructor owns the
        // object and waits for the thread instead.
        RequestStop();
        pthread_join(thread_id, nullptr);
    }
}

bool WorkingThread::HasThread() const {
    return thread_id != pthread_t();
}

int WorkingThread::Run() {
    if (running) return 0;
    // A queue left initialised by an earlier, failed start answers QV_WRONG_STATE and stays
    // usable, so the result doesn't matter here.
    task_queue.Init();
    running = true;
    int err = pthread_create(&thread_id, nullptr, &WorkingThread::Runner, this);
    if (err != 0) {
        running = false;
        thread_id = pthread_t();
        QV_LOG_ERR(err);
        return err;
    }
    return 0;
}

bool WorkingThread::IsRunning() {
    return running;
}

int WorkingThread::EnqueueTask(std::shared_ptr<IRunnable> task) {
    return task_queue.Push(task);
}

int WorkingThread::EnqueueTaskFront(std::shared_ptr<IRunnable> task) {
    return task_queue.PushFront(task);
}

int WorkingThread::ClearQueueTasks() {
    return task_queue.Clear();
}

bool WorkingThread::TasksQueueEmpty() {
    return task_queue.IsEmpty() != 0;
}

bool WorkingThread::isIdle() {
    if (task_queue.IsEmpty() == 0) return false;
    return idle;
}

void WorkingThread::StopAndDeleteAsync() {
    if (!HasThread()) {
        delete this;
        return;
    }
    // From the moment the lock is released the thread may delete this object.
    RequestStop();
}

void WorkingThread::RequestStop() {
    // The stop is the flag, not an entry of the queue: a running task may clear or refill the
    // queue at will and the thread still ends. The lock spans the flag and the wake-up push, so a
    // thread that has seen the flag and then taken the lock knows the stopper is done with us.
    std::lock_guard<std::mutex> lock(stop_mutex_);
    running = false;
    task_queue.Push(std::shared_ptr<IRunnable>());  // wakes the thread if it waits
}

bool WorkingThread::StopRequested() {
    if (running) return false;
    std::lock_guard<std::mutex> wait_for_stopper(stop_mutex_);
    return true;
}

void WorkingThread::SetLowPriority() {
    sched_param param{};
    param.sched_priority = 0;
    if (!HasThread() || pthread_setschedparam(thread_id, kLowPriorityPolicy, &param) != 0) {
        QV_LOG_ERROR("Failed to set SCHED_IDLE priority");
    }
}

void WorkingThread::SetMeLowPriority(int priority) {
    // PRIO_PROCESS with a thread id reaches that one thread on Linux; the process id would only
    // reach the main thread.
    auto tid = static_cast<id_t>(::syscall(SYS_gettid));
    if (::getpriority(PRIO_PROCESS, tid) == priority) return;
    if (::setpriority(PRIO_PROCESS, tid, priority) != 0) {
        std::fputs("FAILED to setpriority\n", stderr);
    }
}

void* WorkingThread::Runner(void* arg) {
    static_cast<WorkingThread*>(arg)->Work();
    return nullptr;
}

int WorkingThread::Work() {
    for (;;) {
        std::shared_ptr<IRunnable> task;
        idle = true;
        task_queue.Wait(0, &task);
        // Asked before the task, too: one taken after the stop was still waiting at the stop.
        if (StopRequested()) break;
        if (task) {
            idle = false;
            task->Run();
        }
        task.reset();
        if (StopRequested()) break;
    }
    // What still waits in the queue is dropped, unrun, with the object.
    if (join_on_destroy) return 0;
    pthread_detach(pthread_self());
    delete this;
    return 0;
}

}  // namespace utilities
}  // namespace quorvel
