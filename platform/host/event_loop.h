// The event loop of an application process on the host: events from this process's threads and
// from other processes, and the loop's timers, delivered on the loop's thread.
#pragma once

#include <pthread.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "moorglass.h"

namespace qvhost {

using LoopClock = std::chrono::steady_clock;

struct LoopEvent {
    mg_event_handler handler;  // null: whatever handler the loop has when it delivers
    int type;
    int par1;
    int par2;
};

struct LoopTimer {
    std::string name;
    mg_timer_proc proc = nullptr;        // SetHardTimer's
    mg_timer_proc_ex proc_ex = nullptr;  // the Ex forms'
    void* context = nullptr;
    bool hard = true;
    LoopClock::time_point due;
    std::uint64_t serial = 0;  // arming order, for timers due at the same instant
};

// What crosses between processes: one datagram per event.
struct WireEvent {
    std::uint32_t magic;
    std::int32_t sender;
    std::int32_t type;
    std::int32_t par1;
    std::int32_t par2;
};
constexpr std::uint32_t kWireMagic = 0x51564556;  // "QVEV"

// Fills `address` with the loop socket name of process `pid`; gives the address length.
socklen_t LoopSocketAddress(pid_t pid, struct sockaddr_un* address);

class EventLoop {
public:
    static EventLoop& Instance();

    mg_event_handler Handler() const { return handler_.load(); }
    // Installs the handler; the calling thread becomes the loop's thread unless another thread
    // is inside the loop right now.
    void SetHandler(mg_event_handler handler);

    // SendEvent: a direct call on the loop's thread, else queued.
    int Send(mg_event_handler handler, int type, int par1, int par2);
    // Queues an event and wakes the loop.
    void Post(const LoopEvent& event);

    void Arm(LoopTimer timer, int ms);
    void Clear(mg_timer_proc_ex proc, void* context);
    bool IsArmed(mg_timer_proc_ex proc, void* context);

    // One pass without waiting (ProcessEventLoop); nothing when another thread runs the loop.
    void ProcessPass();
    // Runs passes, waiting between them, until RequestStop. -1 when another thread runs it.
    int Run(mg_event_handler handler);
    // Async-signal-safe.
    void RequestStop();

    // Makes sure the loop can receive events from other processes: its socket exists from the
    // first call of any loop function on.
    void Open();

private:
    EventLoop();
    static void PrepareFork();
    static void ParentAfterFork();
    static void ChildAfterFork();

    bool Claim();
    void Release();
    void Pass(bool wait);
    bool WaitForWork();
    void Wake();
    void WakeAlways();
    void ReceiveFromOtherProcesses();
    void FireDueTimers(LoopClock::time_point now, std::uint64_t armed_before, bool weak_too);
    bool TakeDueTimer(LoopClock::time_point now, std::uint64_t armed_before, bool weak_too,
                      LoopTimer* timer);
    void DeliverEvents();
    void CloseDescriptors();

    std::mutex mutex_;
    std::deque<LoopEvent> events_;
    std::vector<LoopTimer> timers_;
    std::uint64_t next_serial_ = 0;
    std::thread::id owner_;  // the loop's thread
    int depth_ = 0;          // passes of the owner under way (nested when above 1)
    bool opened_ = false;
    int epoll_fd_ = -1;
    int socket_fd_ = -1;
    int timer_fd_ = -1;
    std::atomic<int> wake_fd_{-1};
    std::atomic<bool> stop_{false};
    std::atomic<pthread_t> running_thread_{pthread_t()};  // the thread inside Run, if any
    std::atomic<mg_event_handler> handler_{nullptr};
};

}  // namespace qvhost
