// DownloadManager: the queue, the one item in transfer, and the reaction to each state of the
// downloader.
//
// Notifications come from the worker, and from every thread that adds an item (which asks the
// manager to start it when the downloader is free). Two rules keep them from stepping on each
// other: only the worker's own notification of an end finalizes the item that ended, and an item
// starts only while no other is in transfer, decided and recorded under `current_mutex_` together
// with the start itself. Holding that lock across Downloader::Start is safe: Start only sets a
// command and never calls back.

#include "common_utilities/download_manager.h"

#include <utility>

#include "common_utilities/pthread_lock.h"

namespace quorvel {
namespace utilities {
namespace {

class FunctionCallback : public DownloadManager::DownloadCompleteCallback {
public:
    explicit FunctionCallback(DownloadManager::CompletionFunction function)
        : function_(std::move(function)) {}
    void OnComplete(int result, const FileToSync& item) override { function_(result, item); }

private:
    DownloadManager::CompletionFunction function_;
};

}  // namespace

DownloadManager::DownloadManager() : current_item_(nullptr), queue_ready_(false) {
    pthread_mutex_init(&current_mutex_, nullptr);
}

DownloadManager::~DownloadManager() {
    // First, so that no notification reaches a manager whose members are going.
    downloader_.Stop();
    if (queue_ready_) {
        ManagedItem* item = nullptr;
        while (queue_.Pop(&item) == QV_OK)
            delete item;
    }
    delete current_item_;
    pthread_mutex_destroy(&current_mutex_);
}

int DownloadManager::Init(const std::string& folder) {
    folder_ = folder;
    int rc = queue_.Init();
    if (rc != 0) {
        QV_LOG_ERR(rc);
        return rc;
    }
    queue_ready_ = true;
    rc = downloader_.Init(this);
    if (rc != 0) {
        QV_LOG_ERR(rc);
        return rc;
    }
    return QV_OK;
}

int DownloadManager::AddItemInt(const FileToSync& file,
                                std::shared_ptr<DownloadCompleteCallback> callback) {
    auto* item = new ManagedItem;
    static_cast<FileToSync&>(*item) = file;
    item->callback = std::move(callback);
    int rc = queue_.Push(item);
    if (rc != 0) {
        QV_LOG_ERR(rc);
        delete item;
        return rc;
    }
    NotifyDownloaderStatus(nullptr);
    return QV_OK;
}

int DownloadManager::AddItem(const FileToSync& file, CompletionFunction on_complete) {
    std::shared_ptr<DownloadCompleteCallback> callback;
    if (on_complete) callback = std::make_shared<FunctionCallback>(std::move(on_complete));
    return AddItemInt(file, std::move(callback));
}

int DownloadManager::DownloadNextItem() {
    ManagedItem* item = nullptr;
    int rc = QV_OK;
    {
        PthreadLock lock(current_mutex_);
        if (current_item_) return QV_OK;  // it goes when the one in transfer ends
        if (queue_.Pop(&item) != QV_OK) return QV_OK;
        rc = downloader_.Start(*item, folder_, item);
        if (rc == QV_OK) {
            current_item_ = item;
            return QV_OK;
        }
    }
    FinalizeItem(item, rc);
    return rc;
}

void DownloadManager::FinalizeItem(ManagedItem* item, int result) {
    if (!item) return;
    if (item->callback) item->callback->OnComplete(result, *item);
    item->callback.reset();
    delete item;
}

void DownloadManager::SetCookie(const std::string& name, const std::string& value) {
    downloader_.SetCookie(name, value);
}

void DownloadManager::AddHeader(const std::string& name, const std::string& value) {
    downloader_.AddHeader(name, value);
}

void DownloadManager::ClearHeaders() {
    downloader_.ClearHeaders();
}

Downloader::StatusInfo DownloadManager::GetStatus() {
    return downloader_.GetStatus();
}

std::string DownloadManager::GetFinalPath() {
    return downloader_.GetFinalPath();
}

Downloader& DownloadManager::GetDownloader() {
    return downloader_;
}

void DownloadManager::NotifyDownloaderStatus(void* /*context*/) {
    switch (downloader_.GetStatus().status) {
        case Downloader::DS_Idle:
            StartNextItems();
            break;
        case Downloader::DS_Downloading:
            break;
        case Downloader::DS_Finished:
            CompleteCurrent(true);
            break;
        case Downloader::DS_Error:
            CompleteCurrent(false);
            break;
        case Downloader::DS_Paused:
            QV_LOG_ERROR("INVALID state");
            break;
        case Downloader::DS_Aborted:
            // Nothing moves on: the item stays current and the queue waits.
            break;
    }
}

void DownloadManager::CompleteCurrent(bool finished) {
    ManagedItem* item = nullptr;
    // An adding thread that looks at the same moment sees the end too, but the worker's
    // notification of it follows for sure; only that one takes the item.
    if (downloader_.IsWorkerThread()) {
        PthreadLock lock(current_mutex_);
        item = current_item_;
        current_item_ = nullptr;
    }
    if (item) {
        if (finished) {
            downloader_.Cleanup(*item);
        } else {
            downloader_.CleanupOnErr(*item);
        }
        FinalizeItem(item, finished ? QV_OK : QV_FAILED);
    }
    StartNextItems();
}

void DownloadManager::StartNextItems() {
    // A refused item is finalized and taken out, so this ends.
    for (;;) {
        int rc = DownloadNextItem();
        if (rc == QV_OK) return;
        QV_LOG_ERR_TIGHT(rc);
    }
}

}  // namespace utilities
}  // namespace quorvel
