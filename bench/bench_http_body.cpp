// One 200 MB body from the loopback test server, collected whole in memory and streamed through
// the request runner, against the curl program writing it to /dev/null, and the whole-body
// transfer against libcurl filling a vector by hand, once with a Content-Length and once chunked
// (no length known ahead). Besides the time, each run reports in "peak_MB" the resident memory
// the transfer added at its peak (for the curl program, its whole peak): the whole-body transfer
// holds the body (and, while a vector grows, the old buffer too), the streaming one only
// libcurl's buffer. Filling a vector that large is dominated by page faults and copies of the
// growing buffer, which is where the runner beats the vector filled by hand: it reserves an
// announced length once and asks for large pages.

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "common_utilities/http_request.h"
#include "measured_program.h"
#include "peak_memory.h"
#include "ratio_reporter.h"
#include "server_process.h"

extern char** environ;

namespace {

using quorvel::utilities::HttpRequest;
using quorvel::utilities::HttpRequestRunner;

constexpr size_t kBodyBytes = 200u * 1024 * 1024;
constexpr double kMegabyte = 1024.0 * 1024.0;

std::unique_ptr<qvtest::HttpTestServer> g_server;

[[noreturn]] void Die(const std::string& what) {
    std::fprintf(stderr, "bench_http_body: %s\n", what.c_str());
    std::exit(1);
}

std::string Url(bool chunked = false) {
    return g_server->Url("/bytes/" + std::to_string(kBodyBytes) + (chunked ? "?chunked=1" : ""));
}

using qvbench::PeakMemory;

void Finish(benchmark::State& state, double peak_megabytes) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBodyBytes));
    state.counters["peak_MB"] = peak_megabytes;
}

template <bool kChunked>
void InMemory(benchmark::State& state) {
    HttpRequestRunner runner;
    HttpRequest request("GET", Url(kChunked));
    double peak = 0;
    for (auto _ : state) {
        std::vector<char> response;
        PeakMemory memory;
        long code = 0;
        if (runner.PerformRequest(request, &code, &response) != 0 ||
            response.size() != kBodyBytes + 1) {
            Die("whole-body request failed");
        }
        peak = std::max(peak, memory.AddedMegabytes());
    }
    Finish(state, peak);
}

void Streamed(benchmark::State& state) {
    HttpRequestRunner runner;
    HttpRequest request("GET", Url());
    double peak = 0;
    for (auto _ : state) {
        size_t received = 0;
        HttpRequestRunner::HeaderRecords headers;
        PeakMemory memory;
        long code = 0;
        int rc = runner.PerformRequest(request, &code, &headers, {},
                                       [&received](unsigned length, char* data) {
                                           benchmark::DoNotOptimize(data);
                                           received += length;
                                           return length;
                                       });
        if (rc != 0 || received != kBodyBytes) Die("streaming request failed");
        peak = std::max(peak, memory.AddedMegabytes());
    }
    Finish(state, peak);
}

// The same whole-body collection by hand: libcurl appending to a vector, as the runner's writer
// does. What the runner adds to it should not show.
size_t Append(char* data, size_t size, size_t nmemb, void* user) {
    auto* out = static_cast<std::vector<char>*>(user);
    out->insert(out->end(), data, data + size * nmemb);
    return size * nmemb;
}

template <bool kChunked>
void CurlIntoVector(benchmark::State& state) {
    const std::string url = Url(kChunked);
    double peak = 0;
    for (auto _ : state) {
        std::vector<char> response;
        PeakMemory memory;
        CURL* curl = curl_easy_init();
        curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Append);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, &response);
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        if (curl_easy_perform(curl) != CURLE_OK || response.size() != kBodyBytes) {
            Die("plain libcurl request failed");
        }
        curl_easy_cleanup(curl);
        peak = std::max(peak, memory.AddedMegabytes());
    }
    Finish(state, peak);
}

// The curl program, its memory measured on its own.
void CurlProgram(benchmark::State& state) {
    const std::vector<std::string> command = {"curl", "--silent",  "--fail",
                                              "-o",   "/dev/null", Url()};
    double peak = 0;
    for (auto _ : state) {
        auto rss = qvbench::RunMeasured(command);
        if (!rss) Die("curl failed");
        state.PauseTiming();
        peak = std::max(peak, *rss);
        state.ResumeTiming();
    }
    Finish(state, peak);
}

void Configure(benchmark::internal::Benchmark* benchmark) {
    qvbench::TimeInMilliseconds(benchmark, 9, true);
}

}  // namespace

BENCHMARK(InMemory<false>)->Name("body_200mb/in_memory")->Apply(Configure);
BENCHMARK(Streamed)->Name("body_200mb/streamed")->Apply(Configure);
BENCHMARK(CurlIntoVector<false>)->Name("body_200mb/libcurl_vector")->Apply(Configure);
BENCHMARK(CurlProgram)->Name("body_200mb/curl_program")->Apply(Configure);
BENCHMARK(InMemory<true>)->Name("body_200mb_chunked/in_memory")->Apply(Configure);
BENCHMARK(CurlIntoVector<true>)->Name("body_200mb_chunked/libcurl_vector")->Apply(Configure);

int main(int argc, char** argv) {
    g_server = std::make_unique<qvtest::HttpTestServer>();
    int rc = qvbench::RunAndCompare(
        argc, argv,
        {{"streamed/curl program 200 MB", "body_200mb/streamed", "body_200mb/curl_program", 0.10},
         {"in memory/libcurl into a vector 200 MB with a length", "body_200mb/in_memory",
          "body_200mb/libcurl_vector", qvbench::AtLeastTimesFaster(2)},
         {"in memory/libcurl into a vector 200 MB chunked", "body_200mb_chunked/in_memory",
          "body_200mb_chunked/libcurl_vector", 0.0},
         {"in memory/curl program 200 MB", "body_200mb/in_memory", "body_200mb/curl_program",
          qvbench::kNoAim}});
    g_server.reset();
    return rc;
}
