// The platform's event, timer and sleep calls, over the process's EventLoop, and the sending
// side of events between processes.

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>

#include "event_loop.h"
#include "moorglass.h"
#include "moorglass_host.h"

namespace {

using qvhost::EventLoop;
using qvhost::LoopTimer;

// A sender that finds the receiver's queue full waits this long before giving up: long enough
// for a busy loop to catch up, short enough that a child never hangs on a parent that stopped
// reading.
constexpr time_t kSendTimeoutSeconds = 5;

std::atomic<mg_usleep_func> g_usleep_func{nullptr};

// One unbound socket per process for sending; made again in a forked child, so a child never
// shares its parent's descriptor state.
std::mutex g_send_mutex;
int g_send_fd = -1;
pid_t g_send_owner = 0;

int SendSocket() {
    std::lock_guard<std::mutex> lock(g_send_mutex);
    if (g_send_fd >= 0 && g_send_owner == ::getpid()) return g_send_fd;
    // In a child the inherited descriptor is simply left to its parent; it is close-on-exec.
    g_send_fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    g_send_owner = ::getpid();
    if (g_send_fd >= 0) {
        timeval timeout{kSendTimeoutSeconds, 0};
        ::setsockopt(g_send_fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    }
    return g_send_fd;
}

void ArmEx(const char* name, mg_timer_proc_ex proc, void* context, int ms, bool hard) {
    if (proc == nullptr) return;
    LoopTimer timer;
    timer.name = name ? name : "";
    timer.proc_ex = proc;
    timer.context = context;
    timer.hard = hard;
    EventLoop::Instance().Arm(std::move(timer), ms);
}

}  // namespace

extern "C" {

mg_event_handler GetEventHandler(void) {
    EventLoop::Instance().Open();
    return EventLoop::Instance().Handler();
}

int SendEvent(mg_event_handler handler, int type, int par1, int par2) {
    return EventLoop::Instance().Send(handler, type, par1, par2);
}

int SendEventTo(int task, int type, int par1, int par2) {
    if (task <= 0) {
        errno = ESRCH;
        return -1;
    }
    if (task == ::getpid()) {
        EventLoop::Instance().Post(qvhost::LoopEvent{nullptr, type, par1, par2});
        return 0;
    }
    int fd = SendSocket();
    if (fd < 0) return -1;
    qvhost::WireEvent wire{qvhost::kWireMagic, static_cast<std::int32_t>(::getpid()), type, par1,
                           par2};
    sockaddr_un address;
    socklen_t length = qvhost::LoopSocketAddress(task, &address);
    ssize_t sent = ::sendto(fd, &wire, sizeof wire, MSG_NOSIGNAL,
                            reinterpret_cast<sockaddr*>(&address), length);
    return sent == static_cast<ssize_t>(sizeof wire) ? 0 : -1;
}

void ProcessEventLoop(void) {
    EventLoop::Instance().ProcessPass();
}

void SetHardTimer(const char* name, mg_timer_proc proc, int ms) {
    if (proc == nullptr) return;
    LoopTimer timer;
    timer.name = name ? name : "";
    timer.proc = proc;
    EventLoop::Instance().Arm(std::move(timer), ms);
}

void SetHardTimerEx(const char* name, mg_timer_proc_ex proc, void* context, int ms) {
    ArmEx(name, proc, context, ms, true);
}

void SetWeakTimerEx(const char* name, mg_timer_proc_ex proc, void* context, int ms) {
    ArmEx(name, proc, context, ms, false);
}

void ClearTimerEx(mg_timer_proc_ex proc, void* context) {
    EventLoop::Instance().Clear(proc, context);
}

int QueryTimerEx(mg_timer_proc_ex proc, void* context) {
    return EventLoop::Instance().IsArmed(proc, context) ? 1 : 0;
}

void set_usleep_func(mg_usleep_func func) {
    g_usleep_func = func;
}

void qvhost_set_event_handler(mg_event_handler handler) {
    EventLoop::Instance().SetHandler(handler);
}

int qvhost_run_event_loop(mg_event_handler handler) {
    return EventLoop::Instance().Run(handler);
}

void qvhost_stop_event_loop(void) {
    EventLoop::Instance().RequestStop();
}

int qvhost_platform_usleep(unsigned int microseconds) {
    mg_usleep_func func = g_usleep_func.load();
    return func ? func(microseconds) : ::usleep(microseconds);
}

}  // extern "C"
