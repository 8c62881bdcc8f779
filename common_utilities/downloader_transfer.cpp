// Downloader: one transfer on the worker, from the files on disk to the notification of its end,
// and libcurl's callbacks.
//
// The recovery sequence after a transfer ends badly is fixed: a connection dropped mid-body is
// resumed from the recorded offset up to ten times in a row; a server that turns a range request
// down gets one restart from offset 0; a refused connection gets one more try. Anything else is
// the transfer's failure, and the files stay for a later Start to resume from.

// The progress callback taking doubles is the one the download applications were written
// against; newer libcurl headers mark it deprecated.
#define CURL_DISABLE_DEPRECATION

#include <curl/curl.h>
#include <regex.h>
#include <strings.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>

#include "common_utilities/downloader.h"
#include "common_utilities/pthread_lock.h"

namespace quorvel {
namespace utilities {
namespace {

constexpr int kPartialFileRetries = 10;
// A transfer is abandoned when it moves under kLowSpeedLimit bytes a second for kLowSpeedTime
// seconds (a paused one excepted); there is no overall limit, books and updates can be large.
constexpr long kLowSpeedLimit = 1;
constexpr long kLowSpeedTime = 30;
constexpr long kMaxRedirects = 10;
constexpr const char* kUserAgent = "Quorvel";
// Pieces of up to 100 KiB reach the write callback instead of libcurl's 16 KiB: the progress
// record is rewritten once per piece, so larger pieces mean a sixth of the small writes to the
// storage, and a transfer as fast as the system's download programs.
constexpr long kReceiveBuffer = 100 * 1024;
constexpr const char* kFilenamePattern = ".*filename=[ ]*\"(([^\"]|\\.)*)\".*";

// Sets options in order and stops at the first that libcurl refuses, which is logged.
class Options {
public:
    explicit Options(CURL* curl) : curl_(curl) {}

    template <typename T>
    Options& Set(CURLoption option, T value) {
        if (!ok_) return *this;
        CURLcode err = curl_easy_setopt(curl_, option, value);
        if (QV_CLEANUP_UNLESS(0 == err, "curl_easy_setopt failed with [%d]", err)) ok_ = false;
        return *this;
    }

    bool ok() const { return ok_; }

private:
    CURL* curl_;
    bool ok_ = true;
};

// The "Name: value" lines as a libcurl list; null with `*failed` set when the list can't be made.
curl_slist* HeaderList(const std::vector<std::string>& lines, bool* failed) {
    curl_slist* list = nullptr;
    *failed = false;
    for (const auto& line : lines) {
        curl_slist* longer = curl_slist_append(list, line.c_str());
        if (QV_CLEANUP_UNLESS(longer, "curl_slist_append failed")) {
            curl_slist_free_all(list);
            *failed = true;
            return nullptr;
        }
        list = longer;
    }
    return list;
}

bool StartsWith(const char* line, size_t length, const char* prefix, size_t prefix_length) {
    return length >= prefix_length && ::strncasecmp(line, prefix, prefix_length) == 0;
}

}  // namespace

int Downloader::StartDownload() {
    DownloadContext context;
    context.downloader = this;
    std::string temp;
    {
        PthreadLock lock(mutex_);
        resume_from_ = 0;
        header_filename_.clear();
        content_type_.clear();
        effective_url_.clear();
        total_ = size_;
        temp = temp_path_;
    }

    curl_slist* headers = nullptr;
    bool transferred = false;
    int result = Transfer(context, temp, &headers, &transferred);

    PthreadLock lock(mutex_);
    bool interrupted = false;
    if (transferred) result = Conclude(context, result, lock, &interrupted);
    Pending pending{nullptr, nullptr};
    if (interrupted) {
        status_ = DS_Idle;
    } else {
        if (result != 0 && DS_Error != status_) {
            http_code_ = 0;
            status_ = DS_Error;
            error_ = result == kNotEnoughSpace ? kErrorSpace : kErrorTransfer;
        }
        pending = TakePending();
    }
    lock.Unlock();
    if (context.curl) curl_easy_cleanup(context.curl);
    context.curl = nullptr;
    curl_slist_free_all(headers);
    Notify(pending);
    return result;
}

int Downloader::Transfer(DownloadContext& context, const std::string& temp, curl_slist** headers,
                         bool* transferred) {
    off_t size = 0;
    {
        PthreadLock lock(mutex_);
        size = size_;
    }
    int rc = prepareContext(temp, size, context);
    if (rc != 0) {
        QV_LOG_FAILED(rc, "");
        return rc;
    }

    ProgressFile::Data& record = context.progress.data();
    {
        PthreadLock lock(mutex_);
        if (record.total != 0) {
            size_ = record.total;
            total_ = size_;
        }
        size = size_;
        current_ = record.offset;  // what is on disk already counts
        if (record.offset == size && size >= 1) {
            // Complete already (a process ended between the last write and the clean-up).
            status_ = DS_Finished;
            return QV_OK;
        }
    }

    CURL* curl = curl_easy_init();
    if (QV_CLEANUP_UNLESS(curl, "")) return QV_FAILED;
    context.curl = curl;
    if (ConfigureTransfer(context, headers) != 0) return QV_FAILED;

    int res = PerformWithRecovery(context, size);

    char* effective = nullptr;
    if (curl_easy_getinfo(curl, CURLINFO_EFFECTIVE_URL, &effective) == CURLE_OK && effective) {
        PthreadLock lock(mutex_);
        effective_url_ = effective;
    }
    if (res == CURLE_OK) ApplyContentLength(context, size);
    *transferred = true;
    return res;
}

int Downloader::ConfigureTransfer(DownloadContext& context, curl_slist** headers) {
    std::string url;
    std::string cookie;
    std::vector<std::string> lines;
    off_t offset = context.progress.data().offset;
    {
        PthreadLock lock(mutex_);
        url = url_;
        cookie = cookie_;
        lines = headers_;
        resume_from_ = offset;
    }
    bool list_failed = false;
    *headers = HeaderList(lines, &list_failed);
    if (list_failed) return QV_FAILED;

    CURL* curl = context.curl;
    Options options(curl);
    options.Set(CURLOPT_URL, url.c_str())
        .Set(CURLOPT_WRITEFUNCTION, &Downloader::WriteFunction)
        .Set(CURLOPT_WRITEDATA, static_cast<void*>(&context))
        .Set(CURLOPT_RESUME_FROM, static_cast<long>(offset))
        .Set(CURLOPT_NOPROGRESS, 0L)
        .Set(CURLOPT_PROGRESSFUNCTION, &Downloader::ProgressFunctionCaller)
        .Set(CURLOPT_PROGRESSDATA, static_cast<void*>(&context))
        .Set(CURLOPT_LOW_SPEED_LIMIT, kLowSpeedLimit)
        .Set(CURLOPT_LOW_SPEED_TIME, kLowSpeedTime)
        .Set(CURLOPT_SSL_VERIFYPEER, 0L)
        .Set(CURLOPT_SSL_VERIFYHOST, 0L)
        .Set(CURLOPT_FOLLOWLOCATION, 1L)
        .Set(CURLOPT_MAXREDIRS, kMaxRedirects)
        .Set(CURLOPT_NOSIGNAL, 1L)
        .Set(CURLOPT_HEADERFUNCTION, &Downloader::WriteHeader)
        .Set(CURLOPT_HEADERDATA, static_cast<void*>(this));
    if (!cookie.empty()) options.Set(CURLOPT_COOKIE, cookie.c_str());
    if (*headers) options.Set(CURLOPT_HTTPHEADER, *headers);
    if (!options.ok()) return QV_FAILED;

    // A proxy libcurl refuses is no reason to fail the download: it then goes direct.
    char* proxy = get_proxy();
    if (proxy) {
        curl_easy_setopt(curl, CURLOPT_PROXY, proxy);
        clean_proxy_object(&proxy);
    }
    options.Set(CURLOPT_USERAGENT, kUserAgent).Set(CURLOPT_BUFFERSIZE, kReceiveBuffer);
    return options.ok() ? QV_OK : QV_FAILED;
}

void Downloader::SetResumePoint(CURL* curl, off_t offset) {
    {
        PthreadLock lock(mutex_);
        resume_from_ = offset;
    }
    curl_easy_setopt(curl, CURLOPT_RESUME_FROM, static_cast<long>(offset));
}

int Downloader::PerformWithRecovery(DownloadContext& context, off_t size) {
    CURL* curl = context.curl;
    ProgressFile::Data& record = context.progress.data();
    CURLcode res = curl_easy_perform(curl);
    for (int retry = 0; res == CURLE_PARTIAL_FILE && retry < kPartialFileRetries; ++retry) {
        SetResumePoint(curl, record.offset);
        res = curl_easy_perform(curl);
    }
    if (res == CURLE_RANGE_ERROR) {
        QV_LOG_ERROR("Range error file size [%d], requested from [%d]", static_cast<int>(size),
                     record.offset);
        record.offset = 0;
        context.progress.Write();
        SetResumePoint(curl, 0);
        // The restart writes from the start of the file: continuing behind the bytes already
        // there would leave them at the head of the file and push the body behind them.
        ::lseek(context.file_, 0, SEEK_SET);
        res = curl_easy_perform(curl);
    }
    if (res == CURLE_COULDNT_CONNECT) res = curl_easy_perform(curl);
    return res;
}

void Downloader::ApplyContentLength(DownloadContext& context, off_t size) {
    double value = 0;
    if (curl_easy_getinfo(context.curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD, &value) != CURLE_OK ||
        value <= 0) {
        return;
    }
    off_t length = resume_from_ + static_cast<off_t>(value);
    if (length == size) return;
    // The server knows better than the caller's estimate; this also cuts a reservation that
    // was too big.
    ProgressFile::Data& record = context.progress.data();
    record.total = static_cast<int32_t>(length);
    context.progress.Write();
    if (::ftruncate(context.file_, length) != 0) {
        QV_LOG_ERROR("ftruncate failed with [%d]", errno);
    }
}

int Downloader::Conclude(DownloadContext& context, int transfer_result, PthreadLock& lock,
                         bool* interrupted) {
    if (DC_Exit == command_) {
        // Stopped with the owner going away: the files stay, as after a killed process.
        *interrupted = true;
        return QV_OK;
    }
    if (DC_Abort == command_) {
        // Also when the transfer had just ended well: the owner asked for nothing to remain.
        Pending displaced{cb_, displaced_context_};
        displaced_context_ = nullptr;
        command_ = DC_None;
        lock.Unlock();
        if (displaced.context) Notify(displaced);
        lock.Lock();
        status_ = DS_Aborted;
        RemoveFiles();
        return QV_OK;
    }

    ProgressFile::Data& record = context.progress.data();
    switch (transfer_result) {
        case CURLE_OK: {
            long code = 0;
            CURLcode err = curl_easy_getinfo(context.curl, CURLINFO_RESPONSE_CODE, &code);
            if (QV_CLEANUP_UNLESS(0 == err, "curl_easy_getinfo failed with [%d]", err)) {
                return QV_FAILED;
            }
            http_code_ = static_cast<int>(code);
            if (code == 200 || code == 206) {
                ::close(context.file_);
                context.file_ = -1;
                status_ = DS_Finished;
                return QV_OK;
            }
            // The data file now holds the server's error body (see getErrorBody); the next
            // attempt starts over.
            QV_LOG_ERROR("File download failed with http error [%d]", static_cast<int>(code));
            record.offset = 0;
            context.progress.Write();
            status_ = DS_Error;
            error_ = kErrorHttp;
            return QV_OK;
        }
        case CURLE_ABORTED_BY_CALLBACK:
            status_ = DS_Aborted;
            RemoveFiles();
            return QV_OK;
        default:
            QV_LOG_ERROR("File download failed [%s] with curl error [%d]", url_.c_str(),
                         transfer_result);
            status_ = DS_Error;
            error_ = kErrorTransfer;
            http_code_ = 0;
            return transfer_result;
    }
}

void Downloader::RemoveFiles() {
    ProgressFile::Cleanup(temp_path_);
    ::unlink(temp_path_.c_str());
}

// ---- libcurl's callbacks -----------------------------------------------------------------------

int Downloader::ProgressFunctionCaller(void* context, double dltotal, double dlnow, double ultotal,
                                       double ulnow) {
    auto* download = static_cast<DownloadContext*>(context);
    return download->downloader->ProgressFunction(context, dltotal, dlnow, ultotal, ulnow);
}

int Downloader::ProgressFunction(void* context, double, double, double, double) {
    auto* download = static_cast<DownloadContext*>(context);
    PthreadLock lock(mutex_);
    int pause = 0;
    switch (command_) {
        case DC_None:
        case DC_Start:
            command_ = DC_None;
            return 0;
        case DC_Abort:
            QV_LOG(QV_LOG_NOTICE, "Aborting from progress function");
            return 1;
        case DC_Exit:
            return 1;
        case DC_Pause:
            // The command stays: every later tick pauses again and notifies with a null context.
            pause = CURLPAUSE_ALL;
            status_ = DS_Paused;
            break;
        case DC_Resume:
            pause = CURLPAUSE_CONT;
            status_ = DS_Downloading;
            break;
        default:
            return 0;
    }
    Pending pending = TakePending();
    lock.Unlock();
    // Outside the lock: unpausing may hand held data to the write callback at once, which takes
    // the lock itself.
    curl_easy_pause(download->curl, pause);
    Notify(pending);
    return 0;
}

size_t Downloader::WriteHeader(void* data, size_t size, size_t nmemb, void* downloader) {
    size_t length = size * nmemb;
    const char* line = static_cast<const char*>(data);
    auto* self = static_cast<Downloader*>(downloader);

    if (StartsWith(line, length, "content-length:", 15) && length >= 16) {
        // Up to the line's last byte, the line end.
        std::string digits(line + 15, length - 16);
        long number = std::strtol(digits.c_str(), nullptr, 10);
        PthreadLock lock(self->mutex_);
        // Every response sets it, redirects included: the last one wins.
        self->total_ = self->resume_from_ + number;
    }
    if (StartsWith(line, length, "content-disposition", 19) && length >= 20) {
        std::string name = FindFilename(std::string(line, length).c_str());
        if (!name.empty()) {
            PthreadLock lock(self->mutex_);
            self->header_filename_ = name;
        }
    }
    if (StartsWith(line, length, "content-type:", 13)) {
        std::string value(line + 13, length - 13);
        value = value.substr(0, value.find_first_of("\r\n"));
        size_t first = 0;
        while (first < value.size() && std::isspace(static_cast<unsigned char>(value[first])))
            ++first;
        if (first < value.size()) {
            PthreadLock lock(self->mutex_);
            self->content_type_ = value.substr(first);
        }
    }
    return length;
}

std::string Downloader::FindFilename(const char* header) {
    regex_t regex;
    if (::regcomp(&regex, kFilenamePattern, REG_EXTENDED | REG_ICASE) != 0) return {};
    regmatch_t matches[5];
    std::string name;
    if (::regexec(&regex, header, 5, matches, 0) == 0 && matches[1].rm_so >= 0) {
        name.assign(header + matches[1].rm_so,
                    static_cast<size_t>(matches[1].rm_eo - matches[1].rm_so));
    } else {
        // Unquoted names (filename=book.epub) take this road too.
        QV_LOG_ERROR("Failed to match filename in header");
    }
    ::regfree(&regex);
    return name;
}

}  // namespace utilities
}  // namespace quorvel
