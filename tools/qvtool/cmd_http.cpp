// qvtool http METHOD URL: one request through the library's request runner, as an application
// would send it; the status, the response headers (streaming) and the body.

#include <curl/curl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "cli.h"
#include "common_utilities/http_request.h"
#include "failure_reason.h"
#include "moorglass.h"
#include "moorglass_host.h"
#include "progress.h"

namespace qvtool {
namespace {

using quorvel::utilities::HttpRequest;
using quorvel::utilities::HttpRequestRunner;

constexpr long kFirstErrorStatus = 400;

struct HttpOptions {
    std::string method;
    std::string url;
    std::vector<std::string> headers;
    std::optional<std::string> data;
    std::vector<std::string> form;
    std::optional<std::string> output;
    std::optional<std::string> cookies;
    bool stream = false;
    bool no_redirect = false;
    bool insecure = false;
    bool fail = false;
};

// The library reports a failed transfer only in its log; the last error line tells why.
constexpr const char* kRunnerCurlCode = R"(curl_easy_\w+ failed with \[(\d+)\])";

HttpOptions ReadOptions(Args& args) {
    HttpOptions options;
    options.headers = args.Options("-H");
    options.data = args.Option("-d");
    options.form = args.Options("--form");
    options.output = args.Option("-o");
    options.cookies = args.Option("--cookies");
    options.stream = args.Flag("--stream");
    options.no_redirect = args.Flag("--no-redirect");
    options.insecure = args.Flag("--insecure");
    options.fail = args.Flag("--fail");
    options.method = args.Next("METHOD");
    options.url = args.Next("URL");
    args.Done();
    if (options.data && !options.form.empty()) {
        throw Failure(kUsage, "-d and --form exclude each other (a raw body replaces the form)");
    }
    if (options.method == "GET" && (options.data || !options.form.empty())) {
        throw Failure(kUsage, "a GET sends no body; put parameters into the URL");
    }
    return options;
}

// "@FILE" reads a file, "@-" standard input, anything else is the data itself.
std::string BodyText(const std::string& data) {
    if (data.rfind('@', 0) != 0) return data;
    std::string source = data.substr(1);
    return source == "-" ? ReadAllInput() : ReadFileOrFail(source);
}

void AddHeader(HttpRequest& request, const std::string& line) {
    size_t colon = line.find(':');
    if (colon == std::string::npos || colon == 0) {
        throw Failure(kUsage, "a header is 'Name: value', not '" + line + "'");
    }
    size_t value = line.find_first_not_of(' ', colon + 1);
    request.AddHeader(line.substr(0, colon),
                      value == std::string::npos ? std::string() : line.substr(value));
}

void AddFormField(HttpRequest& request, const std::string& field) {
    size_t eq = field.find('=');
    if (eq == std::string::npos) {
        throw Failure(kUsage, "a form field is name=value, not '" + field + "'");
    }
    request.AddPostParam(field.substr(0, eq), field.substr(eq + 1));
}

HttpRequest BuildRequest(const HttpOptions& options, std::string* body) {
    HttpRequest request(options.method, options.url);
    for (const auto& header : options.headers)
        AddHeader(request, header);
    if (options.data) {
        *body = BodyText(*options.data);
        request.AddPostData(*body);
    }
    for (const auto& field : options.form)
        AddFormField(request, field);
    if (options.cookies) request.EnableCookie(true, *options.cookies);
    request.skip_ssl_check_ = options.insecure;
    return request;
}

// Where the body goes: standard output or the -o file.
class BodySink {
public:
    explicit BodySink(const std::optional<std::string>& path) {
        if (!path) return;
        file_ = std::make_unique<std::ofstream>(*path, std::ios::binary | std::ios::trunc);
        if (!*file_) throw Failure(kFailed, "can't write " + *path);
        progress_ = std::make_unique<Progress>("download", 0, Progress::Unit::kBytes);
    }

    bool Write(const char* data, size_t length) {
        std::ostream& out = file_ ? *file_ : std::cout;
        out.write(data, static_cast<std::streamsize>(length));
        if (!file_) out.flush();  // the body as it arrives
        if (length > 0) last_ = data[length - 1];
        written_ += length;
        if (progress_) progress_->Update(written_);
        return static_cast<bool>(out);
    }
    void SetTotal(uint64_t total) {
        if (progress_) progress_->SetTotal(total);
    }
    void Finish() {
        if (progress_) progress_->Finish();
        if (file_) file_->flush();
        // On a terminal the next prompt or status line starts on a line of its own; into a pipe
        // or a file the body goes byte for byte.
        if (!file_ && written_ > 0 && last_ != '\n' && ::isatty(STDOUT_FILENO)) std::cout << '\n';
        std::cout.flush();
    }

private:
    std::unique_ptr<std::ofstream> file_;
    std::unique_ptr<Progress> progress_;
    uint64_t written_ = 0;
    char last_ = '\n';
};

// The collected header lines, for people: status lines first, then the rest by name, each once,
// without the carriage returns the library keeps.
void PrintHeaders(const HttpRequestRunner::HeaderRecords& records, std::ostream& out) {
    auto strip = [](std::string text) {
        while (!text.empty() && (text.back() == '\r' || text.back() == '\n'))
            text.pop_back();
        return text;
    };
    std::set<std::string> status_lines;
    std::set<std::string> fields;
    for (const auto& [name, value] : records) {
        std::string line = strip(name == value ? name : name + ":" + value);
        if (line.empty()) continue;
        (name == value ? status_lines : fields).insert(line);
    }
    for (const auto& line : status_lines)
        out << line << '\n';
    for (const auto& line : fields)
        out << line << '\n';
}

uint64_t ContentLength(const HttpRequestRunner::HeaderRecords& records) {
    for (const char* name : {"Content-Length", "content-length"}) {
        auto it = records.find(name);
        if (it != records.end()) return std::strtoull(it->second.c_str(), nullptr, 10);
    }
    return 0;
}

long RunWholeBody(HttpRequestRunner& runner, const HttpRequest& request,
                  const HttpOptions& options) {
    long status = 0;
    std::vector<char> response;
    FailureReason reason(kRunnerCurlCode);
    if (runner.PerformRequest(request, &status, &response) != 0) {
        throw Failure(kFailed, "request failed: " + reason.Describe());
    }
    std::cerr << "status " << status << '\n';
    BodySink sink(options.output);
    sink.Write(response.data(), response.size() - 1);  // without the terminator
    sink.Finish();
    return status;
}

long RunStreaming(HttpRequestRunner& runner, HttpRequest& request, const HttpOptions& options,
                  const std::string& body) {
    if (request.method() != "GET" && request.method() != "POST" && request.method() != "PUT") {
        std::cerr << "qvtool: http: note: a streaming " << request.method()
                  << " goes out as a plain GET, its body straight to standard output\n";
    }
    // libcurl sends a body of unknown length over HTTP/1.0 only in chunks.
    if (request.method() == "PUT" && !request.headers().count("Transfer-Encoding")) {
        request.AddHeader("Transfer-Encoding", "chunked");
    }
    size_t sent = 0;
    auto read = [&body, &sent](unsigned length, char* data) -> unsigned {
        size_t n = std::min<size_t>(length, body.size() - sent);
        body.copy(data, n, sent);
        sent += n;
        return static_cast<unsigned>(n);
    };
    HttpRequestRunner::HeaderRecords headers;
    BodySink sink(options.output);
    bool first = true;
    auto write = [&](unsigned length, char* data) -> unsigned {
        if (first) sink.SetTotal(ContentLength(headers));
        first = false;
        return sink.Write(data, length) ? length : 0;
    };
    long status = 0;
    FailureReason reason(kRunnerCurlCode);
    if (runner.PerformRequest(request, &status, &headers, read, write) != 0) {
        throw Failure(kFailed, "request failed: " + reason.Describe());
    }
    sink.Finish();
    // The status and headers are complete only now, after the body.
    std::cerr << "status " << status << '\n';
    PrintHeaders(headers, std::cerr);
    return status;
}

int RunHttp(Args& args) {
    HttpOptions options = ReadOptions(args);
    std::string body;
    HttpRequest request = BuildRequest(options, &body);
    if (!(QueryNetwork() & NET_QUERY_CONNECTED_MASK)) {
        throw Failure(kUnavailable, "the network is down; no request was sent");
    }
    HttpRequestRunner runner;
    if (options.no_redirect) runner.ForbidRedirect();
    long status = options.stream ? RunStreaming(runner, request, options, body)
                                 : RunWholeBody(runner, request, options);
    if (options.fail && status >= kFirstErrorStatus) {
        throw Failure(kFailed, "the server answered " + std::to_string(status));
    }
    return kOk;
}

const bool registered = Register(
    {"http", "send an HTTP request through the library's runner",
     "usage: qvtool http [OPTIONS] METHOD URL\n"
     "Sends one request as an application of the device does (HttpRequest and\n"
     "HttpRequestRunner). The body goes to standard output; \"status N\" (and with --stream\n"
     "the response headers) to standard error. Any HTTP status is a success; a transfer\n"
     "that fails exits 1, a network that is down exits 4.\n"
     "  -H 'Name: value'   a request header (repeatable; one value per name, the last)\n"
     "  -d DATA            the raw body (@FILE reads a file, @- standard input)\n"
     "  --form name=value  a form field, sent escaped (repeatable); not with -d\n"
     "  --stream           the streaming transfer: the body as it arrives, then the status\n"
     "                     and the response headers collected (by a GET or a PUT; a POST\n"
     "                     collects none). A PUT sends -d in chunks over HTTP/1.0; any other\n"
     "                     method goes out as a plain GET\n"
     "  -o FILE            write the body to FILE, with a progress line\n"
     "  --no-redirect      report a redirect (3xx) instead of following it\n"
     "  --insecure         don't verify the server's TLS certificate\n"
     "  --cookies FILE     read cookies from FILE and save the server's into it\n"
     "  --fail             exit 1 when the status is 400 or above\n",
     RunHttp});

}  // namespace
}  // namespace qvtool
