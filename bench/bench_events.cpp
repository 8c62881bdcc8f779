// An event from a child process to its parent's event loop and back (SendEventTo both ways, each
// side running its host event loop), against a raw datagram ping between the same two kinds of
// processes over abstract Unix sockets: the ratio of round-trip times.

#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <string>

#include "moorglass_host.h"
#include "ratio_reporter.h"

namespace {

enum : int { kPing = 1, kPong = 2, kQuit = 3, kReady = 4 };

// ---- Through the event loops ----------------------------------------------------------------

int ChildHandler(int type, int par1, int) {
    if (type == kPing) SendEventTo(getppid(), kPong, par1, 0);
    if (type == kQuit) qvhost_stop_event_loop();
    return 0;
}

int ParentHandler(int type, int, int) {
    if (type == kPong || type == kReady) qvhost_stop_event_loop();
    return 0;
}

pid_t StartEventChild() {
    qvhost_set_event_handler(&ParentHandler);
    pid_t child = fork();
    if (child == 0) {
        qvhost_set_event_handler(&ChildHandler);
        SendEventTo(getppid(), kReady, 0, 0);
        qvhost_run_event_loop(&ChildHandler);
        _exit(0);
    }
    qvhost_run_event_loop(&ParentHandler);  // until the child's loop is there
    return child;
}

void EventRoundTrip(benchmark::State& state) {
    pid_t child = StartEventChild();
    int seq = 0;
    for (auto _ : state) {
        SendEventTo(child, kPing, ++seq, 0);
        qvhost_run_event_loop(&ParentHandler);
    }
    SendEventTo(child, kQuit, 0, 0);
    waitpid(child, nullptr, 0);
}

// ---- The yardstick: raw datagrams ------------------------------------------------------------

struct Packet {
    int magic, sender, type, par1, par2;  // the same 20 bytes an event takes
};

socklen_t Address(pid_t pid, sockaddr_un* address) {
    *address = sockaddr_un{};
    address->sun_family = AF_UNIX;
    int n = std::snprintf(address->sun_path + 1, sizeof address->sun_path - 1, "qvbench-raw.%d",
                          static_cast<int>(pid));
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + static_cast<size_t>(n));
}

int BoundSocket() {
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address;
    socklen_t length = Address(getpid(), &address);
    bind(fd, reinterpret_cast<sockaddr*>(&address), length);
    return fd;
}

void SendTo(int fd, pid_t pid, int type) {
    Packet packet{0x51564556, static_cast<int>(getpid()), type, 0, 0};
    sockaddr_un address;
    socklen_t length = Address(pid, &address);
    sendto(fd, &packet, sizeof packet, 0, reinterpret_cast<sockaddr*>(&address), length);
}

void RawRoundTrip(benchmark::State& state) {
    int fd = BoundSocket();
    pid_t parent = getpid();
    pid_t child = fork();
    if (child == 0) {
        int own = BoundSocket();
        SendTo(own, parent, kReady);
        Packet packet;
        while (recv(own, &packet, sizeof packet, 0) == sizeof packet && packet.type == kPing) {
            SendTo(own, parent, kPong);
        }
        _exit(0);
    }
    Packet packet;
    recv(fd, &packet, sizeof packet, 0);  // ready
    for (auto _ : state) {
        SendTo(fd, child, kPing);
        recv(fd, &packet, sizeof packet, 0);
    }
    SendTo(fd, child, kQuit);
    waitpid(child, nullptr, 0);
    close(fd);
}

BENCHMARK(EventRoundTrip)->Name("round_trip/events")->Repetitions(5)->Unit(benchmark::kMicrosecond);
BENCHMARK(RawRoundTrip)->Name("round_trip/raw_datagram")->Repetitions(5)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    // Each event crosses the loop's epoll wait, a pass and the handler: a few microseconds on
    // top of the datagram's own trip are the price.
    return qvbench::RunAndCompare(argc, argv,
                                  {{"event/raw datagram round trip", "round_trip/events",
                                    "round_trip/raw_datagram", 1.0}});
}
