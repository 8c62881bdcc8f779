// HttpRequestRunner: one HttpRequest, synchronously, through libcurl's easy interface.
//
// The option sets below are applied in a fixed order and differ between the whole-body and the
// streaming transfer, and between methods of the streaming one. Servers and applications of the
// device were tuned against exactly these transfers, so a difference that looks accidental (a
// streaming "POST" collects no headers, a "PUT" speaks HTTP/1.0) is kept on purpose.

// The streaming "PUT" is set up with CURLOPT_PUT, which newer libcurl headers mark deprecated.
#define CURL_DISABLE_DEPRECATION

#include <curl/curl.h>

#include <cstring>
#include <sstream>

#include "common_utilities/http_request.h"
#include "common_utilities/http_response_body.h"

namespace quorvel {
namespace utilities {
namespace {

constexpr const char* kModule = "HttpRequest";
constexpr const char* kCaBundle = "/etc/ssl/certs/ca-certificates.crt";
// Connection bits of QueryNetwork.
constexpr int kNetworkConnectedMask = 0x0F00;
// Bodies and responses shorter than these go into the log whole.
constexpr size_t kLoggedBodyLimit = 10000;
constexpr size_t kLoggedResponseLimit = 10240;
// A transfer is abandoned when it moves fewer than kLowSpeedLimit bytes a second for
// kLowSpeedTime seconds; there is no other time limit.
constexpr long kLowSpeedTime = 160;
constexpr long kLowSpeedLimit = 30;
constexpr long kMaxRedirects = 10;

#define HTTP_LOG(level, fmt, ...) QV_LOG_MODULE(level, kModule, fmt, ##__VA_ARGS__)

bool NetworkIsUp() {
    if (QueryNetwork() & kNetworkConnectedMask) return true;
    HTTP_LOG(QV_LOG_WARNING, "Can't perform request without network connection");
    return false;
}

// The writer of PrepareRequest: appends to a std::vector<char>.
size_t AppendToVector(char* data, size_t size, size_t nmemb, void* user) {
    size_t count = size * nmemb;
    return ResponseBody::AppendTo(static_cast<std::vector<char>*>(user), data, count) ? count : 0;
}

// Applies options in order, stopping at the first that fails; that one is logged, and the
// transfer is then not to be run.
class Options {
public:
    explicit Options(CURL* curl) : curl_(curl) {}

    Options& Long(CURLoption option, long value) { return Apply(option, value); }
    Options& Text(CURLoption option, const char* value) { return Apply(option, value); }
    Options& Pointer(CURLoption option, void* value) { return Apply(option, value); }
    Options& Callback(CURLoption option, curl_write_callback value) { return Apply(option, value); }
    Options& Slist(CURLoption option, curl_slist* value) { return Apply(option, value); }
    // A file or cookie path, or null (the cookie engine off) when empty.
    Options& Path(CURLoption option, const std::string& path) {
        return Text(option, path.empty() ? nullptr : path.c_str());
    }

    bool ok() const { return ok_; }

private:
    template <typename T>
    Options& Apply(CURLoption option, T value) {
        if (!ok_) return *this;
        CURLcode err = curl_easy_setopt(curl_, option, value);
        if (QV_CLEANUP_UNLESS_MODULE(kModule, 0 == err, "curl_easy_setopt failed with [%d]", err)) {
            ok_ = false;
        }
        return *this;
    }

    CURL* curl_;
    bool ok_ = true;
};

// Replaces the writer PrepareRequest set with one that appends the same bytes to the same vector
// and reserves the announced length.
bool CollectInto(CURL* curl, BodySink* sink) {
    return Options(curl)
        .Callback(CURLOPT_WRITEFUNCTION, BodySink::Write)
        .Pointer(CURLOPT_WRITEDATA, sink)
        .ok();
}

// The request's headers as a libcurl list; null when there are none or the list could not be
// made (`*failed` tells which).
curl_slist* HeaderList(const std::vector<std::string>& lines, bool* failed) {
    *failed = false;
    curl_slist* list = nullptr;
    for (const auto& line : lines) {
        curl_slist* longer = curl_slist_append(list, line.c_str());
        if (QV_CLEANUP_UNLESS_MODULE(kModule, longer, "curl_slist_append failed")) {
            curl_slist_free_all(list);
            *failed = true;
            return nullptr;
        }
        list = longer;
    }
    return list;
}

// The platform's proxy, when it has one. A proxy libcurl refuses is no reason to fail the request
// (the transfer then goes direct), so the result of this option is not looked at.
void ApplyProxy(CURL* curl) {
    char* proxy = get_proxy();
    if (!proxy) return;
    curl_easy_setopt(curl, CURLOPT_PROXY, proxy);
    clean_proxy_object(&proxy);
}

void ApplyRedirects(Options& options, bool follow) {
    if (follow) {
        options.Long(CURLOPT_FOLLOWLOCATION, 1L).Long(CURLOPT_MAXREDIRS, kMaxRedirects);
    } else {
        options.Long(CURLOPT_MAXREDIRS, 0L);
    }
}

void ApplyPostBody(Options& options, const std::string& body) {
    options.Pointer(CURLOPT_POSTFIELDS, const_cast<char*>(body.c_str()))
        .Long(CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
}

// The method block of PrepareRequest.
void ApplyMethod(Options& options, const HttpRequest& request,
                 HttpRequestRunner::CurlAdditionalInfo* info) {
    const std::string& method = request.method();
    if (method == "GET") {
        options.Long(CURLOPT_POST, 0L).Text(CURLOPT_CUSTOMREQUEST, nullptr);
        return;
    }
    if (method == "POST") {
        options.Text(CURLOPT_CUSTOMREQUEST, nullptr).Long(CURLOPT_POST, 1L);
        info->post_data = request.GetPostQuery();
        if (info->post_data.size() < kLoggedBodyLimit) {
            HTTP_LOG(QV_LOG_INFO, "Post data is [%s]", info->post_data.c_str());
        }
        ApplyPostBody(options, info->post_data);
        return;
    }
    info->post_data = request.GetPostQuery();
    if (!info->post_data.empty()) {
        options.Long(CURLOPT_POST, 1L);
        if (info->post_data.size() < kLoggedBodyLimit) {
            HTTP_LOG(QV_LOG_INFO, "request data is [%s]", info->post_data.c_str());
        }
        ApplyPostBody(options, info->post_data);
    }
    options.Text(CURLOPT_CUSTOMREQUEST, method.c_str());
    HTTP_LOG(QV_LOG_INFO, "Custom request method = [%s]", method.c_str());
}

// The method blocks of the streaming transfer; each method gets its own set, and a method that
// is none of the three gets none.
void ApplyStreamingMethod(Options& options, const HttpRequest& request, std::string* body,
                          HttpRequestRunner::HeaderRecords* headers,
                          HttpRequestRunner::BodyHandler* read,
                          HttpRequestRunner::BodyHandler* write) {
    const std::string& method = request.method();
    if (method == "POST") {
        *body = request.GetPostQuery();
        options.Long(CURLOPT_POST, 1L);
        ApplyPostBody(options, *body);
        options.Callback(CURLOPT_WRITEFUNCTION, HttpRequestRunner::data_cb)
            .Pointer(CURLOPT_WRITEDATA, write)
            .Long(CURLOPT_TCP_KEEPALIVE, 1L);
    }
    if (method == "PUT") {
        options.Long(CURLOPT_PUT, 1L)
            .Callback(CURLOPT_READFUNCTION, HttpRequestRunner::data_cb)
            .Pointer(CURLOPT_READDATA, read)
            .Callback(CURLOPT_HEADERFUNCTION, HttpRequestRunner::write_header)
            .Pointer(CURLOPT_HEADERDATA, headers)
            .Callback(CURLOPT_WRITEFUNCTION, HttpRequestRunner::data_cb)
            .Pointer(CURLOPT_WRITEDATA, write)
            .Long(CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_1_0);
    }
    if (method == "GET") {
        options.Callback(CURLOPT_WRITEFUNCTION, AppendToVector)
            .Long(CURLOPT_NOSIGNAL, 1L)
            .Long(CURLOPT_LOW_SPEED_TIME, kLowSpeedTime)
            .Long(CURLOPT_LOW_SPEED_LIMIT, kLowSpeedLimit)
            .Text(CURLOPT_CAINFO, kCaBundle)
            .Callback(CURLOPT_HEADERFUNCTION, HttpRequestRunner::write_header)
            .Pointer(CURLOPT_HEADERDATA, headers)
            .Callback(CURLOPT_WRITEFUNCTION, HttpRequestRunner::data_cb)
            .Pointer(CURLOPT_WRITEDATA, write)
            .Long(CURLOPT_TCP_KEEPALIVE, 1L);
    }
}

// Runs a prepared transfer and reads its status; both failures logged. 0 or -1.
int PerformAndReadStatus(CURL* curl, const std::string& url, long* http_code) {
    {
        CURLcode err = curl_easy_perform(curl);
        if (QV_CLEANUP_UNLESS_MODULE(kModule, 0 == err, "curl_easy_perform failed with [%d]",
                                     err)) {
            return -1;
        }
    }
    {
        CURLcode err = curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, http_code);
        if (QV_CLEANUP_UNLESS_MODULE(kModule, 0 == err, "curl_easy_getinfo failed with [%d]",
                                     err)) {
            return -1;
        }
    }
    HTTP_LOG(QV_LOG_NOTICE, "request to [%s] finished with %d", url.c_str(),
             static_cast<int>(*http_code));
    return 0;
}

}  // namespace

HttpRequestRunner::HttpRequestRunner(bool keep_handle) : keep_handle_(keep_handle) {}

HttpRequestRunner::~HttpRequestRunner() {
    if (curl_) curl_easy_cleanup(curl_);
}

void HttpRequestRunner::ForbidRedirect() {
    follow_redirects_ = false;
}

void HttpRequestRunner::SetBodyReserveLimit(size_t bytes) {
    body_reserve_limit_ = bytes;
}

CURL* HttpRequestRunner::AcquireHandle() {
    if (!keep_handle_) return curl_easy_init();
    if (curl_) {
        curl_easy_reset(curl_);
    } else {
        curl_ = curl_easy_init();
    }
    return curl_;
}

void HttpRequestRunner::ReleaseHandle(CURL* curl, const HttpRequest& request) {
    if (!keep_handle_) {
        curl_easy_cleanup(curl);  // which also writes the cookie file
        return;
    }
    if (request.cookie_file().empty()) return;
    // A kept handle would write its cookies only when the runner ends, and libcurl's reset
    // forgets to free the list of cookie files it was given. Writing the cookies now and letting
    // go of the list keeps the file as current as with a handle per call; the next request
    // reads them back from it.
    curl_easy_setopt(curl, CURLOPT_COOKIELIST, "FLUSH");
    curl_easy_setopt(curl, CURLOPT_COOKIEFILE, nullptr);
}

int HttpRequestRunner::PrepareRequest(const HttpRequest& request, CURL* curl,
                                      std::vector<char>* response, CurlAdditionalInfo* info) {
    if (!NetworkIsUp()) return -1;
    const std::string url = request.encoded_url();
    HTTP_LOG(QV_LOG_NOTICE, "Requesting url [%s]", url.c_str());

    Options options(curl);
    options.Text(CURLOPT_URL, url.c_str())
        .Path(CURLOPT_COOKIEFILE, request.cookie_file())
        .Path(CURLOPT_COOKIEJAR, request.cookie_file());
    if (!options.ok()) return -1;
    ApplyMethod(options, request, info);
    options.Callback(CURLOPT_WRITEFUNCTION, AppendToVector)
        .Pointer(CURLOPT_WRITEDATA, response)
        .Long(CURLOPT_NOSIGNAL, 1L)
        .Long(CURLOPT_LOW_SPEED_TIME, kLowSpeedTime)
        .Long(CURLOPT_LOW_SPEED_LIMIT, kLowSpeedLimit)
        .Text(CURLOPT_CAINFO, kCaBundle);
    if (request.skip_ssl_check_) {
        options.Long(CURLOPT_SSL_VERIFYPEER, 0L).Long(CURLOPT_SSL_VERIFYHOST, 0L);
    }
    if (!options.ok()) return -1;
    ApplyProxy(curl);

    bool list_failed = false;
    curl_slist* headers = HeaderList(request.GetHeaders(), &list_failed);
    if (list_failed) return -1;
    if (headers) options.Slist(CURLOPT_HTTPHEADER, headers);
    ApplyRedirects(options, follow_redirects_);
    if (!options.ok()) {
        curl_slist_free_all(headers);
        return -1;
    }
    info->headers = headers;
    return 0;
}

int HttpRequestRunner::PerformRequest(const HttpRequest& request, long* http_code,
                                      std::vector<char>* response) {
    CurlAdditionalInfo info;
    const std::string url = request.encoded_url();
    if (!NetworkIsUp()) return -1;
    CURL* curl = AcquireHandle();
    if (QV_CLEANUP_UNLESS_MODULE(kModule, curl, "")) return -1;

    int result = -1;
    BodySink sink{curl, ResponseBody(response, body_reserve_limit_)};
    int err = PrepareRequest(request, curl, response, &info);
    if (!QV_CLEANUP_UNLESS_MODULE(kModule, 0 == err, "PrepareRequest failed with [%d]", err) &&
        CollectInto(curl, &sink) && PerformAndReadStatus(curl, url, http_code) == 0 &&
        !QV_CLEANUP_UNLESS_MODULE(kModule, sink.body.Append("", 1), "out of memory")) {
        if (response->size() < kLoggedResponseLimit) {
            HTTP_LOG(QV_LOG_INFO, "Request returns data [%s]", response->data());
        }
        result = 0;
    }
    sink.body.Finish();
    ReleaseHandle(curl, request);
    curl_slist_free_all(info.headers);
    return result;
}

int HttpRequestRunner::PerformRequest(const HttpRequest& request, long* http_code,
                                      HeaderRecords* headers, BodyHandler read, BodyHandler write) {
    QV_RETURN_IF(nullptr == headers, -1);
    const std::string url = request.encoded_url();
    const std::vector<std::string> header_lines = request.GetHeaders();
    headers->clear();
    if (!NetworkIsUp()) return -1;
    CURL* curl = AcquireHandle();
    if (QV_CLEANUP_UNLESS_MODULE(kModule, curl, "")) return -1;

    HTTP_LOG(QV_LOG_NOTICE, "Requesting url [%s]", url.c_str());
    std::string body;  // the streaming "POST" body, which CURLOPT_POSTFIELDS points into
    curl_slist* list = nullptr;
    char error_buffer[CURL_ERROR_SIZE] = {};
    int result = -1;

    Options options(curl);
    options.Text(CURLOPT_URL, url.c_str())
        .Text(CURLOPT_CUSTOMREQUEST, nullptr)
        .Long(CURLOPT_POST, 0L)
        .Long(CURLOPT_PUT, 0L)
        .Path(CURLOPT_COOKIEFILE, request.cookie_file())
        .Path(CURLOPT_COOKIEJAR, request.cookie_file());
    if (options.ok()) ApplyStreamingMethod(options, request, &body, headers, &read, &write);
    if (options.ok() && request.skip_ssl_check_) {
        options.Long(CURLOPT_SSL_VERIFYPEER, 0L).Long(CURLOPT_SSL_VERIFYHOST, 0L);
    }
    bool list_failed = false;
    if (options.ok()) {
        ApplyProxy(curl);
        list = HeaderList(header_lines, &list_failed);
    }
    if (options.ok() && !list_failed) {
        if (list) options.Slist(CURLOPT_HTTPHEADER, list);
        ApplyRedirects(options, follow_redirects_);
    }
    if (options.ok() && !list_failed) {
        // libcurl fills it on failure; the failure is logged with its code instead.
        curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error_buffer);
        result = PerformAndReadStatus(curl, url, http_code);
        // The buffer dies with this call; a kept handle must not write into it later.
        curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, nullptr);
    }
    ReleaseHandle(curl, request);
    if (list) curl_slist_free_all(list);
    return result;
}

size_t HttpRequestRunner::data_cb(char* data, size_t size, size_t nmemb, void* handler) {
    size_t count = size * nmemb;
    auto* body_handler = static_cast<BodyHandler*>(handler);
    if (!data || !body_handler || !*body_handler) return count;
    return (*body_handler)(static_cast<unsigned>(count), data);
}

size_t HttpRequestRunner::write_header(char* data, size_t size, size_t nmemb, void* records) {
    size_t count = size * nmemb;
    if (!data || !records) return count;
    auto* out = static_cast<HeaderRecords*>(records);
    std::istringstream lines(std::string(data, count));
    std::string line;
    while (std::getline(lines, line)) {
        size_t colon = line.find(':');
        if (colon == std::string::npos) {
            (*out)[line] = line;
        } else {
            (*out)[line.substr(0, colon)] = line.substr(colon + 1);
        }
    }
    return count;
}

}  // namespace utilities
}  // namespace quorvel
