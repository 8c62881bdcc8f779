// What the download tests share: a callback that records every notification, files of the test
// server's pattern, progress records, and the server's download statistics.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "common_utilities/downloader.h"
#include "server_process.h"

namespace qvtest {

using quorvel::utilities::Downloader;

// The folder the download tests save into.
inline const std::string kDownloadFolder = "/mnt/ext1/Downloads";

// An item of download work.
quorvel::utilities::FileToSync Book(const std::string& url, const std::string& name,
                                    int32_t size = 0);
// The data file of `name` in the tests' folder while it downloads.
std::string Temp(const std::string& name);

// One notification: its context and the status read inside it.
struct Notification {
    void* context;
    Downloader::StatusInfo status;
};

// Records the notifications of one Downloader. The worker can be held inside the next
// notification (HoldNext), so that commands pile up while it can't take them.
class NotificationRecorder : public quorvel::utilities::IDownloaderCallback {
public:
    explicit NotificationRecorder(Downloader& downloader) : downloader_(downloader) {}

    void NotifyDownloaderStatus(void* context) override;

    std::vector<Notification> Notifications() const;
    size_t Count() const;
    // Waits until the recorded notifications satisfy `done`; false on timeout.
    bool WaitFor(const std::function<bool(const std::vector<Notification>&)>& done,
                 std::chrono::milliseconds timeout = std::chrono::seconds(30));
    // Waits for a notification (after the first `from`) with this status.
    bool WaitForStatus(Downloader::Status status, size_t from = 0,
                       std::chrono::milliseconds timeout = std::chrono::seconds(30));
    bool WaitForCount(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(30));

    // The next notification waits inside the callback until Release.
    void HoldNext();
    // Waits until the worker is held; false on timeout.
    bool WaitUntilHeld(std::chrono::milliseconds timeout = std::chrono::seconds(30));
    void Release();

private:
    Downloader& downloader_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Notification> notifications_;
    bool hold_next_ = false;
    bool held_ = false;
};

// "http://127.0.0.1:<port>/dl/file/<seed>/<size>", then "?<query>" when given.
std::string FileUrl(const HttpTestServer& server, uint64_t seed, size_t size,
                    const std::string& query = "");
// What the server says of ranges and bytes served ("ranges", "last-range", "served").
std::string DownloadStat(const HttpTestServer& server, const std::string& key);

std::string Sha256OfFile(const std::string& path);
std::string Sha256OfPattern(uint64_t seed, size_t size);
// The pattern's bytes [offset, offset + length) written to `path` (created or replaced).
void WritePatternFile(const std::string& path, uint64_t seed, size_t length);

bool Exists(const std::string& path);
off_t FileSize(const std::string& path);  // -1 when missing
std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& content);

struct ProgressRecord {
    int32_t offset = -1;
    int32_t total = -1;
};
// The 8 bytes of a ".progress" file; {-1, -1} when missing or short.
ProgressRecord ReadProgress(const std::string& path);
void WriteProgress(const std::string& path, int32_t offset, int32_t total);

// Polls `condition` every 5 ms; false on timeout.
bool Eventually(const std::function<bool()>& condition,
                std::chrono::milliseconds timeout = std::chrono::seconds(30));

}  // namespace qvtest
