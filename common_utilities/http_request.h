// HTTP requests: `Url`, the small URL splitter; `HttpRequest`, the passive description of one
// request; `HttpRequestRunner`, which runs a request synchronously through libcurl.
//
// The description and its runner keep several asymmetries that servers of the device depend on
// and that must not be evened out: `url()` escapes parameter names and `encoded_url()` (what is
// sent) does not; `SetUrl` drops every parameter added before it; the four-string constructor
// joins host, port and path with both separators whatever they hold; the streaming transfer sets
// different options for "GET", "POST" and "PUT". The comments at each member say what is kept.
//
// libcurl's own header is not needed to use this one: the handle and header-list types are
// declared as libcurl declares them.
#pragma once

#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "common_utilities/common_utilities.h"

struct curl_slist;
typedef void CURL;

namespace quorvel {
namespace utilities {

// Splits "scheme://authority/path?query". Not a general URL parser: the limits below are the
// behaviour that requests built from URLs have always had.
//  - `scheme` and `host` are folded to lower case with the C `tolower`; the rest is unchanged.
//  - User information stays in `host` ("User:pw@Host:80" gives "user:pw@host" and "80").
//  - `path` runs from the first "/" after the authority to the first "?"; a "#" is not looked
//    for, so a fragment stays in `path`, or in `query` when there is one.
//  - The authority ends only at a "/": "http://h?x=1" has the host "h?x=1".
class QV_EXPORT Url {
public:
    Url() = default;
    // Parses `url`; a text without "://" leaves what `Parse` says.
    explicit Url(std::string url);

    // 0, or -1 when the text holds no "://": `scheme` then holds the whole text in lower case and
    // every other field is empty. Every field is set afresh on each call.
    int Parse(const std::string& url);

    // The "name=value" pairs of a query, without percent-decoding, up to the first "#". The first
    // segment without "=" ends the parse: what came before it is kept, it and the rest are
    // dropped ("a=1&b&c=3" gives only a). A later duplicate replaces an earlier one.
    static std::map<std::string, std::string> ParseQuery(const std::string& query);

    std::string scheme;
    std::string host;
    std::string port;
    std::string path;
    std::string query;
};

class QV_EXPORT HttpRequest {
public:
    using Params = std::vector<std::pair<std::string, std::string>>;

    // Joins `host` ":" `port` "/" `path` into the base URL, both separators always written (an
    // empty port gives "host:/path", a path with its own "/" gives "host:80//path"). No scheme is
    // added and nothing is parsed: a caller that wants "https://" puts it into `host`.
    HttpRequest(const std::string& method, const std::string& host, const std::string& path,
                const std::string& port);
    // `SetUrl(url)`.
    HttpRequest(const std::string& method, const std::string& url);

    // Takes host, port and path from `url` and its query as GET parameters, sorted by name and
    // with duplicates gone (see Url::ParseQuery). Every GET and POST parameter added before is
    // dropped, also when `url` has no query. Values stay as the URL wrote them and are escaped
    // again on the way out, so a percent-encoded value is sent encoded twice.
    void SetUrl(const std::string& url);

    // Parameters are appended in order, duplicates allowed. Numbers are written as a default
    // text stream writes them: an int in decimal, a double with six significant digits.
    void AddGetParam(const std::string& name, const std::string& value);
    void AddGetParam(const std::string& name, int value);
    void AddGetParam(const std::string& name, double value);
    void AddPostParam(const std::string& name, const std::string& value);
    void AddPostParam(const std::string& name, int value);
    void AddPostParam(const std::string& name, double value);
    void addParam(const std::string& name, const std::string& value, bool get);

    // The raw body; when not empty it is sent instead of the POST parameters.
    void AddPostData(const std::string& data);
    // One value per name (a second call replaces the first); names are sent in byte order.
    void AddHeader(const std::string& name, const std::string& value);
    // Keeps "name=value" in the request's one cookie slot. No runner sends it: cookies reach the
    // wire only through the cookie file of EnableCookie.
    void SetCookie(const std::string& name, const std::string& value);
    // A cookie file read before and written after each transfer; disabled clears it.
    void EnableCookie(bool enable, const std::string& file);

    // "name: value" per header, in name order.
    std::vector<std::string> GetHeaders() const;
    // The body a runner posts: the raw body when set, else the POST parameters with names and
    // values escaped, else an empty text.
    std::string GetPostQuery() const;

    // The target with the GET parameters, names and values escaped. `raw_url_` is not looked at.
    std::string url() const;
    // The target that is sent: `raw_url_` when set; otherwise the GET parameters with only the
    // values escaped, names as they stand.
    std::string encoded_url() const;

    // Writes "name=value" pairs joined by "&", both escaped. A failed escape puts the stream in
    // its fail state, which silences the rest.
    static void buildQuery(std::stringstream* out, const Params& params);

    const std::string& method() const { return method_; }
    const std::string& host() const { return host_; }
    const std::string& path() const { return path_; }
    const std::string& port() const { return port_; }
    const std::string& base_url() const { return base_url_; }
    const std::string& cookie() const { return cookie_; }
    const std::map<std::string, std::string>& headers() const { return headers_; }
    const std::string& post_data() const { return post_data_; }
    const std::string& cookie_file() const { return cookie_file_; }
    const Params& get_params() const { return get_params_; }
    const Params& post_params() const { return post_params_; }

    // Set by applications directly.
    // Switches off TLS peer and host verification for this request.
    bool skip_ssl_check_ = false;
    // When not empty, sent as the whole target, base URL and GET parameters ignored.
    std::string raw_url_;

private:
    std::string method_;
    std::string host_;
    std::string path_;
    std::string port_;
    std::string base_url_;
    std::string cookie_;
    std::map<std::string, std::string> headers_;
    std::string post_data_;
    std::string cookie_file_;
    Params get_params_;
    Params post_params_;
};

// Runs an HttpRequest on the calling thread through libcurl's easy interface. One call is one
// attempt: nothing is retried, and an HTTP error status is a successful call whose status the
// caller reads. Every entry point first asks the platform whether the network is up and refuses
// to run without it.
//
// What a transfer gets (see PrepareRequest): the request's cookie file, TLS verified against
// "/etc/ssl/certs/ca-certificates.crt" unless the request skips the check, the platform's proxy,
// up to 10 redirects unless forbidden, and abandonment after 160 seconds below 30 bytes a second.
// There is no overall time-out and no user agent of the runner's own.
//
// A runner belongs to one thread at a time.
class QV_EXPORT HttpRequestRunner {
public:
    // What must outlive a prepared transfer: the header list (owned by whoever prepared it, freed
    // with curl_slist_free_all) and the body that CURLOPT_POSTFIELDS points into.
    struct CurlAdditionalInfo {
        curl_slist* headers = nullptr;
        std::string post_data;
    };
    // Response headers of a streaming transfer; see write_header for what a record holds.
    using HeaderRecords = std::unordered_map<std::string, std::string>;
    // (length, buffer) -> bytes handled. As a reader it fills the buffer with up to `length`
    // bytes; as a writer it takes `length` bytes from it. Handling fewer bytes than offered ends
    // a download with an error; a reader returning 0 ends the upload.
    using BodyHandler = std::function<unsigned(unsigned, char*)>;

    // With `keep_handle`, one libcurl handle (and with it libcurl's connection cache) lives from
    // the first transfer to the runner's end, and is reset for each request: sequential requests
    // to one server then reuse the connection. Without it each call makes and drops a handle.
    // Either way a request's cookie file holds its cookies when the call returns.
    explicit HttpRequestRunner(bool keep_handle = false);
    ~HttpRequestRunner();
    HttpRequestRunner(const HttpRequestRunner&) = delete;
    HttpRequestRunner& operator=(const HttpRequestRunner&) = delete;

    // From now on a redirect response is the result (the status is 3xx) rather than followed.
    void ForbidRedirect();

    // The whole-body transfer reserves room for the length a response announces, so that a large
    // body is not copied and faulted in again at every doubling of the vector. A length is a
    // claim of the server: above this many bytes (kDefaultBodyReserveLimit unless set) it is not
    // reserved, and the body grows as it arrives. A body is never refused for its size.
    static constexpr size_t kDefaultBodyReserveLimit = 256u << 20;
    void SetBodyReserveLimit(size_t bytes);

    // Applies the options of `request` to `curl`, body written to `response`. 0, or -1 when the
    // network is down or an option fails. On success `info->headers` holds the header list (or
    // null) and the caller frees it; on failure nothing is left to free.
    int PrepareRequest(const HttpRequest& request, CURL* curl, std::vector<char>* response,
                       CurlAdditionalInfo* info);

    // The whole body, appended to `response` behind what it holds, then a zero byte, so that the
    // size counts the terminator and the data reads as a C string. 0 for every HTTP status (read
    // `*http_code`), -1 on failure, when `*http_code` is not written and `response` keeps what
    // arrived, with no terminator. A body that does not fit in memory is such a failure.
    int PerformRequest(const HttpRequest& request, long* http_code, std::vector<char>* response);

    // Streaming: `write` receives the response body as it arrives, `read` supplies the body of a
    // "PUT", `*headers` collects the response headers. 0 or -1, as above.
    //
    // The methods are served differently, and callers depend on each difference:
    //  - "GET": body to `write`, headers collected, stall limits, CA bundle, signals off.
    //  - "POST": the body of GetPostQuery, response to `write`; no headers are collected.
    //  - "PUT": body from `read`, response to `write`, headers collected, spoken in HTTP/1.0.
    //    libcurl sends no body of unknown length over HTTP/1.0 unless the request carries
    //    "Transfer-Encoding: chunked"; without it the call fails.
    //  - anything else: libcurl's plain GET, with its default writer (standard output).
    int PerformRequest(const HttpRequest& request, long* http_code, HeaderRecords* headers,
                       BodyHandler read, BodyHandler write);

    // libcurl's read and write callback of the streaming transfer; `handler` is a BodyHandler.
    // With no data, no handler or an empty one it reports the whole buffer handled.
    static size_t data_cb(char* data, size_t size, size_t nmemb, void* handler);
    // libcurl's header callback; `records` is a HeaderRecords. Each line is stored by the text
    // before its first ":" with the text after it as value, untrimmed (a leading blank and the
    // trailing carriage return stay). A line with no ":" (a status line, the empty line closing
    // the headers) is stored under itself, so the status lines of every response of a redirect
    // chain are kept; a repeated header keeps its last value.
    static size_t write_header(char* data, size_t size, size_t nmemb, void* records);

private:
    CURL* AcquireHandle();
    void ReleaseHandle(CURL* curl, const HttpRequest& request);

    bool follow_redirects_ = true;
    bool keep_handle_ = false;
    CURL* curl_ = nullptr;
    size_t body_reserve_limit_ = kDefaultBodyReserveLimit;
};

}  // namespace utilities
}  // namespace quorvel
