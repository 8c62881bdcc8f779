#include "common_utilities/adobe_scanner.h"

#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <vector>

namespace quorvel {
namespace utilities {

namespace {

constexpr const char* kScannerPath = "/zelgrot/bin/adobescanner.app";
constexpr const char* kScannerName = "adobescanner.app";
constexpr unsigned kScannerTaskFlags = 37;
constexpr int kQueuePermissions = 950;  // 0666 | IPC_CREAT
constexpr int kNoWait = 2048;           // IPC_NOWAIT
constexpr size_t kMinimumCodeLength = 8;
constexpr int kFullQueueTries = 500;
constexpr unsigned kFullQueuePauseUs = 10000;

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

int g_scanner_queue = -1;

int ScannerQueue() {
    if (g_scanner_queue != -1) return g_scanner_queue;
    key_t key = ftok(kScannerPath, 1);
    QV_RETURN_UNLESS(key != -1, QV_FAILED, "ftok failed with [%d]", errno);
    int msg_q = msgget(key, kQueuePermissions);
    QV_RETURN_UNLESS(msg_q != -1, QV_FAILED, "msgget failed with [%d]", errno);
    g_scanner_queue = msg_q;
    return msg_q;
}

// The parameters behind the program's name, packed by the platform, as one message of type 1.
int SendToScanner(std::vector<char*>& words) {
    int queue = ScannerQueue();
    if (queue == QV_FAILED) return 1;
    char* block = nullptr;
    int size = 0;
    if (PackParameters(static_cast<int>(words.size()), words.data(), &block, &size) != 0) return 1;
    std::unique_ptr<char, decltype(&std::free)> packed(block, &std::free);
    std::vector<char> message(sizeof(long) + static_cast<size_t>(size));
    long type = 1;
    std::memcpy(message.data(), &type, sizeof type);
    std::memcpy(message.data() + sizeof type, block, static_cast<size_t>(size));
    // A full queue (a shelf hands over hundreds of books at once) is waited out for a while: the
    // scanner empties it as it works, and a job refused here would leave its book without cover.
    int sent = -1;
    for (int tries = 0; tries < kFullQueueTries; ++tries) {
        sent = msgsnd(queue, message.data(), static_cast<size_t>(size), kNoWait);
        if (sent == 0 || errno != EAGAIN) break;
        usleep(kFullQueuePauseUs);
    }
    if (sent != 0) {
        QV_LOG_FAILED(errno, "msgsnd to the scanner");
        return 1;
    }
    return 0;
}

bool IsErrorCode(const std::string& word) {
    if (word.size() < kMinimumCodeLength) return false;
    if (word[0] == '_') return true;
    for (char c : word) {
        if (c < 'A' || c > 'Y') return false;
    }
    return true;
}

}  // namespace

int RunAdobeScanner(const std::string& book, const std::string& cache_path, int width, int height,
                    bool metadata) {
    std::vector<std::string> words{kScannerPath, book, cache_path, std::to_string(width),
                                   std::to_string(height)};
    if (metadata || (book.size() >= 5 && EndsWith(book, ".pdf"))) words.push_back("-metadata");
    std::vector<char*> list;
    for (std::string& word : words)
        list.push_back(&word[0]);

    if (FindTaskByAppName(kScannerName) < 1) {
        list.push_back(nullptr);
        int task = NewTask(kScannerPath, list.data(), kScannerName, kScannerName, nullptr,
                           kScannerTaskFlags);
        return task > 0 ? 0 : 1;
    }
    std::vector<char*> parameters(list.begin() + 1, list.end());
    if (parameters.empty()) return 0;
    return SendToScanner(parameters);
}

std::string ConvertAdobeError(const std::string& text) {
    std::istringstream words(text);
    std::string word;
    while (words >> word) {
        if (!IsErrorCode(word)) continue;
        std::string key = "@" + word;
        const char* translation = GetLangText(key.c_str());
        if (translation != nullptr && key != translation) return translation;
    }
    return text;
}

}  // namespace utilities
}  // namespace quorvel
