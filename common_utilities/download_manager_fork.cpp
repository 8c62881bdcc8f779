// DownloadManagerFork: the thread that runs wget for each queued item.

#include "common_utilities/download_manager_fork.h"

#include <sys/wait.h>

#include <cstdio>
#include <system_error>

#include "common_utilities/run_program.h"

namespace quorvel {
namespace utilities {
namespace {

constexpr long kWaitMs = 100;
// Only a wget that ran to its end with status 0 has the whole file. One killed by a signal left
// a part of it, which must not be renamed as if it were complete; -1 (not started, not waited
// for) fails too.
bool Succeeded(int status) {
    return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

DownloadManagerFork::DownloadManagerFork() : running_(false) {
    queue_.Init();
}

DownloadManagerFork::~DownloadManagerFork() {
    running_ = false;
    if (!thread_.joinable()) return;
    try {
        thread_.join();
    } catch (const std::system_error& e) {
        // Destroyed from one of its own callbacks: the thread can't wait for itself.
        QV_LOG_ERROR("join failed with %s", e.what());
        thread_.detach();
    }
}

int DownloadManagerFork::Init(const std::string& folder) {
    QV_RETURN_IF(running_, QV_WRONG_STATE);
    folder_ = folder;
    running_ = true;
    thread_ = std::thread(&DownloadManagerFork::Run, this);
    return QV_OK;
}

int DownloadManagerFork::AddItem(const FileToSync& file, Callback callback) {
    QV_RETURN_UNLESS(callback, QV_INVAL);
    queue_.Push(DownloadItem{file, std::move(callback)});
    return QV_OK;
}

void DownloadManagerFork::Run() {
    while (running_) {
        DownloadItem item;
        if (queue_.Wait(kWaitMs, &item) != QV_OK) continue;
        Process(item);
    }
}

void DownloadManagerFork::Process(const DownloadItem& item) {
    std::string final_path = folder_ + "/" + item.file.name;
    std::string temp = final_path + ".download";
    int status = RunProgram({"wget", "-O", temp, "--", item.file.url});
    if (!Succeeded(status)) {
        item.callback(QV_FAILED, item.file);
        return;
    }
    std::rename(temp.c_str(), final_path.c_str());
    item.callback(QV_OK, item.file);
}

}  // namespace utilities
}  // namespace quorvel
