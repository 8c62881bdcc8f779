// HttpRequestMultiRunner: libcurl's multi interface driven by the event loop's hard timer and by
// the platform's sleep. Everything runs on the application's UI thread; there is no lock.

#include "common_utilities/http_request_multi_runner.h"

#include <curl/curl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

namespace quorvel {
namespace utilities {
namespace {

constexpr const char* kModule = "MultiRunnerHttp";
constexpr const char* kTimerName = "curl_multi";
// Bodies shorter than this get a terminator and go into the log whole.
constexpr size_t kLoggedBodyLimit = 10240;
// libcurl's read buffer for each running transfer. Six times its default: a large body then
// costs a sixth of the reads, writer calls and wake-ups (a seventh less processor time for
// 20 bodies of 10 MB). The buffer lives only as long as its transfer, and a small answer touches
// only its first page, so even hundreds of small requests hardly use more memory.
constexpr long kReadBufferBytes = 96L << 10;
// The longest the sleep hook waits between two looks at the transfers.
constexpr long kLongestWaitMs = 50;

#define MR_LOG(level, fmt, ...) QV_LOG_MODULE(level, kModule, fmt, ##__VA_ARGS__)

using Clock = std::chrono::steady_clock;

// The timer fires when libcurl next asks for a call of its own (a speed check, a connect limit),
// so between two such calls it is the sleep hook that keeps transfers moving. libcurl's -1 means
// it has no time-out at all; the timer then looks again soon, or a batch driven by the loop alone
// would never finish.
int TimerDelay(long timeout_ms) {
    return static_cast<int>(timeout_ms < 0 ? kLongestWaitMs : timeout_ms);
}

// Hands the body to `sink` in place of the plain appender the request was prepared with; the same
// bytes reach the same vector. 0, or the libcurl code of the option refused.
int CollectInto(CURL* curl, BodySink* sink) {
    sink->curl = curl;
    CURLcode err = curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, BodySink::Write);
    if (err == CURLE_OK) err = curl_easy_setopt(curl, CURLOPT_WRITEDATA, sink);
    if (err == CURLE_OK) err = curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, kReadBufferBytes);
    return static_cast<int>(err);
}

}  // namespace

HttpRequestMultiRunner::HandleInfo::HandleInfo(const HttpRequest& request, Callback callback)
    : request(request),
      callback(std::move(callback)),
      sink{nullptr, ResponseBody(&response, HttpRequestRunner::kDefaultBodyReserveLimit)} {}

HttpRequestMultiRunner::HandleInfo::~HandleInfo() {
    curl_slist_free_all(info.headers);
}

HttpRequestMultiRunner& HttpRequestMultiRunner::instance() {
    static HttpRequestMultiRunner runner;
    return runner;
}

HttpRequestMultiRunner::HttpRequestMultiRunner() : multi_(curl_multi_init()) {
    set_usleep_func(UsleepHandler);
}

// The platform's sleep and the timer must not reach a runner that is gone, and transfers still
// running are ended so that their handles and sockets don't outlive it.
HttpRequestMultiRunner::~HttpRequestMultiRunner() {
    set_usleep_func(nullptr);
    ClearTimerEx(timerHandler, this);
    for (const auto& entry : handles_info_) {
        curl_multi_remove_handle(multi_, entry.first);
        curl_easy_cleanup(entry.first);
    }
    handles_info_.clear();
    curl_multi_cleanup(multi_);
}

int HttpRequestMultiRunner::PerformRequest(const HttpRequest& request, Callback callback) {
    CURL* curl = curl_easy_init();
    auto handle_info = std::make_shared<HandleInfo>(request, std::move(callback));
    if (QV_CLEANUP_UNLESS_MODULE(kModule, curl, "")) return -1;
    int err = runner_.PrepareRequest(request, curl, &handle_info->response, &handle_info->info);
    if (err == 0) err = CollectInto(curl, &handle_info->sink);
    if (QV_CLEANUP_UNLESS_MODULE(kModule, 0 == err, "PrepareRequest failed with [%d]", err)) {
        curl_easy_cleanup(curl);
        return -1;
    }
    err = curl_multi_add_handle(multi_, curl);
    if (QV_CLEANUP_UNLESS_MODULE(kModule, CURLM_OK == err, "PrepareRequest failed with [%d]", err)) {
        curl_easy_cleanup(curl);
        return -1;
    }
    handles_info_[curl] = std::move(handle_info);
    DriveAndRearm();
    return QV_OK;
}

void HttpRequestMultiRunner::DriveAndRearm() {
    if (processTransfers() > 0) setProcessTimer();
}

int HttpRequestMultiRunner::processTransfers() {
    MR_LOG(QV_LOG_TRACE, "enter process transfer");
    int running = 0;
    curl_multi_perform(multi_, &running);
    MR_LOG(QV_LOG_TRACE, "curl_multi_perform running %d handles", running);
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi_, &queued)) {
        if (message->msg == CURLMSG_DONE) processFinishedTransfer(message);
    }
    MR_LOG(QV_LOG_TRACE, "finish process transfer");
    return running;
}

int HttpRequestMultiRunner::processFinishedTransfer(CURLMsg* message) {
    CURL* curl = message->easy_handle;
    if (!handles_info_.count(curl)) {
        MR_LOG(QV_LOG_ERROR, "Condition: \"!handles_info_.count(curl)\", return(\"QV_FAILED\")]"
                             "Unknown handler");
        return QV_FAILED;
    }
    // Held here: the callback may start transfers, which change the map.
    std::shared_ptr<HandleInfo> handle_info = handles_info_[curl];
    CURLcode result = message->data.result;
    long http_code = 0;
    int err = curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &http_code);
    int rc = 0;
    if (QV_CLEANUP_UNLESS_MODULE(kModule, 0 == err, "curl_easy_getinfo failed with [%d]", err)) {
        rc = -1;
    } else {
        MR_LOG(QV_LOG_NOTICE, "request to [%s] finished with %d (curl code = %d)",
               handle_info->request.encoded_url().c_str(), static_cast<int>(http_code),
               static_cast<int>(result));
        std::vector<char>& body = handle_info->response;
        if (body.size() < kLoggedBodyLimit) {
            body.push_back('\0');
            QV_LOG_MODULE(QV_LOG_INFO, "HttpRequest", "Request returns data [%s]", body.data());
        }
        handle_info->sink.body.Finish();
        handle_info->callback(result, http_code, body);
    }
    curl_multi_remove_handle(multi_, curl);
    curl_easy_cleanup(curl);
    handles_info_.erase(curl);
    return rc;
}

void HttpRequestMultiRunner::setProcessTimer() {
    long timeout = -1;
    if (curl_multi_timeout(multi_, &timeout) != CURLM_OK) return;
    SetHardTimerEx(kTimerName, timerHandler, this, TimerDelay(timeout));
}

void HttpRequestMultiRunner::timerHandler(void* self) {
    static_cast<HttpRequestMultiRunner*>(self)->DriveAndRearm();
}

int HttpRequestMultiRunner::UsleepHandler(unsigned int microseconds) {
    MR_LOG(QV_LOG_TRACE, "Enter UsleepHandler with %d ms", static_cast<int>(microseconds / 1000));
    const Clock::time_point deadline = Clock::now() + std::chrono::microseconds(microseconds);
    HttpRequestMultiRunner& self = instance();
    int numfds = 0;
    do {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        long remaining = std::max<long>(0, static_cast<long>(left.count()));
        long timeout = -1;
        long wait = remaining;
        if (curl_multi_timeout(self.multi_, &timeout) == CURLM_OK)
            wait = std::min(remaining, std::max(kLongestWaitMs, timeout));
        MR_LOG(QV_LOG_TRACE, "curl_multi_wait for %d ms", static_cast<int>(wait));
        curl_multi_wait(self.multi_, nullptr, 0, static_cast<int>(wait), &numfds);
        if (self.processTransfers() == 0) {
            auto rest = std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now());
            if (rest.count() > 0) {
                MR_LOG(QV_LOG_TRACE, "just usleep for %d ms", static_cast<int>(rest.count()));
                ::usleep(static_cast<useconds_t>(rest.count()));
            }
        }
    } while (Clock::now() < deadline);
    MR_LOG(QV_LOG_TRACE, "Exit UsleepHandler");
    return numfds;
}

}  // namespace utilities
}  // namespace quorvel
