// qvtool http --parallel: many requests at once through HttpRequestMultiRunner, driven as an
// application's UI thread drives it, by sleeping inside the platform.

#include <curl/curl.h>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "cli.h"
#include "common_utilities/http_request_multi_runner.h"
#include "interrupt_guard.h"
#include "moorglass_host.h"
#include "progress.h"

namespace qvtool {
namespace {

using quorvel::utilities::HttpRequest;
using quorvel::utilities::HttpRequestMultiRunner;
using Clock = std::chrono::steady_clock;

constexpr unsigned kSleepMicroseconds = 50000;
constexpr long long kMaxRequests = 100000;

struct Run {
    size_t finished = 0;
    size_t failed = 0;
    uint64_t bytes = 0;
};

std::string Describe(int curl_code, long http_code, size_t bytes, double ms) {
    char text[200];
    if (curl_code != CURLE_OK) {
        std::snprintf(text, sizeof text, "failed  %s (curl code %d)  %.0f ms",
                      curl_easy_strerror(static_cast<CURLcode>(curl_code)), curl_code, ms);
    } else {
        std::snprintf(text, sizeof text, "status %ld  %zu bytes  %.0f ms", http_code, bytes, ms);
    }
    return text;
}

int RunParallel(Args& args) {
    long long count = ParseInteger(args.Option("--count").value_or("1"), "--count");
    std::vector<std::string> headers = args.Options("-H");
    bool insecure = args.Flag("--insecure");
    std::vector<std::string> urls = args.Rest();
    if (urls.empty()) throw Failure(kUsage, "no URL given");
    if (count < 1 || count * static_cast<long long>(urls.size()) > kMaxRequests)
        throw Failure(kUsage, "--count times the URLs must be between 1 and " + std::to_string(kMaxRequests));
    if (!(QueryNetwork() & NET_QUERY_CONNECTED_MASK))
        throw Failure(kUnavailable, "the network is down; no request was sent");

    auto& runner = HttpRequestMultiRunner::instance();
    const size_t total = urls.size() * static_cast<size_t>(count);
    Run run;
    Progress progress("requests", total);
    Clock::time_point start = Clock::now();
    for (long long round = 0; round < count; ++round) {
        for (const std::string& url : urls) {
            HttpRequest request("GET", url);
            request.skip_ssl_check_ = insecure;
            for (const std::string& header : headers) {
                size_t colon = header.find(':');
                if (colon == std::string::npos) throw Failure(kUsage, "-H wants 'Name: value'");
                std::string value = header.substr(colon + 1);
                value.erase(0, value.find_first_not_of(' '));
                request.AddHeader(header.substr(0, colon), value);
            }
            auto done = [&, url](int curl_code, long http_code, std::vector<char>& body) {
                double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
                size_t size = body.size() - (body.size() < 10240 && !body.empty() ? 1 : 0);
                ++run.finished;
                run.failed += curl_code != CURLE_OK;
                run.bytes += size;
                std::cout << "done " << url << "  " << Describe(curl_code, http_code, size, ms) << '\n';
                progress.Update(run.finished);
            };
            if (runner.PerformRequest(request, done) != QV_OK) {
                ++run.finished;
                ++run.failed;
                std::cout << "done " << url << "  failed to start\n";
            }
        }
    }
    InterruptGuard guard;
    while (run.finished < total && !InterruptGuard::Interrupted()) {
        qvhost_platform_usleep(kSleepMicroseconds);
    }
    progress.Finish();
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::cout << run.finished << " of " << total << " finished, " << run.failed << " failed, "
              << FormatBytes(static_cast<double>(run.bytes)) << " in " << FormatDuration(seconds)
              << '\n';
    if (InterruptGuard::Interrupted()) return kInterrupted;
    return run.failed ? kFailed : kOk;
}

const bool registered = Register(
    {"http --parallel", "many GET requests at once through the parallel runner",
     "usage: qvtool http --parallel URL... [--count N] [-H 'Name: value']... [--insecure]\n"
     "Starts a GET of every URL (N times over) through HttpRequestMultiRunner at once and\n"
     "sleeps inside the platform, as an application's UI thread does, while the transfers run.\n"
     "Prints a line as each one ends: its status and size, or libcurl's reason, and the time\n"
     "since the start. Exit codes: 1 when any failed, 4 when the network is down, 130 on Ctrl-C.\n",
     RunParallel});

}  // namespace
}  // namespace qvtool
