#include "connect_hook.h"

#include <dlfcn.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <mutex>

namespace qvtest {
namespace {

struct Hook {
    std::mutex mutex;
    int port = -1;
    int nth = 0;
    int attempts = 0;
    std::function<void()> hook;
};

Hook& TheHook() {
    static Hook hook;
    return hook;
}

// The hook to run ahead of this attempt, if it is the one.
std::function<void()> CountAttempt(const sockaddr* address) {
    if (!address || address->sa_family != AF_INET) return {};
    const auto* inet = reinterpret_cast<const sockaddr_in*>(address);
    Hook& hook = TheHook();
    std::lock_guard<std::mutex> lock(hook.mutex);
    if (ntohs(inet->sin_port) != hook.port) return {};
    if (++hook.attempts != hook.nth) return {};
    std::function<void()> run = std::move(hook.hook);
    hook.hook = nullptr;
    return run;
}

}  // namespace

void HookConnect(int port, int nth, std::function<void()> hook) {
    Hook& state = TheHook();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.port = port;
    state.nth = nth;
    state.attempts = 0;
    state.hook = std::move(hook);
}

int ConnectAttempts() {
    Hook& state = TheHook();
    std::lock_guard<std::mutex> lock(state.mutex);
    return state.attempts;
}

}  // namespace qvtest

// Defined in the program, it comes before the C library's in the lookup of every shared object,
// libcurl included.
extern "C" int connect(int fd, const sockaddr* address, socklen_t length) {
    using Real = int (*)(int, const sockaddr*, socklen_t);
    static Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "connect"));
    if (std::function<void()> hook = qvtest::CountAttempt(address)) hook();
    return real(fd, address, length);
}
