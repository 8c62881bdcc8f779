// HttpRequestRunner against the loopback test server: what the server receives, what the caller
// gets back, and the lines the runner logs.

#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "child_process.h"
#include "common_utilities/http_request.h"
#include "log_capture.h"
#include "moorglass_host.h"
#include "mount_over.h"
#include "server_process.h"

namespace {

using quorvel::utilities::HttpRequest;
using quorvel::utilities::HttpRequestRunner;
using qvtest::ClosedPort;
using qvtest::HttpTestServer;
using qvtest::LogCapture;
using qvtest::PidLine;
using Records = HttpRequestRunner::HeaderRecords;

constexpr int kError = 1, kWarning = 2, kNotice = 3, kInfo = 4;
constexpr long kUntouched = -5;

struct Reply {
    int rc = -1;
    long code = kUntouched;
    std::vector<char> data;  // as the runner left it, terminator included

    // The body without the terminator the runner adds.
    std::string body() const {
        if (data.empty()) return {};
        return std::string(data.data(), data.size() - (data.back() == '\0' ? 1 : 0));
    }
};

Reply Perform(HttpRequestRunner& runner, const HttpRequest& request) {
    Reply reply;
    reply.rc = runner.PerformRequest(request, &reply.code, &reply.data);
    return reply;
}

Reply Perform(const HttpRequest& request) {
    HttpRequestRunner runner;
    return Perform(runner, request);
}

struct StreamReply {
    int rc = -1;
    long code = kUntouched;
    Records headers;
    std::string body;
    int writes = 0;
};

StreamReply Stream(HttpRequestRunner& runner, const HttpRequest& request,
                   HttpRequestRunner::BodyHandler read = {}) {
    StreamReply reply;
    reply.rc = runner.PerformRequest(request, &reply.code, &reply.headers, std::move(read),
                                     [&reply](unsigned length, char* data) {
                                         reply.body.append(data, length);
                                         ++reply.writes;
                                         return length;
                                     });
    return reply;
}

StreamReply Stream(const HttpRequest& request, HttpRequestRunner::BodyHandler read = {}) {
    HttpRequestRunner runner;
    return Stream(runner, request, std::move(read));
}

// One "key value" line of the echo route's answer; "<missing>" when absent.
std::string EchoField(const std::string& echo, const std::string& key) {
    std::istringstream lines(echo);
    std::string line;
    while (std::getline(lines, line) && !line.empty()) {
        if (line.rfind(key + " ", 0) == 0) return line.substr(key.size() + 1);
    }
    return "<missing>";
}

std::string EchoHeader(const std::string& echo, const std::string& name) {
    std::istringstream lines(echo);
    std::string line;
    std::string prefix = "header " + name + ": ";
    while (std::getline(lines, line) && !line.empty()) {
        if (line.rfind(prefix, 0) == 0) return line.substr(prefix.size());
    }
    return "<missing>";
}

std::string EchoBody(const std::string& echo) {
    size_t gap = echo.find("\n\n");
    return gap == std::string::npos ? "<missing>" : echo.substr(gap + 2);
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

bool PatternHolds(const std::string& body, size_t offset = 0) {
    for (size_t i = 0; i < body.size(); ++i) {
        if (body[i] != static_cast<char>('a' + (offset + i) % 26)) return false;
    }
    return true;
}

class HttpRunner : public ::testing::Test {
protected:
    HttpTestServer server_;
};

TEST_F(HttpRunner, MethodsAndBodiesReachTheServerAsDescribed) {
    LogCapture log;
    HttpRequest get("GET", server_.Url("/echo?b=2&a=x%2Fy"));
    get.AddGetParam("q", "a b&c");
    Reply reply = Perform(get);
    ASSERT_EQ(reply.rc, 0) << server_.Output();
    EXPECT_EQ(reply.code, 200);
    EXPECT_EQ(EchoField(reply.body(), "method"), "GET");
    EXPECT_EQ(EchoField(reply.body(), "target"), "/echo?a=x%252Fy&b=2&q=a%20b%26c");
    EXPECT_EQ(EchoHeader(reply.body(), "Content-Length"), "<missing>");

    HttpRequest form("POST", server_.Url("/echo"));
    form.AddPostParam("user name", "a&b");
    form.AddPostParam("n", 7);
    reply = Perform(form);
    EXPECT_EQ(EchoField(reply.body(), "method"), "POST");
    EXPECT_EQ(EchoHeader(reply.body(), "Content-Type"), "application/x-www-form-urlencoded");
    EXPECT_EQ(EchoBody(reply.body()), "user%20name=a%26b&n=7");
    EXPECT_TRUE(log.Has(kInfo, PidLine("Post data is [user%20name=a%26b&n=7]")));

    // The raw body wins over parameters and travels whole, zero bytes included.
    const std::string raw("{\"a\":1}\0tail", 12);
    form.AddPostData(raw);
    reply = Perform(form);
    EXPECT_EQ(EchoField(reply.body(), "body-length"), "12");
    EXPECT_EQ(EchoBody(reply.body()), raw);

    HttpRequest put("PUT", server_.Url("/echo"));
    put.AddPostData("replacement");
    reply = Perform(put);
    EXPECT_EQ(EchoField(reply.body(), "method"), "PUT");
    EXPECT_EQ(EchoBody(reply.body()), "replacement");
    EXPECT_TRUE(log.Has(kInfo, PidLine("request data is [replacement]")));
    EXPECT_TRUE(log.Has(kInfo, PidLine("Custom request method = [PUT]")));

    // No body: no POST, so nothing is sent but the method.
    reply = Perform(HttpRequest("DELETE", server_.Url("/echo")));
    EXPECT_EQ(EchoField(reply.body(), "method"), "DELETE");
    EXPECT_EQ(EchoHeader(reply.body(), "Content-Length"), "<missing>");
    EXPECT_TRUE(log.Has(kInfo, PidLine("Custom request method = [DELETE]")));

    HttpRequest patch("PATCH", server_.Url("/echo"));
    patch.AddPostParam("k", "v");
    reply = Perform(patch);
    EXPECT_EQ(EchoField(reply.body(), "method"), "PATCH");
    EXPECT_EQ(EchoBody(reply.body()), "k=v");

    // Methods are compared exactly: "get" is a custom method, which this server refuses.
    reply = Perform(HttpRequest("get", server_.Url("/echo")));
    EXPECT_EQ(reply.rc, 0);
    EXPECT_EQ(reply.code, 400);
    EXPECT_TRUE(log.Has(kInfo, PidLine("Custom request method = [get]")));
}

TEST_F(HttpRunner, HeadersAsSentAndTheCookieSlotNeverSent) {
    HttpRequest request("GET", server_.Url("/echo"));
    request.AddHeader("X-Token", "first");
    request.AddHeader("X-Token", "second");
    request.AddHeader("Accept", "text/plain");
    request.SetCookie("session", "secret");
    Reply reply = Perform(request);
    ASSERT_EQ(reply.rc, 0);
    EXPECT_EQ(EchoHeader(reply.body(), "X-Token"), "second");
    EXPECT_EQ(EchoHeader(reply.body(), "Accept"), "text/plain");
    EXPECT_EQ(EchoHeader(reply.body(), "Cookie"), "<missing>");
    // libcurl's own user agent is not replaced by one of the runner's.
    EXPECT_EQ(EchoHeader(reply.body(), "User-Agent"), "<missing>");
}

TEST_F(HttpRunner, StatusesAreSuccessesAndTheBodyIsTerminated) {
    LogCapture log;
    Reply reply = Perform(HttpRequest("GET", server_.Url("/status/404")));
    EXPECT_EQ(reply.rc, 0);
    EXPECT_EQ(reply.code, 404);
    EXPECT_EQ(reply.body(), "status 404");
    EXPECT_TRUE(log.Has(kNotice, PidLine("Requesting url [" + server_.Url("/status/404") + "]")));
    EXPECT_TRUE(log.Has(
        kNotice, PidLine("request to [" + server_.Url("/status/404") + "] finished with 404")));
    EXPECT_TRUE(log.Has(kInfo, PidLine("Request returns data [status 404]")));
    for (const auto& line : log.Lines())
        EXPECT_EQ(line.module, "HttpRequest") << line.message;

    reply = Perform(HttpRequest("GET", server_.Url("/bytes/0")));
    EXPECT_EQ(reply.rc, 0);
    EXPECT_EQ(reply.data, std::vector<char>{'\0'});

    // Data goes behind what the vector held.
    HttpRequestRunner runner;
    long code = kUntouched;
    std::vector<char> data{'>', '>'};
    ASSERT_EQ(runner.PerformRequest(HttpRequest("GET", server_.Url("/bytes/3")), &code, &data), 0);
    EXPECT_EQ(std::string(data.begin(), data.end()), std::string(">>abc\0", 6));
}

// A body with a length is reserved once, behind what the vector held and with room for the
// terminator; a body without one grows as it comes, through the sizes that get large pages. A
// length is only a claim: one that the body doesn't keep leaves no reservation behind, and one
// beyond any memory is not even tried.
TEST_F(HttpRunner, WholeBodiesArriveIntactAndAnnouncedLengthsAreNotTrusted) {
    HttpRequestRunner runner;
    long code = kUntouched;
    std::vector<char> data{'>', '>'};
    ASSERT_EQ(
        runner.PerformRequest(HttpRequest("GET", server_.Url("/bytes/3000000")), &code, &data), 0);
    ASSERT_EQ(data.size(), 3000003u);
    EXPECT_EQ(data.capacity(), data.size()) << "reserved once, terminator included";
    EXPECT_EQ(std::string(data.data(), 2), ">>");
    EXPECT_TRUE(PatternHolds(std::string(data.data() + 2, 3000000)));
    EXPECT_EQ(data.back(), '\0');

    for (const char* path : {"/bytes/40000000?chunked=1", "/bytes/40000000"}) {
        Reply reply = Perform(runner, HttpRequest("GET", server_.Url(path)));
        EXPECT_EQ(reply.rc, 0) << path;
        EXPECT_EQ(reply.data.size(), 40000001u) << path;
        EXPECT_TRUE(PatternHolds(reply.body())) << path;
    }

    for (const char* lie :
         {"/dl/file/3/50000000?drop=100000", "/dl/file/3/1099511627776?drop=100000"}) {
        Reply reply = Perform(runner, HttpRequest("GET", server_.Url(lie)));
        EXPECT_EQ(reply.rc, -1) << lie;
        EXPECT_EQ(reply.code, kUntouched) << lie;
        EXPECT_EQ(reply.data.size(), 100000u) << lie << ": what arrived stays, with no terminator";
        EXPECT_LT(reply.data.capacity(), 1000000u) << lie;
    }

    // Under a lower limit the same body arrives the same, only without the reservation.
    runner.SetBodyReserveLimit(1000);
    Reply small = Perform(runner, HttpRequest("GET", server_.Url("/bytes/3000000")));
    EXPECT_EQ(small.rc, 0);
    EXPECT_EQ(small.data.size(), 3000001u);
    EXPECT_NE(small.data.capacity(), small.data.size());
}

TEST_F(HttpRunner, LogsBodiesAndResponsesOnlyBelowTheirLimits) {
    LogCapture log;
    // The size that counts includes the terminator: 10238 bytes make 10239, logged.
    Perform(HttpRequest("GET", server_.Url("/bytes/10238")));
    Perform(HttpRequest("GET", server_.Url("/bytes/10239")));
    int logged = 0;
    for (const auto& message : log.Messages(kInfo)) {
        if (message.rfind(PidLine("Request returns data [abc"), 0) == 0) {
            ++logged;
            EXPECT_EQ(message.size(), PidLine("Request returns data []").size() + 10238);
        }
    }
    EXPECT_EQ(logged, 1);

    log.Clear();
    HttpRequest post("POST", server_.Url("/echo"));
    post.AddPostData(std::string(9999, 'p'));
    Perform(post);
    EXPECT_TRUE(log.Has(kInfo, PidLine("Post data is [" + std::string(9999, 'p') + "]")));
    post.AddPostData(std::string(10000, 'q'));
    Perform(post);
    EXPECT_FALSE(log.HasFragment(kInfo, "Post data is [q"));

    HttpRequest put("PUT", server_.Url("/echo"));
    put.AddPostData(std::string(9999, 'r'));
    Perform(put);
    EXPECT_TRUE(log.HasFragment(kInfo, "request data is [rrr"));
    put.AddPostData(std::string(10000, 's'));
    Reply reply = Perform(put);
    EXPECT_FALSE(log.HasFragment(kInfo, "request data is [sss"));
    EXPECT_EQ(EchoField(reply.body(), "body-length"), "10000");
}

TEST_F(HttpRunner, RefusedConnectionFailsAndLeavesTheStatusAlone) {
    LogCapture log;
    HttpRequest request("GET", "http://127.0.0.1:" + std::to_string(ClosedPort()) + "/");
    Reply reply = Perform(request);
    EXPECT_EQ(reply.rc, -1);
    EXPECT_EQ(reply.code, kUntouched);
    EXPECT_TRUE(reply.data.empty());  // no terminator after a failure
    EXPECT_TRUE(log.Has(kError, PidLine("Condition 0 == err failed. curl_easy_perform failed "
                                        "with [" +
                                        std::to_string(CURLE_COULDNT_CONNECT) + "]")));

    StreamReply streamed = Stream(request);
    EXPECT_EQ(streamed.rc, -1);
    EXPECT_EQ(streamed.code, kUntouched);

    // A URL the splitter could not take apart fails in the transfer, not before.
    EXPECT_EQ(Perform(HttpRequest("GET", "no scheme here")).rc, -1);
}

TEST_F(HttpRunner, NoRequestLeavesWithoutNetworkInAnyProcess) {
    // Taken down by another process of the device.
    ASSERT_TRUE(qvtest::RunInChild([] {
                    qvhost_set_network_up(0);
                    return 0;
                }).Succeeded());
    LogCapture log;
    HttpRequestRunner runner;
    HttpRequest request("GET", server_.Url("/echo"));
    Reply reply = Perform(runner, request);
    EXPECT_EQ(reply.rc, -1);
    EXPECT_EQ(reply.code, kUntouched);
    EXPECT_TRUE(log.Has(kWarning, PidLine("Can't perform request without network connection")));

    Records headers{{"stale", "value"}};
    long code = kUntouched;
    EXPECT_EQ(runner.PerformRequest(request, &code, &headers, {}, {}), -1);
    EXPECT_TRUE(headers.empty());

    HttpRequestRunner::CurlAdditionalInfo info;
    std::vector<char> data;
    CURL* curl = curl_easy_init();
    EXPECT_EQ(runner.PrepareRequest(request, curl, &data, &info), -1);
    EXPECT_EQ(info.headers, nullptr);
    curl_easy_cleanup(curl);

    // A connection being set up is no connection yet.
    qvhost_set_net_state(1);
    EXPECT_EQ(Perform(runner, request).rc, -1);
    EXPECT_FALSE(log.HasFragment(0, "Requesting url"));
    EXPECT_EQ(server_.RequestCount(), 0);

    qvhost_set_network_up(1);
    EXPECT_EQ(Perform(runner, request).rc, 0);
    EXPECT_EQ(server_.RequestCount(), 1);
}

TEST_F(HttpRunner, RedirectsFollowedUpToTenUnlessForbidden) {
    Reply reply = Perform(HttpRequest("GET", server_.Url("/redirect/10")));
    EXPECT_EQ(reply.rc, 0);
    EXPECT_EQ(reply.code, 200);
    EXPECT_EQ(reply.body(), "landed");

    LogCapture log;
    reply = Perform(HttpRequest("GET", server_.Url("/redirect/11")));
    EXPECT_EQ(reply.rc, -1);
    EXPECT_TRUE(log.HasFragment(kError, "curl_easy_perform failed with [" +
                                            std::to_string(CURLE_TOO_MANY_REDIRECTS) + "]"));

    HttpRequestRunner runner;
    runner.ForbidRedirect();
    reply = Perform(runner, HttpRequest("GET", server_.Url("/redirect/1")));
    EXPECT_EQ(reply.rc, 0);
    EXPECT_EQ(reply.code, 302);
    EXPECT_EQ(reply.body(), "moving on");
    StreamReply streamed = Stream(runner, HttpRequest("GET", server_.Url("/redirect/1")));
    EXPECT_EQ(streamed.code, 302);
    EXPECT_EQ(streamed.headers.count("HTTP/1.1 200 OK\r"), 0u);
}

TEST_F(HttpRunner, StreamingGetCollectsTheHeadersOfEveryResponse) {
    StreamReply reply = Stream(HttpRequest("GET", server_.Url("/redirect/1")));
    ASSERT_EQ(reply.rc, 0);
    EXPECT_EQ(reply.code, 200);
    EXPECT_EQ(reply.body, "landed");
    // Both status lines under themselves, the later value of a header both responses sent,
    // nothing trimmed.
    EXPECT_EQ(reply.headers["HTTP/1.1 302 Found\r"], "HTTP/1.1 302 Found\r");
    EXPECT_EQ(reply.headers["HTTP/1.1 200 OK\r"], "HTTP/1.1 200 OK\r");
    EXPECT_EQ(reply.headers["X-Hop"], " 0\r");
    EXPECT_EQ(reply.headers["\r"], "\r");
    EXPECT_EQ(reply.headers.count("x-hop"), 0u);

    reply = Stream(HttpRequest("GET", server_.Url("/headers")));
    EXPECT_EQ(reply.headers["X-Twice"], " second\r");
    EXPECT_EQ(reply.headers["X-Padded"], "   padded value  \r");
    EXPECT_EQ(reply.body, "headers");
}

TEST_F(HttpRunner, StreamingGetHandsLargeBodiesOverInPiecesAndStopsOnShortWrites) {
    StreamReply reply = Stream(HttpRequest("GET", server_.Url("/bytes/3000000?chunked=1")));
    ASSERT_EQ(reply.rc, 0);
    EXPECT_EQ(reply.body.size(), 3000000u);
    EXPECT_TRUE(PatternHolds(reply.body));
    EXPECT_GT(reply.writes, 1);

    LogCapture log;
    HttpRequestRunner runner;
    long code = kUntouched;
    Records headers;
    size_t taken = 0;
    int rc = runner.PerformRequest(HttpRequest("GET", server_.Url("/bytes/3000000")), &code,
                                   &headers, {}, [&taken](unsigned length, char*) {
                                       taken += length;
                                       return taken > 100000 ? 0u : length;
                                   });
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(code, kUntouched);
    EXPECT_LT(taken, 3000000u);
    EXPECT_TRUE(log.HasFragment(
        kError, "curl_easy_perform failed with [" + std::to_string(CURLE_WRITE_ERROR) + "]"));
}

TEST_F(HttpRunner, StreamingPostSendsItsBodyButCollectsNoHeaders) {
    HttpRequest request("POST", server_.Url("/echo"));
    request.AddPostParam("a", "1 2");
    StreamReply reply = Stream(request);
    ASSERT_EQ(reply.rc, 0);
    EXPECT_EQ(reply.code, 200);
    EXPECT_EQ(EchoField(reply.body, "method"), "POST");
    EXPECT_EQ(EchoBody(reply.body), "a=1%202");
    EXPECT_TRUE(reply.headers.empty());
}

TEST_F(HttpRunner, StreamingPutReadsItsBodyFromTheHandlerOverHttp10) {
    const std::string payload = [] {
        std::string text(100000, '\0');
        for (size_t i = 0; i < text.size(); ++i)
            text[i] = static_cast<char>('a' + i % 26);
        return text;
    }();
    size_t offset = 0;
    auto reader = [&payload, &offset](unsigned length, char* data) -> unsigned {
        size_t n = std::min<size_t>(length, payload.size() - offset);
        payload.copy(data, n, offset);
        offset += n;
        return static_cast<unsigned>(n);
    };

    // A body of unknown length travels over HTTP/1.0 only when the request asks for chunks.
    HttpRequest request("PUT", server_.Url("/echo"));
    request.AddHeader("Transfer-Encoding", "chunked");
    StreamReply reply = Stream(request, reader);
    ASSERT_EQ(reply.rc, 0);
    EXPECT_EQ(EchoField(reply.body, "method"), "PUT");
    EXPECT_EQ(EchoField(reply.body, "version"), "HTTP/1.0");
    EXPECT_EQ(EchoBody(reply.body), payload);
    EXPECT_EQ(reply.headers["HTTP/1.1 200 OK\r"], "HTTP/1.1 200 OK\r");

    // Without it libcurl refuses before anything is sent.
    LogCapture log;
    offset = 0;
    reply = Stream(HttpRequest("PUT", server_.Url("/echo")), reader);
    EXPECT_EQ(reply.rc, -1);
    EXPECT_TRUE(log.HasFragment(
        kError, "curl_easy_perform failed with [" + std::to_string(CURLE_UPLOAD_FAILED) + "]"));
}

TEST_F(HttpRunner, StreamingOtherMethodsRunAsPlainGetWithLibcurlsOwnWriter) {
    // libcurl's default writer is the standard output: look at it from a child.
    const std::string url = server_.Url("/echo");
    qvtest::ChildResult child = qvtest::RunInChild([&url] {
        StreamReply reply = Stream(HttpRequest("DELETE", url));
        std::printf("\nrc=%d code=%ld writes=%d headers=%zu\n", reply.rc, reply.code, reply.writes,
                    reply.headers.size());
        return 0;
    });
    ASSERT_TRUE(child.Succeeded()) << child.Describe();
    EXPECT_NE(child.output.find("method GET\n"), std::string::npos) << child.output;
    EXPECT_NE(child.output.find("rc=0 code=200 writes=0 headers=0"), std::string::npos)
        << child.output;
}

TEST_F(HttpRunner, CookieFileCarriesCookiesBetweenRequests) {
    const std::string jar = "/tmp/cookies.txt";
    HttpRequest set("GET", server_.Url("/cookies/set?session=abc&theme=dark"));
    set.EnableCookie(true, jar);
    ASSERT_EQ(Perform(set).rc, 0);
    std::string saved = ReadFile(jar);
    EXPECT_NE(saved.find("session\tabc"), std::string::npos) << saved;

    // Another runner, another handle: the cookies come from the file.
    HttpRequest show("GET", server_.Url("/cookies"));
    show.EnableCookie(true, jar);
    EXPECT_EQ(Perform(show).body(), "session=abc; theme=dark");
    EXPECT_EQ(Stream(show).body, "session=abc; theme=dark");
    // Without the file there is no cookie engine.
    EXPECT_EQ(Perform(HttpRequest("GET", server_.Url("/cookies"))).body(), "");

    // A kept handle saves them as soon, and carries them to its next request.
    const std::string kept_jar = "/tmp/kept-cookies.txt";
    HttpRequestRunner kept(true);
    HttpRequest first("GET", server_.Url("/cookies/set?kept=1"));
    first.EnableCookie(true, kept_jar);
    ASSERT_EQ(Perform(kept, first).rc, 0);
    EXPECT_NE(ReadFile(kept_jar).find("kept\t1"), std::string::npos);
    HttpRequest second("GET", server_.Url("/cookies/set?later=2"));
    second.EnableCookie(true, kept_jar);
    EXPECT_EQ(Stream(kept, second).rc, 0);
    HttpRequest third("GET", server_.Url("/cookies"));
    third.EnableCookie(true, kept_jar);
    std::string sent = Perform(kept, third).body();
    EXPECT_TRUE(sent == "kept=1; later=2" || sent == "later=2; kept=1") << sent;
    EXPECT_EQ(Perform(kept, HttpRequest("GET", server_.Url("/cookies"))).body(), "");
}

// A CA made now, and a key and certificate for 127.0.0.1 that it signed, as PEM files in `dir`:
// ca.pem, server.pem, server.key.
void MakeTestCa(const std::string& dir) {
    const std::string script =
        "set -e; mkdir -p " + dir + "; cd " + dir +
        "; openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2"
        " -subj '/CN=Test CA' -keyout ca.key -out ca.pem"
        "; openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=127.0.0.1"
        " -keyout server.key -out server.csr"
        "; echo subjectAltName=IP:127.0.0.1 > san.cnf"
        "; openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2"
        " -extfile san.cnf -out server.pem";
    qvtest::ChildResult made = qvtest::RunProgram({"sh", "-c", script});
    ASSERT_TRUE(made.Succeeded()) << made.Describe();
}

TEST_F(HttpRunner, TlsIsVerifiedAgainstTheSystemBundleUnlessTheRequestSkipsTheCheck) {
    const std::string dir = "/tmp/test-ca";
    MakeTestCa(dir);
    HttpTestServer signed_server({"--cert", dir + "/server.pem", "--key", dir + "/server.key"});
    const std::string refused =
        "curl_easy_perform failed with [" + std::to_string(CURLE_PEER_FAILED_VERIFICATION) + "]";
    HttpRequest self_signed("GET", server_.TlsUrl("/echo"));
    HttpRequest by_test_ca("GET", signed_server.TlsUrl("/echo"));

    // The system's bundle knows neither certificate.
    LogCapture log;
    EXPECT_EQ(Perform(self_signed).rc, -1);
    EXPECT_EQ(Perform(by_test_ca).rc, -1);
    EXPECT_TRUE(log.HasFragment(kError, refused));
    EXPECT_EQ(Stream(by_test_ca).rc, -1);
    {
        // A bundle that holds the test CA: what it signed is trusted, and only that.
        qvtest::MountOver bundle(dir + "/ca.pem", "/etc/ssl/certs/ca-certificates.crt");
        Reply reply = Perform(by_test_ca);
        EXPECT_EQ(reply.rc, 0);
        EXPECT_EQ(EchoField(reply.body(), "method"), "GET");
        StreamReply streamed = Stream(by_test_ca);
        EXPECT_EQ(streamed.rc, 0);
        EXPECT_EQ(EchoField(streamed.body, "method"), "GET");
        log.Clear();
        EXPECT_EQ(Perform(self_signed).rc, -1);
        EXPECT_TRUE(log.HasFragment(kError, refused));
    }
    log.Clear();
    EXPECT_EQ(Perform(by_test_ca).rc, -1);
    EXPECT_TRUE(log.HasFragment(kError, refused));

    for (HttpRequest* request : {&self_signed, &by_test_ca}) {
        request->skip_ssl_check_ = true;
        Reply reply = Perform(*request);
        EXPECT_EQ(reply.rc, 0);
        EXPECT_EQ(EchoField(reply.body(), "method"), "GET");
        StreamReply streamed = Stream(*request);
        EXPECT_EQ(streamed.rc, 0);
        EXPECT_EQ(EchoField(streamed.body, "method"), "GET");
    }
}

TEST_F(HttpRunner, KeptHandleReusesTheConnectionAndResetsEachRequest) {
    HttpRequestRunner kept(true);
    HttpRequest post("POST", server_.Url("/echo"));
    post.AddPostData("first body");
    post.AddHeader("X-Only-First", "1");
    Reply first = Perform(kept, post);
    Reply second = Perform(kept, HttpRequest("GET", server_.Url("/echo")));
    ASSERT_EQ(second.rc, 0);
    EXPECT_EQ(EchoField(second.body(), "client-port"), EchoField(first.body(), "client-port"));
    // Nothing of the first request is left on the handle.
    EXPECT_EQ(EchoField(second.body(), "method"), "GET");
    EXPECT_EQ(EchoField(second.body(), "body-length"), "0");
    EXPECT_EQ(EchoHeader(second.body(), "X-Only-First"), "<missing>");
    StreamReply streamed = Stream(kept, HttpRequest("GET", server_.Url("/echo")));
    EXPECT_EQ(EchoField(streamed.body, "client-port"), EchoField(first.body(), "client-port"));

    HttpRequestRunner fresh;
    Reply a = Perform(fresh, HttpRequest("GET", server_.Url("/echo")));
    Reply b = Perform(fresh, HttpRequest("GET", server_.Url("/echo")));
    EXPECT_NE(EchoField(a.body(), "client-port"), EchoField(b.body(), "client-port"));
}

TEST_F(HttpRunner, ProxyComesFromThePlatform) {
    // Nobody listens at the target itself: only a proxy can answer.
    const std::string target = "http://127.0.0.1:" + std::to_string(ClosedPort()) + "/echo?x=1";
    HttpRequest request("GET", target);
    EXPECT_EQ(Perform(request).rc, -1);

    qvhost_set_proxy(server_.Url("").c_str());
    Reply reply = Perform(request);
    ASSERT_EQ(reply.rc, 0);
    EXPECT_EQ(reply.body(), "proxied " + target);
    EXPECT_EQ(Stream(request).body, "proxied " + target);

    qvhost_set_proxy(nullptr);
    EXPECT_EQ(Perform(request).rc, -1);
}

TEST_F(HttpRunner, PrepareRequestLeavesTheTransferAndHeaderListToTheCaller) {
    HttpRequestRunner runner;
    HttpRequest request("DELETE", server_.Url("/echo"));
    request.AddHeader("X-A", "1");
    HttpRequestRunner::CurlAdditionalInfo info;
    std::vector<char> data;
    CURL* curl = curl_easy_init();
    ASSERT_EQ(runner.PrepareRequest(request, curl, &data, &info), 0);
    ASSERT_NE(info.headers, nullptr);
    EXPECT_STREQ(info.headers->data, "X-A: 1");
    EXPECT_EQ(curl_easy_perform(curl), CURLE_OK);
    std::string body(data.begin(), data.end());  // no terminator: that is PerformRequest's
    EXPECT_EQ(EchoField(body, "method"), "DELETE");
    EXPECT_EQ(EchoHeader(body, "X-A"), "1");
    curl_slist_free_all(info.headers);

    HttpRequestRunner::CurlAdditionalInfo no_headers;
    ASSERT_EQ(runner.PrepareRequest(HttpRequest("GET", server_.Url("/")), curl, &data, &no_headers),
              0);
    EXPECT_EQ(no_headers.headers, nullptr);
    curl_easy_cleanup(curl);
}

}  // namespace
