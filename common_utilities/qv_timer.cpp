#include "common_utilities/qv_timer.h"

#include <pthread.h>

#include <algorithm>

namespace quorvel {
namespace utilities {
namespace {

// The manager looks at its list at least this often, even with nothing due.
constexpr int kLongestWaitMs = 1000;

timeval Now() {
    timeval now;
    gettimeofday(&now, nullptr);
    return now;
}

timeval AddMs(timeval t, int ms) {
    long long us = static_cast<long long>(t.tv_usec) + static_cast<long long>(ms) * 1000;
    t.tv_sec += static_cast<time_t>(us / 1000000);
    t.tv_usec = static_cast<suseconds_t>(us % 1000000);
    return t;
}

pthread_once_t g_manager_once = PTHREAD_ONCE_INIT;

void MakeManager() {
    auto* manager = new TimerManager;
    if (manager->Init() != QV_OK) {
        delete manager;
        return;
    }
    Timer::timer_manager_ = manager;
}

// Unlocks on every path out of a scope, the handlers' calls excepted (they run unlocked).
class Locked {
public:
    explicit Locked(pthread_mutex_t* mutex) : mutex_(mutex) { pthread_mutex_lock(mutex_); }
    ~Locked() { pthread_mutex_unlock(mutex_); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

private:
    pthread_mutex_t* mutex_;
};

}  // namespace

TimerManager* Timer::timer_manager_ = nullptr;

// ---- Timer ------------------------------------------------------------------------------------

Timer::Timer() : interval_ms(0), wake_up_(Now()), repeat(false), handler_(nullptr) {}

Timer::~Timer() {
    if (handler_ != nullptr && timer_manager_ != nullptr) timer_manager_->RemoveTimer(this);
}

void Timer::InitTimers() {
    pthread_once(&g_manager_once, &MakeManager);
}

int Timer::Init(int interval_ms, bool repeat, ITimerHandler* handler) {
    QV_RETURN_UNLESS(handler, QV_INVAL);
    QV_RETURN_UNLESS(!handler_, QV_WRONG_STATE);
    InitTimers();
    if (timer_manager_ == nullptr) return QV_FAILED;
    timer_manager_->AddTimer(this, interval_ms, repeat, handler);
    return QV_OK;
}

int Timer::Stop() {
    QV_RETURN_UNLESS(handler_, QV_NOT_INITIALIZED);
    timer_manager_->RemoveTimer(this);
    Locked lock(&timer_manager_->mutex_);
    handler_ = nullptr;
    return QV_OK;
}

int Timer::WhenToWakeUp() {
    timeval now = Now();
    long long ms = (static_cast<long long>(wake_up_.tv_sec) - now.tv_sec) * 1000 +
                   (static_cast<long long>(wake_up_.tv_usec) - now.tv_usec) / 1000;
    return static_cast<int>(std::max(0LL, std::min<long long>(ms, 0x7fffffff)));
}

// From the present time, not from the time it was due: the period slips by the handler's delay.
void Timer::WakeUp() {
    ITimerHandler* handler;
    {
        Locked lock(&timer_manager_->mutex_);
        if (repeat) wake_up_ = AddMs(Now(), interval_ms);
        handler = handler_;
    }
    if (!repeat) timer_manager_->RemoveTimer(this);
    if (handler != nullptr) handler->OnTimer(this);
}

// ---- TimerManager -----------------------------------------------------------------------------

int TimerManager::Init() {
    int err = pthread_mutex_init(&mutex_, nullptr);
    QV_RETURN_UNLESS(0 == err, QV_FAILED);
    err = pthread_cond_init(&cond_, nullptr);
    if (err != 0) {
        QV_LOG_ERROR("Failed to initialize condition variable");
        pthread_mutex_destroy(&mutex_);
        return QV_FAILED;
    }
    err = pthread_create(&thread_, nullptr, &TimerManager::TimerThreadRunner, this);
    if (err != 0) {
        QV_LOG_ERR(err);
        pthread_cond_destroy(&cond_);
        pthread_mutex_destroy(&mutex_);
        return QV_FAILED;
    }
    return QV_OK;
}

void TimerManager::AddTimer(Timer* timer, int interval_ms, bool repeat, ITimerHandler* handler) {
    Locked lock(&mutex_);
    timer->interval_ms = interval_ms;
    timer->repeat = repeat;
    timer->handler_ = handler;
    timer->wake_up_ = AddMs(Now(), interval_ms);
    timers_.push_back(timer);
    // Broadcast: RemoveTimer callers wait on the same condition.
    pthread_cond_broadcast(&cond_);
}

int TimerManager::RemoveTimer(Timer* timer) {
    Locked lock(&mutex_);
    timers_.remove(timer);
    // A handler that stops timers runs on this very thread: waiting for it would never end.
    while (firing_ == timer && !pthread_equal(pthread_self(), thread_)) {
        pthread_cond_wait(&cond_, &mutex_);
    }
    pthread_cond_broadcast(&cond_);
    return 0;
}

bool TimerManager::IsActive(Timer* timer) const {
    return std::find(timers_.begin(), timers_.end(), timer) != timers_.end();
}

int TimerManager::WaitMs() {
    int wait_ms = 0x7fffffff;
    for (Timer* timer : timers_) wait_ms = std::min(wait_ms, timer->WhenToWakeUp());
    return wait_ms;
}

void* TimerManager::TimerThreadRunner(void* self) {
    static_cast<TimerManager*>(self)->TimerThread();
    return nullptr;
}

void TimerManager::TimerThread() {
    for (;;) {
        std::list<Timer*> due;
        {
            Locked lock(&mutex_);
            int wait_ms = WaitMs();
            if (timers_.empty() || wait_ms >= 1) {
                timeval until = AddMs(Now(), std::min(wait_ms, kLongestWaitMs));
                timespec deadline{until.tv_sec, until.tv_usec * 1000L};
                pthread_cond_timedwait(&cond_, &mutex_, &deadline);
            }
            for (Timer* timer : timers_) {
                if (timer->WhenToWakeUp() < 1) due.push_back(timer);
            }
        }
        FireDue(due);
    }
}

// A due timer that was stopped, or stopped and destroyed, by an earlier handler of the same
// round is skipped: the copy of the list must not outlive the timers it points at.
void TimerManager::FireDue(std::list<Timer*> const& due) {
    for (Timer* timer : due) {
        {
            Locked lock(&mutex_);
            if (!IsActive(timer)) continue;
            firing_ = timer;
        }
        timer->WakeUp();
        Locked lock(&mutex_);
        firing_ = nullptr;
        pthread_cond_broadcast(&cond_);
    }
}

// ---- AbstractTimer ----------------------------------------------------------------------------

AbstractTimer::~AbstractTimer() {
    if (alive_ != nullptr) *alive_ = false;
    Stop();
}

void AbstractTimer::Start(int ms) {
    interval = ms;
    SetTimerEx("", &AbstractTimer::timerprocEx, this, ms);
}

void AbstractTimer::Stop() {
    stopped = true;
    ClearTimerEx(&AbstractTimer::timerprocEx, this);
}

void AbstractTimer::SetSingleShot(bool value) {
    single_shot = value;
}

bool AbstractTimer::IsRunning() const {
    return QueryTimerEx(&AbstractTimer::timerprocEx, const_cast<AbstractTimer*>(this)) != 0;
}

void AbstractTimer::timerprocEx(void* context) {
    auto* timer = static_cast<AbstractTimer*>(context);
    timer->stopped = false;
    bool alive = true;
    bool* outer = timer->alive_;
    timer->alive_ = &alive;
    timer->privateActivate();
    if (!alive) {
        if (outer != nullptr) *outer = false;
        return;
    }
    timer->alive_ = outer;
    if (timer->single_shot || timer->stopped) return;
    timer->SetTimerEx("", &AbstractTimer::timerprocEx, timer, timer->interval);
}

void SingleHardTimerShot(int ms, std::function<void()> callback) {
    SingleTimerShot<HardTimer<std::function<void()>>>(ms, std::move(callback));
}

void SingleWeakTimerShot(int ms, std::function<void()> callback) {
    SingleTimerShot<WeakTimer<std::function<void()>>>(ms, std::move(callback));
}

}  // namespace utilities
}  // namespace quorvel
