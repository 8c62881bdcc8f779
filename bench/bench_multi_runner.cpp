// Many transfers at once: HttpRequestMultiRunner (driven through the platform's sleep, as an
// application's UI thread drives it) against a plain libcurl multi loop doing the same and
// against the curl program's own parallel mode. 500 small GETs, and 20 bodies of 10 MB.
//
// What makes the three comparable:
// - every request opens a connection of its own: the server closes each after one response, so
//   that the runner, whose multi handle lives as long as the process, gains nothing from
//   connections an earlier repetition left open, and no idle connection of one contender holds
//   a server thread while another runs;
// - every body is kept and checked: the runner and the plain loop hold them in memory (a body
//   of announced length reserved once, in 2 MiB pages from 4 MiB, its pages faulted in by the
//   kernel ahead of the bytes rather than trapping one at a time), the program writes them to files on the sandbox's
//   /tmp, which is memory too (the kernel fills those pages without traps as well); every size
//   is checked;
// - all requests of a batch start together. The one exception is the program's own limit:
//   it runs at most 300 transfers at a time, so 200 of its 500 small GETs wait for a free slot.

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "common_utilities/http_request_multi_runner.h"
#include "moorglass_host.h"
#include "ratio_reporter.h"
#include "server_process.h"

namespace {

using quorvel::utilities::HttpRequest;
using quorvel::utilities::HttpRequestMultiRunner;

constexpr long kBigBody = 10L << 20;

std::unique_ptr<qvtest::HttpTestServer> g_server;

[[noreturn]] void Die(const std::string& what) {
    std::fprintf(stderr, "bench_multi_runner: %s\n", what.c_str());
    std::exit(1);
}

std::string Url(long size) {
    return g_server->Url("/bytes/" + std::to_string(size));
}

// A body as the runner hands it over: one terminator byte is added below 10240 bytes.
size_t RunnerBodySize(long size) {
    return static_cast<size_t>(size) + (size < 10240 ? 1 : 0);
}

// Starts `count` GETs of `url` through the runner. Each completion is checked and counted in
// `*done`.
void StartRunnerBatch(const std::string& url, int count, long size, int* done) {
    auto& runner = HttpRequestMultiRunner::instance();
    for (int i = 0; i < count; ++i) {
        auto callback = [=](int code, long http, std::vector<char>& body) {
            if (code != CURLE_OK || http != 200) {
                Die("runner request failed: " +
                    std::string(curl_easy_strerror(static_cast<CURLcode>(code))) + ", HTTP " +
                    std::to_string(http));
            }
            if (body.size() != RunnerBodySize(size)) Die("runner body of the wrong size");
            ++*done;
        };
        if (runner.PerformRequest(HttpRequest("GET", url), callback) != QV_OK) Die("no start");
    }
}

void RunnerBatch(benchmark::State& state, int count, long size) {
    const std::string url = Url(size);
    for (auto _ : state) {
        int done = 0;
        StartRunnerBatch(url, count, size, &done);
        while (done < count) qvhost_platform_usleep(1000);
    }
}

struct PlainBody {
    CURL* curl = nullptr;
    std::vector<char> bytes;
    size_t prefaulted = 0;  // bytes of the buffer already faulted in
};

constexpr long kRunnerReadBuffer = 96L << 10;
constexpr uintptr_t kPage = 4096;
constexpr uintptr_t kLargePage = 2u << 20;
constexpr size_t kAdviseFrom = 4u << 20;
constexpr size_t kPrefaultAhead = 1u << 20;

// The memory work the runner does, so that the two differ only in how they drive libcurl: the
// announced length reserved with the first piece, a large reservation advised for 2 MiB pages,
// and the pages ahead of the bytes faulted in by the kernel a megabyte at a time.
size_t Append(char* data, size_t size, size_t nmemb, void* user) {
    auto* body = static_cast<PlainBody*>(user);
    const size_t count = size * nmemb;
    if (body->bytes.empty()) {
        curl_off_t length = -1;
        curl_easy_getinfo(body->curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
        if (length > 0) body->bytes.reserve(static_cast<size_t>(length));
        if (static_cast<size_t>(std::max<curl_off_t>(length, 0)) >= kAdviseFrom) {
            auto start = reinterpret_cast<uintptr_t>(body->bytes.data());
            uintptr_t from = (start + kLargePage - 1) & ~(kLargePage - 1);
            uintptr_t to = (start + static_cast<uintptr_t>(length)) & ~(kLargePage - 1);
            if (to > from) madvise(reinterpret_cast<void*>(from), to - from, MADV_HUGEPAGE);
        }
    }
    const size_t end = body->bytes.size() + count;
    if (end > body->prefaulted && end <= body->bytes.capacity()) {
        const size_t ahead = std::min(body->bytes.capacity(), end + kPrefaultAhead);
        auto start = reinterpret_cast<uintptr_t>(body->bytes.data());
        uintptr_t from = (start + body->prefaulted + kPage - 1) & ~(kPage - 1);
        uintptr_t to = (start + ahead) & ~(kPage - 1);
        if (to > from) madvise(reinterpret_cast<void*>(from), to - from, MADV_POPULATE_WRITE);
        body->prefaulted = ahead;
    }
    body->bytes.insert(body->bytes.end(), data, data + count);
    return count;
}

// Ends one finished transfer of the plain loop, checking it as the runner's callback does.
void FinishPlain(CURLM* multi, CURLMsg* message, size_t expected) {
    if (message->data.result != CURLE_OK) {
        Die(std::string("plain request failed: ") + curl_easy_strerror(message->data.result));
    }
    PlainBody* body = nullptr;
    long http = 0;
    curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &body);
    curl_easy_getinfo(message->easy_handle, CURLINFO_RESPONSE_CODE, &http);
    if (http != 200) Die("plain request answered HTTP " + std::to_string(http));
    if (body->bytes.size() != expected) Die("plain body of the wrong size");
    curl_multi_remove_handle(multi, message->easy_handle);
    curl_easy_cleanup(message->easy_handle);
}

// The same batch on a bare multi handle: one easy handle and vector per transfer, redirects
// followed, signals off and the read buffer as large as the runner sets them. Each transfer is driven once as it is added,
// as the runner starts its own: adding all 500 before driving any would have every pass of the
// loop look again at 500 connecting sockets, which here costs the loop 2.5 times the runner's
// time and measures that pattern rather than the runner's overhead over libcurl.
void PlainMultiBatch(benchmark::State& state, int count, long size) {
    const std::string url = Url(size);
    CURLM* multi = curl_multi_init();
    for (auto _ : state) {
        std::vector<PlainBody> bodies(count);
        for (int i = 0; i < count; ++i) {
            CURL* curl = curl_easy_init();
            bodies[i].curl = curl;
            curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
            curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Append);
            curl_easy_setopt(curl, CURLOPT_WRITEDATA, &bodies[i]);
            curl_easy_setopt(curl, CURLOPT_PRIVATE, &bodies[i]);
            curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
            curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
            curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, kRunnerReadBuffer);
            curl_multi_add_handle(multi, curl);
            int started = 0;
            curl_multi_perform(multi, &started);
        }
        int running = 1;
        while (running) {
            curl_multi_perform(multi, &running);
            int queued = 0;
            while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
                if (message->msg == CURLMSG_DONE)
                    FinishPlain(multi, message, static_cast<size_t>(size));
            }
            if (running) curl_multi_wait(multi, nullptr, 0, 50, nullptr);
        }
    }
    curl_multi_cleanup(multi);
}

// curl --parallel with every URL of the batch in a config file, each body to a file of its own.
void CurlProgramBatch(benchmark::State& state, int count, long size) {
    const std::filesystem::path dir = "/tmp/bench_multi_runner";
    const std::string config = "/tmp/bench_multi_runner.curlrc";
    std::filesystem::create_directories(dir);
    {
        std::ofstream out(config);
        for (int i = 0; i < count; ++i) {
            out << "url = \"" << Url(size) << "\"\noutput = \""
                << (dir / std::to_string(i)).string() << "\"\n";
        }
    }
    // --parallel-immediate: open every connection at once rather than first waiting to see
    // whether one connection could carry several transfers, which HTTP/1.1 never does.
    const std::string command = "curl --silent --fail --parallel --parallel-immediate "
                                "--parallel-max " + std::to_string(count) + " --config " +
                                config + " 2>/dev/null";
    for (auto _ : state) {
        if (std::system(command.c_str()) != 0) Die("the curl program failed");
        state.PauseTiming();
        for (int i = 0; i < count; ++i) {
            if (std::filesystem::file_size(dir / std::to_string(i)) != static_cast<size_t>(size))
                Die("the curl program wrote a body of the wrong size");
        }
        std::filesystem::remove_all(dir);
        std::filesystem::create_directories(dir);
        state.ResumeTiming();
    }
    std::filesystem::remove_all(dir);
    unlink(config.c_str());
}

void Configure(benchmark::internal::Benchmark* benchmark) {
    qvbench::TimeInMilliseconds(benchmark, 10, true);
}

}  // namespace

BENCHMARK_CAPTURE(RunnerBatch, small_500, 500, 128)->Name("small_500/runner")->Apply(Configure);
BENCHMARK_CAPTURE(PlainMultiBatch, small_500, 500, 128)->Name("small_500/plain_multi")->Apply(Configure);
BENCHMARK_CAPTURE(CurlProgramBatch, small_500, 500, 128)->Name("small_500/curl_program")->Apply(Configure);
BENCHMARK_CAPTURE(RunnerBatch, big_20x10mb, 20, kBigBody)->Name("big_20x10mb/runner")->Apply(Configure);
BENCHMARK_CAPTURE(PlainMultiBatch, big_20x10mb, 20, kBigBody)->Name("big_20x10mb/plain_multi")->Apply(Configure);
BENCHMARK_CAPTURE(CurlProgramBatch, big_20x10mb, 20, kBigBody)->Name("big_20x10mb/curl_program")->Apply(Configure);

int main(int argc, char** argv) {
    // The server is a child process, started while this one has no other thread. A thread for
    // each of the 500 connections of a batch, and a connection for each request (see above).
    g_server = std::make_unique<qvtest::HttpTestServer>(
        std::vector<std::string>{"--threads", "600", "--requests-per-connection", "1"});
    curl_global_init(CURL_GLOBAL_DEFAULT);
    int rc = qvbench::RunAndCompare(
        argc, argv,
        {{"runner/plain multi 500 small GETs", "small_500/runner", "small_500/plain_multi", 0.10},
         {"runner/curl --parallel 500 small GETs", "small_500/runner", "small_500/curl_program", 0},
         {"runner/plain multi 20 x 10 MB", "big_20x10mb/runner", "big_20x10mb/plain_multi", 0.10},
         {"runner/curl --parallel 20 x 10 MB", "big_20x10mb/runner", "big_20x10mb/curl_program", 0}});
    g_server.reset();
    curl_global_cleanup();
    return rc;
}
