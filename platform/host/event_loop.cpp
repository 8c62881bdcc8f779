// The host's event loop. One per process, built on first use: an epoll set with an eventfd
// (wake-ups from other threads and from signal handlers) and a datagram socket (events from
// other processes). Timers are a list kept here.
//
// The wait itself has no time limit: a timerfd set to the earliest due time (absolute, on the
// monotonic clock) ends it, because a timerfd fires without the timer slack that the kernel
// adds to the time-outs of epoll_wait and its kind.
//
// The socket is a Unix datagram socket in the abstract name space, named after the process id:
// datagrams keep each event whole and in order per sender, a sender needs no connection nor any
// file to find the loop (the task id is all it knows), and an abstract name goes with the
// process, so a crashed application leaves nothing behind and a recycled id can bind again.

#include "event_loop.h"

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace qvhost {
namespace {

constexpr int kMaxDatagramsPerPass = 1024;

timespec ToTimespec(LoopClock::duration d) {
    if (d < LoopClock::duration::zero()) d = LoopClock::duration::zero();
    auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(d).count();
    return timespec{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
}

bool SameTimer(const LoopTimer& a, const LoopTimer& b) {
    if (a.proc != b.proc || a.proc_ex != b.proc_ex) return false;
    return a.proc != nullptr || a.context == b.context;
}

}  // namespace

socklen_t LoopSocketAddress(pid_t pid, sockaddr_un* address) {
    std::memset(address, 0, sizeof *address);
    address->sun_family = AF_UNIX;
    // sun_path[0] stays 0: the abstract name space.
    int n = std::snprintf(address->sun_path + 1, sizeof address->sun_path - 1,
                          "moorglass-loop.%d", static_cast<int>(pid));
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + static_cast<size_t>(n));
}

EventLoop& EventLoop::Instance() {
    // Never destroyed: timers and handlers may still be touched by threads during exit.
    static EventLoop* loop = new EventLoop;
    return *loop;
}

EventLoop::EventLoop() {
    pthread_atfork(&EventLoop::PrepareFork, &EventLoop::ParentAfterFork,
                   &EventLoop::ChildAfterFork);
}

// A forked child is another process: it must neither read its parent's socket nor run its
// parent's timers or events. The lock is held across the fork so the child gets a consistent
// copy; the child then starts a loop of its own on first use.
void EventLoop::PrepareFork() { Instance().mutex_.lock(); }
void EventLoop::ParentAfterFork() { Instance().mutex_.unlock(); }
void EventLoop::ChildAfterFork() {
    EventLoop& loop = Instance();
    loop.CloseDescriptors();
    loop.events_.clear();
    loop.timers_.clear();
    loop.owner_ = std::thread::id();
    loop.depth_ = 0;
    loop.stop_ = false;
    loop.running_thread_ = pthread_t();
    loop.mutex_.unlock();
}

void EventLoop::CloseDescriptors() {
    for (int* fd : {&epoll_fd_, &socket_fd_, &timer_fd_}) {
        if (*fd >= 0) ::close(*fd);
        *fd = -1;
    }
    int wake = wake_fd_.exchange(-1);
    if (wake >= 0) ::close(wake);
    opened_ = false;
}

void EventLoop::Open() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (opened_) return;
    opened_ = true;
    epoll_fd_ = ::epoll_create1(EPOLL_CLOEXEC);
    int wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    wake_fd_ = wake;
    timer_fd_ = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    socket_fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address;
    socklen_t length = LoopSocketAddress(::getpid(), &address);
    if (socket_fd_ >= 0 && ::bind(socket_fd_, reinterpret_cast<sockaddr*>(&address), length) != 0) {
        std::fprintf(stderr, "moorglass: event loop socket: %s\n", std::strerror(errno));
        ::close(socket_fd_);
        socket_fd_ = -1;
    }
    for (int fd : {wake, socket_fd_, timer_fd_}) {
        if (fd < 0 || epoll_fd_ < 0) continue;
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.fd = fd;
        ::epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &ev);
    }
}

void EventLoop::SetHandler(mg_event_handler handler) {
    Open();
    handler_ = handler;
    std::lock_guard<std::mutex> lock(mutex_);
    if (depth_ == 0) owner_ = std::this_thread::get_id();
}

int EventLoop::Send(mg_event_handler handler, int type, int par1, int par2) {
    if (handler == nullptr) return -1;
    Open();
    bool direct;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        direct = owner_ == std::this_thread::get_id();
    }
    if (direct) return handler(type, par1, par2);
    Post(LoopEvent{handler, type, par1, par2});
    return 0;
}

void EventLoop::Post(const LoopEvent& event) {
    Open();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(event);
    }
    Wake();
}

// Not needed from the thread that would wait: it looks at the queue and the timers before.
void EventLoop::Wake() {
    if (!pthread_equal(running_thread_.load(), pthread_self())) WakeAlways();
}

void EventLoop::WakeAlways() {
    int fd = wake_fd_.load();
    if (fd < 0) return;
    std::uint64_t one = 1;
    ssize_t n = ::write(fd, &one, sizeof one);
    (void)n;  // a full counter already wakes the loop
}

void EventLoop::Arm(LoopTimer timer, int ms) {
    Open();
    timer.due = LoopClock::now() + std::chrono::milliseconds(std::max(ms, 0));
    {
        std::lock_guard<std::mutex> lock(mutex_);
        timer.serial = next_serial_++;
        timers_.erase(std::remove_if(timers_.begin(), timers_.end(),
                                     [&](const LoopTimer& t) {
                                         return SameTimer(t, timer) ||
                                                (!timer.name.empty() && t.name == timer.name);
                                     }),
                      timers_.end());
        timers_.push_back(std::move(timer));
    }
    Wake();
}

void EventLoop::Clear(mg_timer_proc_ex proc, void* context) {
    std::lock_guard<std::mutex> lock(mutex_);
    timers_.erase(std::remove_if(timers_.begin(), timers_.end(),
                                 [&](const LoopTimer& t) {
                                     return t.proc_ex == proc && t.context == context;
                                 }),
                  timers_.end());
}

bool EventLoop::IsArmed(mg_timer_proc_ex proc, void* context) {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::any_of(timers_.begin(), timers_.end(), [&](const LoopTimer& t) {
        return t.proc_ex == proc && t.context == context;
    });
}

// Always wakes: from a signal handler on the loop's own thread, the stop may come between the
// loop's last look at `stop_` and its wait.
void EventLoop::RequestStop() {
    stop_ = true;
    WakeAlways();
}

bool EventLoop::Claim() {
    std::lock_guard<std::mutex> lock(mutex_);
    auto me = std::this_thread::get_id();
    if (depth_ > 0 && owner_ != me) return false;
    owner_ = me;
    ++depth_;
    return true;
}

void EventLoop::Release() {
    std::lock_guard<std::mutex> lock(mutex_);
    --depth_;
}

void EventLoop::ProcessPass() {
    Open();
    if (!Claim()) return;
    Pass(false);
    Release();
}

int EventLoop::Run(mg_event_handler handler) {
    SetHandler(handler);
    if (!Claim()) return -1;
    pthread_t outer = running_thread_.exchange(pthread_self());
    while (!stop_.load()) Pass(true);
    stop_ = false;
    running_thread_ = outer;
    Release();
    return 0;
}

// Hard timers first, in due order, then the events that were waiting, then (only in the
// outermost pass, and only when no event waits) the weak timers. Only timers armed before the
// pass began take part, so a callback that re-arms its timer for 0 ms fires in the next pass
// instead of holding this one for ever.
void EventLoop::Pass(bool wait) {
    if (!wait || WaitForWork()) ReceiveFromOtherProcesses();
    LoopClock::time_point now = LoopClock::now();
    std::uint64_t armed_before;
    bool outermost;
    bool idle;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        armed_before = next_serial_;
        outermost = depth_ == 1;
        idle = events_.empty();
    }
    FireDueTimers(now, armed_before, outermost && idle);
    if (!idle) {
        DeliverEvents();
        if (outermost) FireDueTimers(now, armed_before, true);
    }
}

// Reports whether the socket has something; without a wait it is simply tried.
bool EventLoop::WaitForWork() {
    itimerspec deadline{};  // all zero: disarmed
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!events_.empty() || stop_.load()) return true;
        if (!timers_.empty()) {
            auto earliest = std::min_element(
                timers_.begin(), timers_.end(),
                [](const LoopTimer& a, const LoopTimer& b) { return a.due < b.due; });
            deadline.it_value = ToTimespec(earliest->due.time_since_epoch());
            // Zero would disarm: a timer already due is due at the clock's first instant.
            if (deadline.it_value.tv_sec == 0 && deadline.it_value.tv_nsec == 0) {
                deadline.it_value.tv_nsec = 1;
            }
        }
    }
    ::timerfd_settime(timer_fd_, TFD_TIMER_ABSTIME, &deadline, nullptr);
    epoll_event ready[3];
    // A signal (EINTR) ends the wait too: the pass after it finds nothing, and the loop waits
    // again unless the signal asked it to stop.
    int count = ::epoll_wait(epoll_fd_, ready, 3, -1);
    bool datagrams = false;
    for (int i = 0; i < count; ++i) {
        if (ready[i].data.fd == socket_fd_) {
            datagrams = true;
            continue;
        }
        std::uint64_t expirations;  // of the eventfd or the timerfd
        ssize_t n = ::read(ready[i].data.fd, &expirations, sizeof expirations);
        (void)n;
    }
    return datagrams;
}

void EventLoop::ReceiveFromOtherProcesses() {
    if (socket_fd_ < 0) return;
    for (int i = 0; i < kMaxDatagramsPerPass; ++i) {
        WireEvent wire;
        ssize_t n = ::recv(socket_fd_, &wire, sizeof wire, MSG_DONTWAIT | MSG_TRUNC);
        if (n < 0) break;
        // Anyone on the machine may write to an abstract socket: take only our own form.
        if (n != static_cast<ssize_t>(sizeof wire) || wire.magic != kWireMagic) continue;
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(LoopEvent{nullptr, wire.type, wire.par1, wire.par2});
    }
}

bool EventLoop::TakeDueTimer(LoopClock::time_point now, std::uint64_t armed_before,
                             bool weak_too, LoopTimer* timer) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto best = timers_.end();
    for (auto it = timers_.begin(); it != timers_.end(); ++it) {
        if (it->due > now || it->serial >= armed_before || (!it->hard && !weak_too)) continue;
        if (best == timers_.end() || it->due < best->due ||
            (it->due == best->due && it->serial < best->serial)) {
            best = it;
        }
    }
    if (best == timers_.end()) return false;
    *timer = std::move(*best);
    timers_.erase(best);
    return true;
}

void EventLoop::FireDueTimers(LoopClock::time_point now, std::uint64_t armed_before,
                              bool weak_too) {
    LoopTimer timer;
    while (TakeDueTimer(now, armed_before, weak_too, &timer)) {
        if (timer.proc != nullptr) timer.proc();
        if (timer.proc_ex != nullptr) timer.proc_ex(timer.context);
    }
}

// Only the events that were waiting when delivery began: a handler that keeps sending to itself
// must not starve the timers.
void EventLoop::DeliverEvents() {
    size_t count;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        count = events_.size();
    }
    for (size_t i = 0; i < count; ++i) {
        LoopEvent event;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (events_.empty()) return;
            event = events_.front();
            events_.pop_front();
        }
        mg_event_handler handler = event.handler ? event.handler : handler_.load();
        if (handler != nullptr) handler(event.type, event.par1, event.par2);
    }
}

}  // namespace qvhost
