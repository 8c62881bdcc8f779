// The library's one thread-safe queue, and the form of a task for its worker threads.
//
// MessageQueue<T> is a double-ended queue behind a POSIX mutex and condition variable, started in
// two steps (construct, then Init). Every operation of a queue that was never initialised logs
// and returns QV_NOT_IMPEMENTED, so that a worker that forgot Init fails loudly rather than
// crashing on an uninitialised mutex.
//
// Delivery is in queue order, not arrival order: PushFront puts an item ahead of everything that
// waits, which is how an urgent task overtakes a backlog.
//
// There is no close operation: a consumer blocked in Wait is ended by what is sent to it (the
// working thread stops on an empty task). Nothing wakes a waiter when the queue is destroyed, so
// a queue must outlive its waiters.
#pragma once

#include <pthread.h>
#include <time.h>

#include <cerrno>
#include <deque>
#include <limits>
#include <memory>
#include <utility>

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace utilities {

// Where producers put items, whatever consumes them.
template <typename T>
class IPushable {
public:
    virtual int Push(T const& item) = 0;
    virtual int PushFront(T const& item) = 0;
    virtual ~IPushable() {}
};

// A task for a worker thread.
class IRunnable {
public:
    virtual void Run() = 0;
    virtual ~IRunnable() {}
};

// A task made of any callable; what the callable returns is dropped.
template <typename F>
class TaskWrapper : public IRunnable {
public:
    explicit TaskWrapper(F f) : f_(std::move(f)) {}
    void Run() override { static_cast<void>(f_()); }

private:
    F f_;
};

// A task made of a callable, usually a bound member function with its arguments:
//     thread.EnqueueTask(WrapTask(std::bind(&Network::Connect, this, ssid)));
// One allocation holds the wrapper and the reference count; if it fails the exception goes on
// and nothing is left behind.
template <typename F>
std::shared_ptr<IRunnable> WrapTask(F f) {
    return std::make_shared<TaskWrapper<F>>(std::move(f));
}

// The absolute CLOCK_REALTIME time `timeout_ms` after `now`, in the form
// pthread_cond_timedwait takes. A negative timeout gives a time in the past (the wait then
// ends at once) and a huge one saturates instead of wrapping into the past.
inline timespec AbsoluteDeadline(const timespec& now, long timeout_ms) {
    constexpr long kNanosPerSecond = 1000000000L;
    timespec deadline = now;
    time_t seconds = static_cast<time_t>(timeout_ms / 1000);
    long nanos = now.tv_nsec + (timeout_ms % 1000) * 1000000L;
    if (nanos >= kNanosPerSecond) {
        nanos -= kNanosPerSecond;
        ++seconds;
    } else if (nanos < 0) {
        nanos += kNanosPerSecond;
        --seconds;
    }
    if (seconds > 0 && now.tv_sec > std::numeric_limits<time_t>::max() - seconds) {
        deadline.tv_sec = std::numeric_limits<time_t>::max();
        deadline.tv_nsec = kNanosPerSecond - 1;
        return deadline;
    }
    deadline.tv_sec = now.tv_sec + seconds;
    deadline.tv_nsec = nanos;
    return deadline;
}

template <typename T>
class MessageQueue : public IPushable<T> {
public:
    MessageQueue() = default;
    MessageQueue(const MessageQueue&) = delete;
    MessageQueue& operator=(const MessageQueue&) = delete;

    // The queue holds plain values: a queue of raw pointers frees nothing it still holds.
    ~MessageQueue() override {
        if (is_inited_) {
            pthread_cond_destroy(&cond_);
            pthread_mutex_destroy(&mutex_);
        }
    }

    // QV_OK, QV_WRONG_STATE for a second Init (the queue stays usable), QV_FAILED when the
    // system refuses a mutex or a condition variable. Not guarded: call it before the queue is
    // shared.
    int Init() {
        QV_RETURN_UNLESS(false == is_inited_, QV_WRONG_STATE);
        int err = pthread_mutex_init(&mutex_, nullptr);
        QV_RETURN_UNLESS(0 == err, QV_FAILED);
        err = pthread_cond_init(&cond_, nullptr);
        if (err != 0) {
            QV_LOG_ERROR("pthread_cond_init failed with [%d]", err);
            pthread_mutex_destroy(&mutex_);
            return QV_FAILED;
        }
        is_inited_ = true;
        return QV_OK;
    }

    // Appends at the back and wakes one waiter, unless every waiter is already awake.
    int Push(T const& item) override {
        QV_RETURN_UNLESS(is_inited_, QV_NOT_IMPEMENTED);
        Locked lock(mutex_);
        queue_.push_back(item);
        WakeOneWaiter();
        return QV_OK;
    }

    // Inserts at the front, ahead of everything that waits, and wakes one waiter as Push does.
    int PushFront(T const& item) override {
        QV_RETURN_UNLESS(is_inited_, QV_NOT_IMPEMENTED);
        Locked lock(mutex_);
        queue_.push_front(item);
        WakeOneWaiter();
        return QV_OK;
    }

    // Takes the front item without blocking: QV_OK, or QV_FAILED with `*item` untouched when the
    // queue is empty.
    int Pop(T* item) {
        QV_RETURN_UNLESS(is_inited_, QV_NOT_IMPEMENTED);
        Locked lock(mutex_);
        if (queue_.empty()) return QV_FAILED;
        *item = std::move(queue_.front());
        queue_.pop_front();
        return QV_OK;
    }

    // Takes the front item, waiting for one: with `timeout_ms` 0 for as long as it takes,
    // otherwise until that many milliseconds have passed on the wall clock (so setting the clock
    // moves the end of the wait). QV_OK, or QV_FAILED with `*item` untouched when nothing came.
    int Wait(long timeout_ms, T* item) {
        QV_RETURN_UNLESS(is_inited_, QV_NOT_IMPEMENTED);
        // Only a timed wait needs the clock, and it reads it before queueing for the lock.
        timespec deadline{};
        if (timeout_ms != 0) {
            clock_gettime(CLOCK_REALTIME, &deadline);
            deadline = AbsoluteDeadline(deadline, timeout_ms);
        }
        Locked lock(mutex_);
        while (queue_.empty()) {
            ++waiting_;
            int err = timeout_ms == 0 ? pthread_cond_wait(&cond_, &mutex_)
                                      : pthread_cond_timedwait(&cond_, &mutex_, &deadline);
            --waiting_;
            // Whatever ended the wait (a signal, a time-out, nothing at all), count one wake-up
            // as used: too low a count costs a needless signal, too high a one a lost item.
            if (woken_ > 0) --woken_;
            if (err == ETIMEDOUT) break;
            if (err != 0) {
                QV_LOG_ERROR("pthread_cond_timedwait failed with [%d]", err);
                break;
            }
        }
        if (queue_.empty()) return QV_FAILED;
        *item = std::move(queue_.front());
        queue_.pop_front();
        return QV_OK;
    }

    // 1 when empty, 0 when not; QV_NOT_IMPEMENTED before Init, which callers take as empty.
    int IsEmpty() {
        QV_RETURN_UNLESS(is_inited_, QV_NOT_IMPEMENTED);
        Locked lock(mutex_);
        return queue_.empty() ? 1 : 0;
    }

    // Drops every item; waiters stay blocked. The items are destroyed after the lock is released,
    // so that an item whose destructor touches this queue (a task owning a producer) can't
    // deadlock.
    int Clear() {
        QV_RETURN_UNLESS(is_inited_, QV_NOT_IMPEMENTED);
        std::deque<T> dropped;
        {
            Locked lock(mutex_);
            dropped.swap(queue_);
        }
        return QV_OK;
    }

private:
    // Signals only a waiter that no earlier push has signalled yet, with the mutex held. A push
    // with nobody waiting, or with every waiter already woken but not yet running, then costs no
    // system call; the items it adds are taken by the woken waiters as they loop or by the next
    // Wait. The signal stays under the mutex: a consumer that takes the item may destroy the
    // queue at once, and only the mutex keeps it from doing so while the producer still touches
    // the condition variable.
    void WakeOneWaiter() {
        if (waiting_ <= woken_) return;
        ++woken_;
        pthread_cond_signal(&cond_);
    }

    class Locked {
    public:
        explicit Locked(pthread_mutex_t& mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
        ~Locked() { pthread_mutex_unlock(&mutex_); }
        Locked(const Locked&) = delete;
        Locked& operator=(const Locked&) = delete;

    private:
        pthread_mutex_t& mutex_;
    };

    std::deque<T> queue_;
    pthread_mutex_t mutex_;
    pthread_cond_t cond_;
    bool is_inited_ = false;
    // Under the mutex: threads blocked in Wait, and how many of them have been signalled.
    int waiting_ = 0;
    int woken_ = 0;
};

}  // namespace utilities
}  // namespace quorvel
