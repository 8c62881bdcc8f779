// adobescanner.app: the scanner application of the device image, "/zelgrot/bin/adobescanner.app".
//
//     adobescanner.app BOOK CACHE_PATH WIDTH HEIGHT [-metadata]
//
// Makes the cover of BOOK, fitted in WIDTH x HEIGHT, as a PNG at CACHE_PATH, and stays to take
// more jobs from its System V message queue (key ftok of its own path with 1): each message of
// type 1 is a parameter block of the platform (PackParameters) holding the same four or five
// words. It ends after a while without work (QV_SCANNER_IDLE_MS, 10 seconds by default), having
// taken what the queue still held. Its output goes to "scanner.log" of the host state
// directory, one line per job: "cover BOOK", "failed BOOK" or "bad job".

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "cover_maker.h"
#include "host_state.h"
#include "moorglass_host.h"

namespace {

constexpr const char* kScannerPath = "/zelgrot/bin/adobescanner.app";
constexpr size_t kMaxMessage = 8192;

struct QueueMessage {
    long type;
    char block[kMaxMessage];
};

// Log lines of one process go out whole: the log is opened for appending.
void Redirect() {
    qvhost::EnsureStateDir();
    int log = ::open(qvhost::StatePath("scanner.log").c_str(),
                     O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    int null = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (null >= 0) ::dup2(null, STDIN_FILENO);
    if (log >= 0) {
        ::dup2(log, STDOUT_FILENO);
        ::dup2(log, STDERR_FILENO);
    }
}

void RunJob(const std::vector<std::string>& words) {
    qvscanner::ScanJob job;
    if (!qvscanner::ParseScanJob(words, &job)) {
        std::cout << "bad job" << std::endl;
        return;
    }
    std::cout << (qvscanner::MakeCover(job) ? "cover " : "failed ") << job.book << std::endl;
}

std::vector<std::string> Unpack(const char* block, ssize_t size) {
    std::vector<std::string> words;
    char** list = nullptr;
    int count = qvhost_unpack_parameters(block, static_cast<int>(size), &list);
    for (int i = 0; i < count; ++i)
        words.emplace_back(list[i]);
    qvhost_free_parameters(list);
    return words;
}

long IdleMilliseconds() {
    const char* text = std::getenv("QV_SCANNER_IDLE_MS");
    long ms = text ? std::strtol(text, nullptr, 10) : 0;
    return ms > 0 ? ms : 10000;
}

}  // namespace

int main(int argc, char** argv) {
    Redirect();
    if (argc > 1) RunJob(std::vector<std::string>(argv + 1, argv + argc));
    key_t key = ::ftok(kScannerPath, 1);
    int queue = key == -1 ? -1 : ::msgget(key, 0666 | IPC_CREAT);
    if (queue == -1) {
        std::cout << "no queue: " << std::strerror(errno) << std::endl;
        return 1;
    }
    auto idle_limit = std::chrono::milliseconds(IdleMilliseconds());
    auto last_work = std::chrono::steady_clock::now();
    QueueMessage message;
    for (;;) {
        ssize_t size = ::msgrcv(queue, &message, sizeof message.block, 0, IPC_NOWAIT);
        if (size >= 0) {
            RunJob(Unpack(message.block, size));
            last_work = std::chrono::steady_clock::now();
            continue;
        }
        if (errno != ENOMSG && errno != EINTR) return 1;
        if (std::chrono::steady_clock::now() - last_work >= idle_limit) return 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}
