// DownloadManagerFork: downloads handed to the system's wget, one at a time, from a thread of
// its own. No resume: each item runs `wget -O <folder>/<name>.download -- <url>`, and the file is
// renamed to "<folder>/<name>" only when wget exits with status 0: one killed by a signal left a
// part of the file. A failed item keeps its partial ".download" file.
//
// wget is started directly with an argument vector, never through a shell, so a URL or a name
// may hold any character (quotes, $, `, \, blanks) and reaches wget as it stands. The "--" keeps
// a URL that begins with "-" from being read as an option.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "common_utilities/downloader.h"
#include "common_utilities/message_queue.h"

namespace quorvel {
namespace utilities {

class QV_EXPORT DownloadManagerFork {
public:
    using Callback = std::function<void(int result, FileToSync file)>;

    struct DownloadItem {
        FileToSync file;
        Callback callback;
    };

    DownloadManagerFork();
    // Stops the thread after the item it runs; waiting items are dropped unreported.
    ~DownloadManagerFork();
    DownloadManagerFork(const DownloadManagerFork&) = delete;
    DownloadManagerFork& operator=(const DownloadManagerFork&) = delete;

    // Starts the thread. 0, or QV_WRONG_STATE when it runs already.
    int Init(const std::string& folder);
    // Queues an item; `callback` gets 0 or -1 on the manager's thread. 0, or QV_INVAL for an
    // empty callback (there would be no one to tell).
    int AddItem(const FileToSync& file, Callback callback);

private:
    void Run();
    void Process(const DownloadItem& item);

    std::string folder_;
    MessageQueue<DownloadItem> queue_;
    std::thread thread_;
    std::atomic<bool> running_;
};

}  // namespace utilities
}  // namespace quorvel
