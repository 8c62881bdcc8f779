// SyncDownloader: one download at a time that blocks its caller until the file is in place or
// the transfer has failed, with progress and cancel for other threads.
//
// Download returns 0 with the file at GetLastPath(), or -1 for every other end (a failure, an
// HTTP error, a cancel), after removing what the transfer left; GetLastStatus() tells why. Files
// are never resumed across Download calls by this class: a failed call cleans up.
#pragma once

#include <pthread.h>

#include <string>

#include "common_utilities/downloader.h"

namespace quorvel {
namespace utilities {

class QV_EXPORT SyncDownloader : public IDownloaderCallback {
public:
    explicit SyncDownloader(std::string folder);
    ~SyncDownloader() override;
    SyncDownloader(const SyncDownloader&) = delete;
    SyncDownloader& operator=(const SyncDownloader&) = delete;

    // Downloads `url` into the sync folder as `name` and waits for the end. 0, -1, or the
    // downloader's refusal (QV_BUSY, QV_WRONG_STATE while another Download runs; QV_INVAL for an
    // empty name).
    int Download(const std::string& url, const std::string& name);

    // The URL of the current (or last) download; while a transfer runs, `*active` is true and
    // the two counts are set, otherwise `*active` is false and the counts are left alone.
    // 0, or QV_INVAL for a null pointer.
    int GetProgress(bool* active, std::string* url, int* total, int* current);
    // Abandons the running Download, which then returns -1.
    int CancelCurrent();

    void SetSyncFolder(const std::string& folder);
    std::string GetSyncFolder();
    void AddHeader(const std::string& name, const std::string& value);
    void ClearHeaders();

    // The downloader's state when the last Download ended, and where its file went.
    Downloader::StatusInfo GetLastStatus();
    std::string GetLastPath();

    void NotifyDownloaderStatus(void* context) override;

private:
    Downloader::Status state_;
    Downloader downloader_;
    pthread_mutex_t mutex_;
    pthread_cond_t cond_;
    std::string sync_folder_;
    Downloader::StatusInfo last_status_;
    std::string last_path_;
};

}  // namespace utilities
}  // namespace quorvel
