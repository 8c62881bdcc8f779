// 2,000 sequential small GETs against the loopback test server: the request runner, with and
// without its kept handle, against a plain libcurl loop doing the same with a handle of the
// same lifetime. The runner's own cost (network gate, option set-up, log calls, terminator)
// must vanish next to a loopback round trip.

#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "common_utilities/http_request.h"
#include "ratio_reporter.h"
#include "server_process.h"

namespace {

using quorvel::utilities::HttpRequest;
using quorvel::utilities::HttpRequestRunner;

constexpr int kRequests = 2000;
constexpr const char* kPath = "/bytes/128";

std::unique_ptr<qvtest::HttpTestServer> g_server;

[[noreturn]] void Die(const std::string& what) {
    std::fprintf(stderr, "bench_http_requests: %s\n", what.c_str());
    std::exit(1);
}

std::string Url() {
    return g_server->Url(kPath);
}

size_t Append(char* data, size_t size, size_t nmemb, void* user) {
    auto* out = static_cast<std::vector<char>*>(user);
    out->insert(out->end(), data, data + size * nmemb);
    return size * nmemb;
}

void RunnerLoop(benchmark::State& state, bool keep_handle) {
    HttpRequestRunner runner(keep_handle);
    HttpRequest request("GET", Url());
    std::vector<char> response;
    for (auto _ : state) {
        for (int i = 0; i < kRequests; ++i) {
            response.clear();
            long code = 0;
            if (runner.PerformRequest(request, &code, &response) != 0 || code != 200) {
                Die("request failed");
            }
        }
    }
    state.SetItemsProcessed(state.iterations() * kRequests);
}

// The same transfer set up by hand: URL, writer, and the options the runner sets that change
// the work on the wire (signals off, redirects followed).
void SetUp(CURL* curl, const std::string& url, std::vector<char>* response) {
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Append);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, response);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
}

void PerformOrDie(CURL* curl) {
    long code = 0;
    if (curl_easy_perform(curl) != CURLE_OK ||
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &code) != CURLE_OK || code != 200) {
        Die("plain libcurl request failed");
    }
}

void CurlKeptLoop(benchmark::State& state) {
    const std::string url = Url();
    std::vector<char> response;
    CURL* curl = curl_easy_init();
    SetUp(curl, url, &response);
    for (auto _ : state) {
        for (int i = 0; i < kRequests; ++i) {
            response.clear();
            PerformOrDie(curl);
        }
    }
    curl_easy_cleanup(curl);
    state.SetItemsProcessed(state.iterations() * kRequests);
}

void CurlFreshLoop(benchmark::State& state) {
    const std::string url = Url();
    std::vector<char> response;
    for (auto _ : state) {
        for (int i = 0; i < kRequests; ++i) {
            response.clear();
            CURL* curl = curl_easy_init();
            SetUp(curl, url, &response);
            PerformOrDie(curl);
            curl_easy_cleanup(curl);
        }
    }
    state.SetItemsProcessed(state.iterations() * kRequests);
}

void Configure(benchmark::internal::Benchmark* benchmark) {
    qvbench::TimeInMilliseconds(benchmark, 15, true);
}

}  // namespace

BENCHMARK_CAPTURE(RunnerLoop, kept, true)->Name("get_2000/runner_kept")->Apply(Configure);
BENCHMARK(CurlKeptLoop)->Name("get_2000/curl_kept")->Apply(Configure);
BENCHMARK_CAPTURE(RunnerLoop, fresh, false)->Name("get_2000/runner_fresh")->Apply(Configure);
BENCHMARK(CurlFreshLoop)->Name("get_2000/curl_fresh")->Apply(Configure);

int main(int argc, char** argv) {
    // The server is started before anything else runs: it is a child process, forked while this
    // one has no other thread.
    g_server = std::make_unique<qvtest::HttpTestServer>();
    curl_global_init(CURL_GLOBAL_DEFAULT);
    int rc = qvbench::RunAndCompare(argc, argv,
                                    {{"runner/libcurl 2000 GETs, kept handle",
                                      "get_2000/runner_kept", "get_2000/curl_kept", 0.10},
                                     {"runner/libcurl 2000 GETs, handle per request",
                                      "get_2000/runner_fresh", "get_2000/curl_fresh", 0.10}});
    g_server.reset();
    curl_global_cleanup();
    return rc;
}
