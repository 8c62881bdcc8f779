// SyncDownloader: Download waits on a condition that the downloader's notifications signal.
//
// The wait is timed (half a second at a time) and rechecks the state, so that a signal sent
// between the start and the wait is never lost. Download holds the lock except while waiting:
// SetSyncFolder waits out a clean-up, and a second Download is refused by the downloader.

#include "common_utilities/sync_downloader.h"

#include <sys/time.h>

#include <utility>

#include "common_utilities/message_queue.h"
#include "common_utilities/pthread_lock.h"

namespace quorvel {
namespace utilities {
namespace {

constexpr long kWaitStepMs = 500;

timespec WaitDeadline() {
    timeval now{};
    ::gettimeofday(&now, nullptr);
    timespec start{now.tv_sec, now.tv_usec * 1000L};
    return AbsoluteDeadline(start, kWaitStepMs);
}

}  // namespace

SyncDownloader::SyncDownloader(std::string folder)
    : state_(Downloader::DS_Idle), sync_folder_(std::move(folder)) {
    pthread_mutex_init(&mutex_, nullptr);
    pthread_cond_init(&cond_, nullptr);
    downloader_.Init(this);
}

SyncDownloader::~SyncDownloader() {
    downloader_.Stop();
    pthread_cond_destroy(&cond_);
    pthread_mutex_destroy(&mutex_);
}

int SyncDownloader::Download(const std::string& url, const std::string& name) {
    QV_LOG(QV_LOG_NOTICE, "url = %s", url.c_str());
    FileToSync file;
    file.url = url;
    file.name = name;
    file.size = 0;

    PthreadLock lock(mutex_);
    state_ = Downloader::DS_Downloading;
    int rc = downloader_.Start(file, sync_folder_, nullptr);
    if (rc != QV_OK) return rc;
    while (Downloader::DS_Downloading == state_) {
        timespec deadline = WaitDeadline();
        pthread_cond_timedwait(&cond_, &mutex_, &deadline);
    }

    last_status_ = downloader_.GetStatus();
    if (Downloader::DS_Finished != state_) {
        downloader_.CleanupOnErr(file);
        return QV_FAILED;
    }
    downloader_.Cleanup(file);
    last_path_ = downloader_.GetFinalPath();
    // The file is complete but could not be given its name (it stays as ".downloading").
    return last_path_.empty() ? QV_FAILED : QV_OK;
}

void SyncDownloader::NotifyDownloaderStatus(void* /*context*/) {
    PthreadLock lock(mutex_);
    if (Downloader::DS_Downloading != state_) return;
    Downloader::Status status = downloader_.GetStatus().status;
    // DS_Idle comes from a cancel that arrived before the transfer began: it never will.
    if (Downloader::DS_Finished == status || Downloader::DS_Error == status ||
        Downloader::DS_Aborted == status || Downloader::DS_Idle == status) {
        state_ = status;
    }
    pthread_cond_signal(&cond_);
}

int SyncDownloader::GetProgress(bool* active, std::string* url, int* total, int* current) {
    QV_RETURN_IF(!active || !url || !total || !current, QV_INVAL);
    *url = downloader_.GetBook().url;
    Downloader::StatusInfo status = downloader_.GetStatus();
    if (Downloader::DS_Downloading == status.status) {
        *active = true;
        *total = status.total;
        *current = status.current;
    } else {
        *active = false;
    }
    return QV_OK;
}

int SyncDownloader::CancelCurrent() {
    return downloader_.Abort(nullptr);
}

void SyncDownloader::SetSyncFolder(const std::string& folder) {
    PthreadLock lock(mutex_);
    sync_folder_ = folder;
}

std::string SyncDownloader::GetSyncFolder() {
    PthreadLock lock(mutex_);
    return sync_folder_;
}

void SyncDownloader::AddHeader(const std::string& name, const std::string& value) {
    downloader_.AddHeader(name, value);
}

void SyncDownloader::ClearHeaders() {
    downloader_.ClearHeaders();
}

Downloader::StatusInfo SyncDownloader::GetLastStatus() {
    PthreadLock lock(mutex_);
    return last_status_;
}

std::string SyncDownloader::GetLastPath() {
    PthreadLock lock(mutex_);
    return last_path_;
}

}  // namespace utilities
}  // namespace quorvel
