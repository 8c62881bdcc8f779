// Timers, in two families that don't meet.
//
// Timer and TimerManager: a thread of the library (one per process, started by InitTimers and
// never stopped) runs every Timer's handler. A repeating timer's next firing is counted from
// the moment it fired, so its period slips by the handler's delay; the thread looks at its list
// at least once a second, also when nothing is due, so a change of the wall clock is seen soon.
//
// AbstractTimer and its kinds ride on the timers of the platform's event loop: their callables
// run on the loop's thread, and they have no lock. The platform fires a timer once; the
// repetition is made here. SingleTimerShot and its two forms call a function once, later, with
// no object for the caller to keep.
#pragma once

#include <pthread.h>
#include <sys/time.h>

#include <functional>
#include <list>

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace utilities {

class Timer;
class TimerManager;

class QV_EXPORT ITimerHandler {
public:
    virtual ~ITimerHandler() = default;
    virtual void OnTimer(Timer* timer) = 0;
};

class QV_EXPORT Timer {
public:
    Timer();
    // Stops a timer still in use: the manager must never hold a pointer to a dead timer.
    ~Timer();
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    // Starts the manager's thread, once per process. Init calls it too.
    static void InitTimers();

    // Starts the timer: `handler` is called `interval_ms` from now, and with `repeat` every
    // `interval_ms` after each call. QV_INVAL for a null handler, QV_WRONG_STATE while the timer
    // is in use (a one-shot timer stays in use after it fired, until Stop).
    int Init(int interval_ms, bool repeat, ITimerHandler* handler);
    // Ends the use: after Stop returns, the handler is not called again for this timer, and a
    // call under way on the manager's thread has returned (unless Stop comes from that very
    // call). QV_NOT_INITIALIZED when the timer isn't in use.
    int Stop();

    // Milliseconds until due, never negative.
    int WhenToWakeUp();
    // The firing step, on the manager's thread: the next due time for a repeating timer, off
    // the list for a one-shot one, then the handler.
    void WakeUp();

    static TimerManager* timer_manager_;

private:
    friend class TimerManager;

    int interval_ms;
    timeval wake_up_;
    bool repeat;
    ITimerHandler* handler_;
};

class QV_EXPORT TimerManager {
public:
    TimerManager() = default;
    TimerManager(const TimerManager&) = delete;
    TimerManager& operator=(const TimerManager&) = delete;

    // Creates the lock, the condition and the thread.
    int Init();
    // Takes `timer` off the list if it is there and wakes the thread. If its handler is running
    // on the manager's thread and the caller is another thread, waits for the handler to return.
    int RemoveTimer(Timer* timer);
    // The thread's loop; never returns.
    void TimerThread();
    static void* TimerThreadRunner(void* self);

private:
    friend class Timer;

    void AddTimer(Timer* timer, int interval_ms, bool repeat, ITimerHandler* handler);
    int WaitMs();
    void FireDue(std::list<Timer*> const& due);
    bool IsActive(Timer* timer) const;

    std::list<Timer*> timers_;
    pthread_mutex_t mutex_;
    pthread_cond_t cond_;
    pthread_t thread_;
    // The timer whose handler runs now; RemoveTimer from another thread waits while it runs.
    Timer* firing_ = nullptr;
};

class QV_EXPORT AbstractTimer {
public:
    AbstractTimer() = default;
    virtual ~AbstractTimer();
    AbstractTimer(const AbstractTimer&) = delete;
    AbstractTimer& operator=(const AbstractTimer&) = delete;

    virtual void SetTimerEx(char const* name, void (*proc)(void*), void* context, int ms) = 0;

    // Arms: the callable runs `ms` from now, and again every `ms` unless single shot.
    void Start(int ms);
    void Stop();
    void SetSingleShot(bool single_shot);
    bool IsRunning() const;

    // The platform's callback; `context` is the timer.
    static void timerprocEx(void* context);

protected:
    virtual void privateActivate() = 0;

    int interval = 0;
    bool single_shot = false;
    bool stopped = false;

private:
    // Points into timerprocEx's frame while the callable runs: a callable that deletes its own
    // timer clears it, and timerprocEx then leaves the dead object alone.
    bool* alive_ = nullptr;
};

template <typename F>
class CommonTimer : public AbstractTimer {
public:
    explicit CommonTimer(F callable = F()) : callable_(std::move(callable)) {}
    void SetCallable(F callable) { callable_ = std::move(callable); }

protected:
    // An empty std::function throws std::bad_function_call here.
    void privateActivate() override { callable_(); }

private:
    F callable_;
};

template <typename F>
class HardTimer : public CommonTimer<F> {
public:
    using CommonTimer<F>::CommonTimer;
    void SetTimerEx(char const* name, void (*proc)(void*), void* context, int ms) override {
        SetHardTimerEx(name, proc, context, ms);
    }
};

// May fire late while the event loop is busy.
template <typename F>
class WeakTimer : public CommonTimer<F> {
public:
    using CommonTimer<F>::CommonTimer;
    void SetTimerEx(char const* name, void (*proc)(void*), void* context, int ms) override {
        SetWeakTimerEx(name, proc, context, ms);
    }
};

// Calls `callback` once, `ms` from now, on the event loop's thread. The timer deletes itself
// after the call. An empty callback throws std::bad_function_call at once, before anything is
// armed, so nothing is left behind.
template <typename T>
void SingleTimerShot(int ms, std::function<void()> callback) {
    if (!callback) throw std::bad_function_call();
    T* timer = new T();
    timer->SetSingleShot(true);
    timer->SetCallable([timer, callback = std::move(callback)]() {
        callback();
        delete timer;  // last: nothing of the callable is touched after this
    });
    timer->Start(ms);
}

QV_EXPORT void SingleHardTimerShot(int ms, std::function<void()> callback);
QV_EXPORT void SingleWeakTimerShot(int ms, std::function<void()> callback);

}  // namespace utilities
}  // namespace quorvel
