// One POSIX thread that runs tasks one at a time, in the order of its queue.
//
// Two ways to own one:
//  - embedded in an object that lives as long as the process (a singleton's worker): started with
//    Run and never stopped; its destructor neither stops nor joins the thread;
//  - allocated with new and ended with StopAndDeleteAsync: the thread finishes the task it is
//    running, drops whatever still waits (those tasks never run, and the queue releases them), and
//    deletes the object itself. The caller must not touch the object after that call; the running
//    task still may, and whatever it does to the queue (clear it, push to the front, stop the
//    worker itself) does not keep the thread alive.
//
// Tasks of one WorkingThread never run at the same time, so they need no locks among themselves.
#pragma once

#include <pthread.h>

#include <atomic>
#include <memory>
#include <mutex>

#include "common_utilities/common_utilities.h"
#include "common_utilities/message_queue.h"

namespace quorvel {
namespace utilities {

class QV_EXPORT WorkingThread {
public:
    WorkingThread();
    ~WorkingThread();
    WorkingThread(const WorkingThread&) = delete;
    WorkingThread& operator=(const WorkingThread&) = delete;

    // Starts the thread: 0, or the error of pthread_create. A second Run while running does
    // nothing and gives 0. Tasks enqueued before Run are refused with QV_NOT_IMPEMENTED.
    int Run();
    bool IsRunning();

    // Result codes of the queue's Push and PushFront. A task put at the front runs right after
    // the one that is running now. An empty task only wakes the thread.
    int EnqueueTask(std::shared_ptr<IRunnable> task);
    int EnqueueTaskFront(std::shared_ptr<IRunnable> task);
    // Drops the tasks that wait; the running one goes on.
    int ClearQueueTasks();
    bool TasksQueueEmpty();
    // Nothing waits and the thread is back waiting for work. A snapshot, read without a lock:
    // it may lag the thread by a moment.
    bool isIdle();

    // Asks the thread to end after its current task and to delete this object; returns at once.
    // The object must come from new. Never started, it is deleted here and now.
    void StopAndDeleteAsync();

    // Moves the thread into the batch scheduling class, behind interactive work.
    void SetLowPriority();
    // Sets the nice value of the calling thread (only that thread), if it differs.
    static void SetMeLowPriority(int priority);

    // The thread's entry and its loop; Run starts them.
    static void* Runner(void* arg);
    int Work();

private:
    bool HasThread() const;
    // Clears `running` and wakes the thread, as one step under stop_mutex_.
    void RequestStop();
    // On the thread: whether a stop was asked for. When it was, returns only once the stopper has
    // let go of the object, which the thread may then delete.
    bool StopRequested();

    // Set by Run before the thread starts, so that a second Run right after the first sees it;
    // cleared by StopAndDeleteAsync, under stop_mutex_. Atomic: the thread tests it after every
    // task without a lock, and takes the lock only once it reads false.
    std::atomic<bool> running;
    MessageQueue<std::shared_ptr<IRunnable>> task_queue;
    pthread_t thread_id;  // zero until Run starts the thread
    // Kept for owners that join their thread on destruction; nothing sets it today.
    bool join_on_destroy;
    std::atomic<bool> idle;
    std::mutex stop_mutex_;
};

}  // namespace utilities
}  // namespace quorvel
