// Many HttpRequests at once on the application's thread, with no thread of its own.
//
// Transfers ride on libcurl's multi interface and are driven from three places, all on the
// application's UI thread: `PerformRequest` itself, a hard timer of the event loop ("curl_multi",
// armed from libcurl's own time-out), and the platform's sleep, which the runner replaces so that
// a UI thread sleeping inside the platform library keeps the transfers moving. Each request has
// its callback, called once when its transfer ends (a failed transfer too, with its curl code),
// on that same thread; a callback may start new requests.
//
// The process has one runner, made at first use and kept to the end of the process.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "common_utilities/http_request.h"
#include "common_utilities/http_response_body.h"

typedef void CURLM;
struct CURLMsg;

namespace quorvel {
namespace utilities {

class QV_EXPORT HttpRequestMultiRunner {
public:
    // (curl code, HTTP status or 0, body). The body is the runner's until the callback returns.
    using Callback = std::function<void(int curl_code, long http_code, std::vector<char>& body)>;

    struct HandleInfo {
        HandleInfo(const HttpRequest& request, Callback callback);
        ~HandleInfo();
        HandleInfo(const HandleInfo&) = delete;
        HandleInfo& operator=(const HandleInfo&) = delete;

        std::vector<char> response;
        HttpRequestRunner::CurlAdditionalInfo info;
        HttpRequest request;
        Callback callback;
        // The writer of `response`: a body of announced length is reserved once instead of
        // growing through doublings, each of which copies it and faults fresh pages.
        BodySink sink;
    };

    static HttpRequestMultiRunner& instance();
    ~HttpRequestMultiRunner();
    HttpRequestMultiRunner(const HttpRequestMultiRunner&) = delete;
    HttpRequestMultiRunner& operator=(const HttpRequestMultiRunner&) = delete;

    // Starts the transfer and returns at once: QV_OK, or -1 when it could not start (no network,
    // an option refused), in which case the callback is never called. A body shorter than
    // 10240 bytes reaches the callback with a zero byte appended; a longer one as it came.
    int PerformRequest(const HttpRequest& request, Callback callback);
    // Drives every transfer one step and finishes those that ended; the number still running.
    int processTransfers();
    // Ends one transfer: its callback, then its handle. 0, or -1 for a handle not known or a
    // status that can't be read (the callback is then not called).
    int processFinishedTransfer(CURLMsg* message);
    // Arms the hard timer from libcurl's time-out.
    void setProcessTimer();

    static void timerHandler(void* self);
    // The platform's sleep: sleeps the full time while driving the transfers, waking at least
    // every 50 ms and on socket activity.
    static int UsleepHandler(unsigned int microseconds);

private:
    HttpRequestMultiRunner();

    // processTransfers, then the timer when something still runs.
    void DriveAndRearm();

    CURLM* multi_ = nullptr;
    HttpRequestRunner runner_;
    // Running transfers. A finished one leaves once its callback has returned, and its body
    // with it: kept, every body ever received would stay in memory.
    std::map<CURL*, std::shared_ptr<HandleInfo>> handles_info_;
};

}  // namespace utilities
}  // namespace quorvel
