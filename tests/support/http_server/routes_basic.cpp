// The basic routes: what the server received, statuses, bodies of any size, headers, redirects,
// cookies, and a stand-in forward proxy.
//
//   /echo                 any method: the request as received (see EchoText)
//   /status/N             status N, body "status N"
//   /bytes/N              N bytes of "abc...z" repeated, with a Content-Length; ?chunked=1 sends
//                         them chunked instead
//   /headers              a header sent twice and one with blanks around its value
//   /redirect/N           N > 0: 302 to /redirect/N-1 with "X-Hop: N"; 0: 200 "landed"
//   /cookies/set?n=v...   a Set-Cookie per parameter
//   /cookies              the Cookie header received, as the body
//   /_stats               "requests N": requests that reached a route so far
// A request in absolute form ("GET http://host/path"), as a client sends it to a proxy, is
// answered "proxied <target>" whatever its path.

#include <algorithm>
#include <cstring>
#include <string>

#include "routes.h"

namespace qvserver {
namespace {

constexpr size_t kChunk = 64 * 1024;
constexpr size_t kAlphabet = 26;

// Headers httplib adds to a request itself; not part of what the client sent.
bool IsServerAdded(const std::string& name) {
    return name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" ||
           name == "LOCAL_PORT";
}

// Line by line: "method M", "target T" (undecoded), "version V", "client-port P", one
// "header Name: value" per header, "body-length N", an empty line, then the body.
std::string EchoText(const httplib::Request& req, const std::string& body) {
    std::string text = "method " + req.method + "\n";
    text += "target " + req.target + "\n";
    text += "version " + req.version + "\n";
    text += "client-port " + std::to_string(req.remote_port) + "\n";
    for (const auto& [name, value] : req.headers) {
        if (!IsServerAdded(name)) text += "header " + name + ": " + value + "\n";
    }
    text += "body-length " + std::to_string(body.size()) + "\n\n";
    return text + body;
}

// The pattern of /bytes: byte i is 'a' + i % 26, whatever chunk it travels in.
const char* PatternFrom(size_t offset) {
    static const std::string pattern = [] {
        std::string text(kChunk + kAlphabet, '\0');
        for (size_t i = 0; i < text.size(); ++i)
            text[i] = static_cast<char>('a' + i % kAlphabet);
        return text;
    }();
    return pattern.data() + offset % kAlphabet;
}

void SendBytes(const httplib::Request& req, httplib::Response& res) {
    size_t total = std::stoull(req.matches[1]);
    if (total == 0) {  // a provider of nothing would never be asked, and the reply never end
        res.set_content("", "application/octet-stream");
        return;
    }
    if (req.has_param("chunked")) {
        auto sent = std::make_shared<size_t>(0);
        res.set_chunked_content_provider("application/octet-stream",
                                         [total, sent](size_t, httplib::DataSink& sink) {
                                             if (*sent == total) {
                                                 sink.done();
                                                 return true;
                                             }
                                             size_t n = std::min(kChunk, total - *sent);
                                             bool ok = sink.write(PatternFrom(*sent), n);
                                             *sent += n;
                                             return ok;
                                         });
        return;
    }
    res.set_content_provider(total, "application/octet-stream",
                             [](size_t offset, size_t length, httplib::DataSink& sink) {
                                 return sink.write(PatternFrom(offset), std::min(kChunk, length));
                             });
}

void SendHeaders(const httplib::Request&, httplib::Response& res) {
    res.headers.emplace("X-Twice", "first");
    res.headers.emplace("X-Twice", "second");
    res.headers.emplace("X-Padded", "  padded value  ");
    res.set_content("headers", "text/plain");
}

void Redirect(const httplib::Request& req, const std::string&, httplib::Response& res) {
    int hops = std::stoi(req.matches[1]);
    res.set_header("X-Hop", std::to_string(hops));
    if (hops == 0) {
        res.set_content("landed", "text/plain");
        return;
    }
    res.set_redirect("/redirect/" + std::to_string(hops - 1), 302);
    res.set_content("moving on", "text/plain");
}

void SetCookies(const httplib::Request& req, httplib::Response& res) {
    for (const auto& [name, value] : req.params)
        res.headers.emplace("Set-Cookie", name + "=" + value + "; Path=/");
    res.set_content("set", "text/plain");
}

// A forward proxy is sent the whole URL as the target.
bool AnswerAsProxy(const httplib::Request& req, httplib::Response& res) {
    if (req.target.rfind("http://", 0) != 0) return false;
    res.set_content("proxied " + req.target, "text/plain");
    return true;
}

void Install(httplib::Server& server, ServerState& state) {
    OnAnyMethod(server, "/echo",
                [](const httplib::Request& req, const std::string& body, httplib::Response& res) {
                    res.set_content(EchoText(req, body), "text/plain");
                });
    OnAnyMethod(server, R"(/status/(\d+))",
                [](const httplib::Request& req, const std::string&, httplib::Response& res) {
                    res.status = std::stoi(req.matches[1]);
                    res.set_content("status " + std::string(req.matches[1]), "text/plain");
                });
    server.Get(R"(/bytes/(\d+))", SendBytes);
    server.Get("/headers", SendHeaders);
    OnAnyMethod(server, R"(/redirect/(\d+))", Redirect);
    server.Get("/cookies/set", SetCookies);
    server.Get("/cookies", [](const httplib::Request& req, httplib::Response& res) {
        res.set_content(req.get_header_value("Cookie"), "text/plain");
    });
    server.Get("/_stats", [&state](const httplib::Request&, httplib::Response& res) {
        res.set_content("requests " + std::to_string(state.requests.load()), "text/plain");
    });
}

const bool registered = AddRoutes("basic", Install) && AddInterceptor(AnswerAsProxy);

}  // namespace
}  // namespace qvserver
