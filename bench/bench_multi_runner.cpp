// Many transfers at once: HttpRequestMultiRunner (driven through the platform's sleep, as an
// application's UI thread drives it) against a plain libcurl multi loop doing the same and
// against the curl program's own parallel mode. 500 small GETs, and 20 bodies of 10 MB.

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
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

void RunnerBatch(benchmark::State& state, int count, long size) {
    const std::string url = Url(size);
    auto& runner = HttpRequestMultiRunner::instance();
    for (auto _ : state) {
        int done = 0;
        for (int i = 0; i < count; ++i) {
            auto callback = [&done](int code, long http, std::vector<char>&) {
                if (code != CURLE_OK || http != 200) Die("runner request failed");
                ++done;
            };
            if (runner.PerformRequest(HttpRequest("GET", url), callback) != QV_OK) Die("no start");
        }
        while (done < count) qvhost_platform_usleep(1000);
    }
}

size_t Append(char* data, size_t size, size_t nmemb, void* user) {
    auto* out = static_cast<std::vector<char>*>(user);
    out->insert(out->end(), data, data + size * nmemb);
    return size * nmemb;
}

// The same batch on a bare multi handle: one easy handle and vector per transfer, redirects
// followed and signals off as the runner sets them.
void PlainMultiBatch(benchmark::State& state, int count, long size) {
    const std::string url = Url(size);
    CURLM* multi = curl_multi_init();
    for (auto _ : state) {
        std::vector<std::vector<char>> bodies(count);
        for (int i = 0; i < count; ++i) {
            CURL* curl = curl_easy_init();
            curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
            curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Append);
            curl_easy_setopt(curl, CURLOPT_WRITEDATA, &bodies[i]);
            curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
            curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
            curl_multi_add_handle(multi, curl);
        }
        int running = 1;
        while (running) {
            curl_multi_perform(multi, &running);
            int queued = 0;
            while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
                if (message->msg != CURLMSG_DONE) continue;
                if (message->data.result != CURLE_OK) {
                    Die(std::string("plain request failed: ") +
                        curl_easy_strerror(message->data.result));
                }
                curl_multi_remove_handle(multi, message->easy_handle);
                curl_easy_cleanup(message->easy_handle);
            }
            if (running) curl_multi_wait(multi, nullptr, 0, 50, nullptr);
        }
    }
    curl_multi_cleanup(multi);
}

// curl --parallel with every URL of the batch in a config file, bodies to /dev/null.
void CurlProgramBatch(benchmark::State& state, int count, long size) {
    const std::string config = "/tmp/bench_multi_runner.curlrc";
    {
        std::ofstream out(config);
        for (int i = 0; i < count; ++i)
            out << "url = \"" << Url(size) << "\"\noutput = \"/dev/null\"\n";
    }
    const std::string command = "curl --silent --fail --parallel --parallel-max " +
                                std::to_string(count) + " --config " + config + " 2>/dev/null";
    for (auto _ : state) {
        if (std::system(command.c_str()) != 0) Die("the curl program failed");
    }
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
    // The server is a child process, started while this one has no other thread.
    g_server = std::make_unique<qvtest::HttpTestServer>(std::vector<std::string>{"--threads", "600"});
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
