// DownloadManager: a queue of downloads into one folder, taken one after the other in the
// background by a Downloader, with a completion callback per item.
//
// Items run strictly one at a time, in the order they were added. An item that fails has its
// files removed and the queue goes on with the next; a caller that wants a retry adds the item
// again. A finished file gets the item's name, or "<stem>_1<ext>" and so on when that name is
// taken, so two items of one name both survive.
//
// The completion callback runs on the Downloader's worker with no lock held (it may add items),
// or on the adding thread when the downloader refuses the item at once; it gets 0, -1 for a
// failed transfer, or the code of the refusal. Items waiting when the manager is destroyed are
// dropped without their callbacks; the transfer under way is interrupted with its files kept.
#pragma once

#include <pthread.h>

#include <functional>
#include <memory>
#include <string>

#include "common_utilities/downloader.h"
#include "common_utilities/message_queue.h"

namespace quorvel {
namespace utilities {

class QV_EXPORT DownloadManager : private IDownloaderCallback {
public:
    class DownloadCompleteCallback {
    public:
        virtual void OnComplete(int result, const FileToSync& item) = 0;
        virtual ~DownloadCompleteCallback() {}
    };

    struct ManagedItem : FileToSync {
        std::shared_ptr<DownloadCompleteCallback> callback;
    };

    using CompletionFunction = std::function<void(int result, const FileToSync& item)>;

    DownloadManager();
    ~DownloadManager() override;
    DownloadManager(const DownloadManager&) = delete;
    DownloadManager& operator=(const DownloadManager&) = delete;

    // Every item goes into `folder`. 0, or the first failure (of the queue, then the downloader).
    int Init(const std::string& folder);

    // Queues `file` and starts it when the downloader is free. 0, or the queue's failure.
    int AddItemInt(const FileToSync& file, std::shared_ptr<DownloadCompleteCallback> callback);
    // The same with any callable; an empty one means no callback.
    int AddItem(const FileToSync& file, CompletionFunction on_complete);

    // Starts the item at the head of the queue unless one is in transfer. 0 (also with nothing
    // to start), or the code of a refused start, after which the item has been finalized.
    int DownloadNextItem();
    // Calls the item's callback with `result`, then deletes the item. Nothing for null.
    void FinalizeItem(ManagedItem* item, int result);

    // Sent with every transfer from the next on (see Downloader).
    void SetCookie(const std::string& name, const std::string& value);
    void AddHeader(const std::string& name, const std::string& value);
    void ClearHeaders();

    // The state of the transfer under way, or of the last one.
    Downloader::StatusInfo GetStatus();
    // Where the last finished item was put; read it inside OnComplete.
    std::string GetFinalPath();
    // The transfer engine, for the commands of the item under way (Pause, Resume, Abort, Retry).
    // A pause or an abort holds the queue: the item stays current, no callback runs and the items
    // behind it wait, until a Retry of the aborted item runs it again to its end.
    Downloader& GetDownloader();

    void NotifyDownloaderStatus(void* context) override;

private:
    // Finalizes the item whose transfer has just ended, then goes on with the queue.
    void CompleteCurrent(bool finished);
    // DownloadNextItem until an item starts or none is left.
    void StartNextItems();

    Downloader downloader_;
    std::string folder_;
    MessageQueue<ManagedItem*> queue_;
    ManagedItem* current_item_;
    pthread_mutex_t current_mutex_;
    bool queue_ready_;  // Init made the queue: the destructor empties it
};

}  // namespace utilities
}  // namespace quorvel
