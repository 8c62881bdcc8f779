// Round trips between two processes through MessageClient and MessageServer against a plain
// socketpair ping-pong, for 64-byte and 16 KiB messages; and lock plus unlock of a
// SharedStateImpl against a bare process-shared semaphore.

#include <benchmark/benchmark.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "common_utilities/message_client.h"
#include "common_utilities/message_server.h"
#include "common_utilities/shared_state.h"
#include "ratio_reporter.h"

namespace {

using quorvel::utilities::IMessage;
using quorvel::utilities::IMessageHandler;
using quorvel::utilities::MessageClient;
using quorvel::utilities::MessageServer;
using quorvel::utilities::SharedStateImpl;

constexpr size_t kMaxMessage = 16384;
const std::string kName = std::string(1, '\0') + "qvbench-messaging";

// ---- Through the library ------------------------------------------------------------------

class Echo : public IMessageHandler {
public:
    explicit Echo(MessageServer* server) : server_(server) {}
    void HandleMessage(IMessage* message) override {
        std::unique_ptr<IMessage> owned(message);
        quit = message->data().empty();
        server_->SendResponse(message, message->data());
    }
    bool quit = false;

private:
    MessageServer* server_;
};

// A child that answers every message with its own bytes until an empty one; it says through
// `ready_fd` when it is bound.
pid_t StartEchoServer(int ready_fd) {
    pid_t child = fork();
    if (child != 0) return child;
    MessageServer server;
    Echo echo(&server);
    server.Init(kName.data(), kName.size(), &echo, kMaxMessage, false);
    char byte = 1;
    if (write(ready_fd, &byte, 1) != 1) _exit(1);
    while (!echo.quit && server.ProcessMessage(-1) == 0) {
    }
    _exit(0);
}

void LibraryRoundTrip(benchmark::State& state) {
    int ready[2];
    if (pipe(ready) != 0) return state.SkipWithError("pipe failed");
    pid_t child = StartEchoServer(ready[1]);
    char byte = 0;
    if (read(ready[0], &byte, 1) != 1) return state.SkipWithError("the server did not start");
    MessageClient client;
    client.Init(kName.data(), kName.size(), kMaxMessage);
    std::string message(static_cast<size_t>(state.range(0)), 'm');
    std::vector<char> answer;
    for (auto _ : state) {
        client.SendMessage(message.data(), message.size());
        client.WaitResponce(&answer, -1);
    }
    if (answer.size() != message.size()) state.SkipWithError("short answer");
    client.SendMessage("", 0);
    waitpid(child, nullptr, 0);
    close(ready[0]);
    close(ready[1]);
}

// ---- The yardstick: a socketpair ping-pong --------------------------------------------------

void RawRoundTrip(benchmark::State& state) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_DGRAM, 0, pair) != 0) return state.SkipWithError("socketpair");
    pid_t child = fork();
    if (child == 0) {
        close(pair[0]);
        std::vector<char> buffer(kMaxMessage);
        for (;;) {
            ssize_t n = recv(pair[1], buffer.data(), buffer.size(), 0);
            if (n <= 0) _exit(0);
            send(pair[1], buffer.data(), static_cast<size_t>(n), 0);
        }
    }
    close(pair[1]);
    std::string message(static_cast<size_t>(state.range(0)), 'm');
    std::vector<char> buffer(kMaxMessage);
    ssize_t n = 0;
    for (auto _ : state) {
        send(pair[0], message.data(), message.size(), 0);
        n = recv(pair[0], buffer.data(), buffer.size(), 0);
    }
    if (n != static_cast<ssize_t>(message.size())) state.SkipWithError("short answer");
    send(pair[0], "", 0, 0);
    waitpid(child, nullptr, 0);
    close(pair[0]);
}

// ---- Locks ----------------------------------------------------------------------------------

void StateLock(benchmark::State& state) {
    SharedStateImpl shared;
    if (shared.Init("/qvbench-state", 64) != QV_OK) return state.SkipWithError("Init failed");
    for (auto _ : state) {
        shared.LockState();
        shared.UnlockState();
    }
}

void RawSemaphore(benchmark::State& state) {
    void* area = mmap(nullptr, sizeof(sem_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                      -1, 0);
    auto* sem = static_cast<sem_t*>(area);
    sem_init(sem, 1, 1);
    for (auto _ : state) {
        sem_wait(sem);
        sem_post(sem);
    }
    sem_destroy(sem);
    munmap(area, sizeof(sem_t));
}

BENCHMARK(LibraryRoundTrip)->Name("round_trip/library")->Arg(64)->Arg(16384)->Repetitions(5)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(RawRoundTrip)->Name("round_trip/socketpair")->Arg(64)->Arg(16384)->Repetitions(5)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(StateLock)->Name("lock_unlock/shared_state")->Repetitions(5);
BENCHMARK(RawSemaphore)->Name("lock_unlock/raw_semaphore")->Repetitions(5);

}  // namespace

int main(int argc, char** argv) {
    return qvbench::RunAndCompare(
        argc, argv,
        {{"library/socketpair round trip 64 B", "round_trip/library/64",
          "round_trip/socketpair/64", 0.10},
         {"library/socketpair round trip 16 KiB", "round_trip/library/16384",
          "round_trip/socketpair/16384", 0.10},
         {"shared state/raw semaphore lock+unlock", "lock_unlock/shared_state",
          "lock_unlock/raw_semaphore", 0.10}});
}
