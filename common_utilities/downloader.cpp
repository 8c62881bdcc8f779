// Downloader: the commands, the worker loop and the status.
//
// One mutex and one condition guard every field. A command checks its guards in a fixed order
// (callback, pending command, status: so QV_BUSY wins over QV_WRONG_STATE), stores its context
// and wakes the worker. The worker takes commands up between transfers; during a transfer the
// progress callback takes them (downloader_transfer.cpp). A context is handed to exactly one
// notification: the one that reports what its command did.

#include "common_utilities/downloader.h"

#include <sys/stat.h>

#include <cerrno>

#include "common_utilities/pthread_lock.h"

namespace quorvel {
namespace utilities {
Downloader::Downloader()
    : status_(DS_Idle),
      error_(0),
      http_code_(0),
      size_(0),
      total_(0),
      cb_(nullptr),
      current_(0),
      notify_context_(nullptr),
      displaced_context_(nullptr),
      command_(DC_None),
      thread_(pthread_t()),
      resume_from_(0),
      overwrite_(false),
      sync_error_(0),
      thread_running_(false) {
    sync_error_ = pthread_mutex_init(&mutex_, nullptr);
    if (sync_error_ == 0) {
        sync_error_ = pthread_cond_init(&cond_, nullptr);
        if (sync_error_ != 0) pthread_mutex_destroy(&mutex_);
    }
}

Downloader::~Downloader() {
    Stop();
    if (sync_error_ == 0) {
        pthread_cond_destroy(&cond_);
        pthread_mutex_destroy(&mutex_);
    }
}

int Downloader::Init(IDownloaderCallback* cb) {
    QV_RETURN_UNLESS(cb && !cb_, QV_WRONG_STATE);
    if (sync_error_ != 0) {
        QV_LOG_FAILED(sync_error_, "");
        return QV_FAILED;
    }
    {
        PthreadLock lock(mutex_);
        command_ = DC_None;  // a Stop before this Init left DC_Exit behind
    }
    int err = pthread_create(&thread_, nullptr, &Downloader::DownloadThread, this);
    if (err != 0) {
        QV_LOG_FAILED(err, "");
        return QV_FAILED;
    }
    thread_running_ = true;
    PthreadLock lock(mutex_);
    cb_ = cb;
    return QV_OK;
}

int Downloader::Start(const FileToSync& book, const std::string& folder, void* context) {
    QV_RETURN_UNLESS(cb_, QV_NOT_INITIALIZED);
    PthreadLock lock(mutex_);
    QV_LOG(QV_LOG_INFO, "Start downloading [%s]", book.url.c_str());
    QV_RETURN_UNLESS(DC_None == command_, QV_BUSY);
    QV_RETURN_UNLESS(DS_Downloading != status_ && DS_Paused != status_, QV_WRONG_STATE);
    // Without a name there is no file to write, and a negative size reserves nonsense.
    QV_RETURN_IF(book.name.empty() || book.size < 0, QV_INVAL);

    book_ = book;
    url_ = book.url;
    folder_ = folder;
    temp_path_ = folder + "/" + book.name + ".downloading";
    current_ = 0;
    notify_context_ = context;
    size_ = book.size;
    struct stat st {};
    if (::stat(folder.c_str(), &st) != 0 && errno == ENOENT) ::mkdir(folder.c_str(), 0777);
    command_ = DC_Start;
    pthread_cond_signal(&cond_);
    return QV_OK;
}

int Downloader::Retry(void* context) {
    QV_RETURN_UNLESS(cb_, QV_NOT_INITIALIZED);
    PthreadLock lock(mutex_);
    QV_RETURN_UNLESS(DC_None == command_, QV_BUSY);
    QV_RETURN_UNLESS(DS_Idle == status_ || DS_Finished == status_ || DS_Aborted == status_,
                     QV_WRONG_STATE);
    // Nothing to repeat before the first Start or after ClearStatus.
    QV_RETURN_IF(temp_path_.empty(), QV_WRONG_STATE);
    command_ = DC_Start;
    notify_context_ = context;
    pthread_cond_signal(&cond_);
    return QV_OK;
}

int Downloader::Abort(void* context) {
    QV_RETURN_UNLESS(cb_, QV_NOT_INITIALIZED);
    PthreadLock lock(mutex_);
    QV_LOG(QV_LOG_NOTICE, "Downloader::Abort called");
    QV_RETURN_UNLESS(DC_Abort != command_, QV_WRONG_STATE);
    // A stopping worker must not be kept alive by a command that replaces its exit.
    QV_RETURN_IF(DC_Exit == command_, QV_WRONG_STATE);
    QV_LOG(QV_LOG_INFO, "Abort downloading");
    if (DC_None != command_) displaced_context_ = notify_context_;
    command_ = DC_Abort;
    notify_context_ = context;
    pthread_cond_signal(&cond_);
    return QV_OK;
}

int Downloader::Pause(void* context) {
    QV_RETURN_UNLESS(cb_, QV_NOT_INITIALIZED);
    PthreadLock lock(mutex_);
    QV_RETURN_UNLESS(DC_None == command_, QV_BUSY);
    QV_RETURN_UNLESS(DS_Downloading == status_, QV_WRONG_STATE);
    command_ = DC_Pause;
    notify_context_ = context;
    pthread_cond_signal(&cond_);
    return QV_OK;
}

int Downloader::Resume(void* context) {
    QV_RETURN_UNLESS(cb_, QV_NOT_INITIALIZED);
    PthreadLock lock(mutex_);
    QV_RETURN_UNLESS(DC_None == command_, QV_BUSY);
    QV_RETURN_UNLESS(DS_Paused == status_, QV_WRONG_STATE);
    command_ = DC_Resume;
    notify_context_ = context;
    pthread_cond_signal(&cond_);
    return QV_OK;
}

int Downloader::Stop() {
    if (!thread_running_) return QV_OK;
    QV_RETURN_IF(IsWorkerThread(), QV_WRONG_STATE);
    {
        // With the callback gone no notification starts any more; one under way finishes.
        PthreadLock lock(mutex_);
        cb_ = nullptr;
        command_ = DC_Exit;
        notify_context_ = nullptr;
        displaced_context_ = nullptr;
        pthread_cond_signal(&cond_);
    }
    pthread_join(thread_, nullptr);
    thread_running_ = false;
    return QV_OK;
}

Downloader::StatusInfo Downloader::GetStatus() {
    PthreadLock lock(mutex_);
    StatusInfo info;
    info.status = status_;
    info.error = DS_Error == status_ ? error_ : 0;
    info.current = static_cast<int>(current_);
    info.http_code = http_code_;
    info.total = static_cast<int>(total_);
    info.filename = header_filename_;
    info.content_type = content_type_;
    info.effective_url = effective_url_;
    return info;
}

FileToSync Downloader::GetBook() {
    PthreadLock lock(mutex_);
    return book_;
}

std::string Downloader::GetFinalPath() {
    PthreadLock lock(mutex_);
    return final_path_;
}

bool Downloader::IsWorkerThread() {
    return thread_running_ && pthread_equal(pthread_self(), thread_);
}

int Downloader::ClearStatus() {
    PthreadLock lock(mutex_);
    status_ = DS_Idle;
    error_ = 0;
    http_code_ = 0;
    url_.clear();
    temp_path_.clear();
    current_ = 0;
    size_ = 0;
    return QV_OK;
}

void Downloader::SetCookie(const std::string& name, const std::string& value) {
    PthreadLock lock(mutex_);
    cookie_ = name + "=" + value;
}

void Downloader::AddHeader(const std::string& name, const std::string& value) {
    PthreadLock lock(mutex_);
    headers_.push_back(name + ": " + value);
}

void Downloader::ClearHeaders() {
    PthreadLock lock(mutex_);
    headers_.clear();
}

void Downloader::SetOverwrite(bool overwrite) {
    PthreadLock lock(mutex_);
    overwrite_ = overwrite;
}

// ---- The worker --------------------------------------------------------------------------------

void* Downloader::DownloadThread(void* self) {
    static_cast<Downloader*>(self)->StartProcess();
    return nullptr;
}

Downloader::Pending Downloader::TakePending() {
    Pending pending{cb_, notify_context_};
    notify_context_ = nullptr;
    return pending;
}

void Downloader::Notify(const Pending& pending) {
    if (pending.cb) pending.cb->NotifyDownloaderStatus(pending.context);
}

int Downloader::StartProcess() {
    int result = 0;
    for (;;) {
        PthreadLock lock(mutex_);
        while (DC_None == command_)
            pthread_cond_wait(&cond_, &mutex_);
        switch (command_) {
            case DC_Start: {
                status_ = DS_Downloading;
                Pending pending = TakePending();
                command_ = DC_None;
                current_ = 0;
                lock.Unlock();
                Notify(pending);
                result = StartDownload();
                break;
            }
            case DC_Abort: {
                // No transfer runs, so there is nothing to remove: the status only goes back to
                // idle. A command that the abort replaced before it was taken up is reported
                // first, so that its owner hears of it once.
                if (DS_Idle != status_) status_ = DS_Idle;
                Pending displaced{cb_, displaced_context_};
                displaced_context_ = nullptr;
                Pending pending = TakePending();
                command_ = DC_None;
                lock.Unlock();
                if (displaced.context) Notify(displaced);
                Notify(pending);
                break;
            }
            case DC_Exit:
                return result;
            default: {
                QV_LOG(QV_LOG_WARNING, "Skipping command %d", static_cast<int>(command_));
                Pending pending = TakePending();
                command_ = DC_None;
                lock.Unlock();
                Notify(pending);
                break;
            }
        }
    }
}

}  // namespace utilities
}  // namespace quorvel
