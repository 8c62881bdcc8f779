// Routes for downloads: generated files and the ways servers and networks let a download down.
//
//   /dl/file/<seed>/<size>   <size> bytes of the pattern of download_pattern.h, with a
//                            Content-Length; byte ranges answered with 206. Query parameters,
//                            in any combination:
//       drop=K               every response ends after at most K bytes of its body, the
//                            connection dropped (the client sees a partial file)
//       rate=B               a slow trickle: about B bytes a second
//       norange=1            a Range header is ignored: 200 and the whole body
//       hops=N               N redirects first, each a 302 with a body of its own and its length
//       disposition=TEXT     a Content-Disposition header with TEXT as its value
//       type=TEXT            the Content-Type (default application/octet-stream)
//   /_download_stats         "ranges N\nlast-range R\nserved B\n": requests that came with a Range
//                            header, the last such header, body bytes sent by this group
// A server "that is not there" is a closed port; a 404 with a body is /status/404.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "../download_pattern.h"
#include "routes.h"

namespace qvserver {
namespace {

constexpr size_t kChunk = 64 * 1024;
// A trickle sends this many pieces a second.
constexpr size_t kTricklePieces = 20;

struct DownloadStats {
    std::atomic<long> ranges{0};
    std::atomic<long long> served{0};
    std::mutex mutex;
    std::string last_range;
};

DownloadStats& Stats() {
    static DownloadStats stats;
    return stats;
}

struct FileOptions {
    uint64_t seed = 0;
    size_t size = 0;
    size_t drop = 0;  // 0: never
    size_t rate = 0;  // 0: as fast as it goes
    bool no_range = false;
};

size_t NumberParam(const httplib::Request& req, const char* name) {
    return req.has_param(name) ? std::stoull(req.get_param_value(name)) : 0;
}

void RecordRange(const httplib::Request& req) {
    if (!req.has_header("Range")) return;
    DownloadStats& stats = Stats();
    ++stats.ranges;
    std::lock_guard<std::mutex> lock(stats.mutex);
    stats.last_range = req.get_header_value("Range");
}

// The redirect that comes before the file: the same URL with one hop fewer.
void RedirectOnce(const httplib::Request& req, size_t hops, httplib::Response& res) {
    std::string target = req.path + "?";
    for (const auto& [name, value] : req.params) {
        if (name == "hops") continue;
        target += name + "=" + httplib::detail::encode_query_param(value) + "&";
    }
    target += "hops=" + std::to_string(hops - 1);
    res.set_redirect(target, 302);
    res.set_content("redirecting to the file", "text/plain");
}

// Writes the next piece of a response of which `sent` bytes went out already. The bytes written;
// 0 ends the response, which drops the connection before its length is reached.
size_t SendPiece(const FileOptions& options, const qvtest::PatternFile& pattern, size_t offset,
                 size_t length, size_t sent, httplib::DataSink& sink) {
    if (options.drop && sent >= options.drop) return 0;
    size_t n = std::min(length, kChunk);
    if (options.drop) n = std::min(n, options.drop - sent);
    if (options.rate) {
        n = std::min(n, std::max<size_t>(1, options.rate / kTricklePieces));
        std::this_thread::sleep_for(std::chrono::milliseconds(1000 / kTricklePieces));
    }
    std::string piece(n, '\0');
    pattern.Fill(offset, piece.data(), n);
    if (!sink.write(piece.data(), n)) return 0;
    Stats().served += static_cast<long long>(n);
    return n;
}

void SendFile(const httplib::Request& req, httplib::Response& res) {
    size_t hops = NumberParam(req, "hops");
    if (hops > 0) {
        RedirectOnce(req, hops, res);
        return;
    }
    FileOptions options;
    options.seed = std::stoull(req.matches[1]);
    options.size = std::stoull(req.matches[2]);
    options.drop = NumberParam(req, "drop");
    options.rate = NumberParam(req, "rate");
    options.no_range = req.has_param("norange");
    RecordRange(req);
    if (options.no_range) {
        // The library applies ranges by itself; a server that can't do them never sees any.
        const_cast<httplib::Request&>(req).ranges.clear();
    }
    if (req.has_param("disposition")) {
        res.set_header("Content-Disposition", req.get_param_value("disposition"));
    }
    std::string type =
        req.has_param("type") ? req.get_param_value("type") : "application/octet-stream";
    if (options.size == 0) {  // a provider of nothing would never be asked, and never end
        res.set_content("", type.c_str());
        return;
    }
    auto pattern = std::make_shared<qvtest::PatternFile>(options.seed);
    auto sent = std::make_shared<size_t>(0);
    res.set_content_provider(
        options.size, type.c_str(),
        [options, pattern, sent](size_t offset, size_t length, httplib::DataSink& sink) {
            size_t n = SendPiece(options, *pattern, offset, length, *sent, sink);
            *sent += n;
            return n > 0;
        });
}

void Install(httplib::Server& server, ServerState&) {
    server.Get(R"(/dl/file/(\d+)/(\d+))", SendFile);
    server.Get("/_download_stats", [](const httplib::Request&, httplib::Response& res) {
        DownloadStats& stats = Stats();
        std::lock_guard<std::mutex> lock(stats.mutex);
        res.set_content("ranges " + std::to_string(stats.ranges.load()) + "\nlast-range " +
                            stats.last_range + "\nserved " + std::to_string(stats.served.load()) +
                            "\n",
                        "text/plain");
    });
}

const bool registered = AddRoutes("download", Install);

}  // namespace
}  // namespace qvserver
