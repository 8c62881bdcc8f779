// One 512 MB file from the loopback test server to the device's storage: the Downloader against
// the curl and wget programs writing the same file, and against plain libcurl writing it with no
// progress record and no reservation (the floor: the distance to it is what resumability costs).
// Each run reports in "peak_MB" the resident memory the transfer added at its peak (for the
// programs, their whole peak); the Downloader also fetches a 64 MB file, so that the two peaks
// show whether its memory grows with the file.

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "common_utilities/downloader.h"
#include "measured_program.h"
#include "peak_memory.h"
#include "ratio_reporter.h"
#include "server_process.h"

extern char** environ;

namespace {

using quorvel::utilities::Downloader;
using quorvel::utilities::FileToSync;

constexpr size_t kLarge = 512u * 1024 * 1024;
constexpr size_t kSmall = 64u * 1024 * 1024;
constexpr const char* kFolder = "/mnt/ext1/bench";
constexpr const char* kTarget = "/mnt/ext1/bench/file.bin";

std::unique_ptr<qvtest::HttpTestServer> g_server;
std::map<std::string, double> g_peaks;  // benchmark name -> largest peak seen

[[noreturn]] void Die(const std::string& what) {
    std::fprintf(stderr, "bench_download: %s\n", what.c_str());
    std::exit(1);
}

std::string Url(size_t size) {
    return g_server->Url("/dl/file/1/" + std::to_string(size));
}

using qvbench::PeakMemory;

void CheckAndRemove(const std::string& path, size_t size) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0 || static_cast<size_t>(st.st_size) != size) {
        Die(path + " is not " + std::to_string(size) + " bytes");
    }
    ::unlink(path.c_str());
}

void Finish(benchmark::State& state, const char* label, size_t size, double peak) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
    state.counters["peak_MB"] = peak;
    double& kept = g_peaks[label];
    kept = std::max(kept, peak);
}

// Waits for the end of each transfer.
class EndOfTransfer : public quorvel::utilities::IDownloaderCallback {
public:
    void NotifyDownloaderStatus(void*) override {
        std::lock_guard<std::mutex> lock(mutex_);
        ++changes_;
        changed_.notify_all();
    }
    void Wait(Downloader& downloader) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [&] {
            Downloader::Status status = downloader.GetStatus().status;
            return status == Downloader::DS_Finished || status == Downloader::DS_Error;
        });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    long changes_ = 0;
};

void WithDownloader(benchmark::State& state, const char* label, size_t size) {
    EndOfTransfer end;
    Downloader downloader;
    if (downloader.Init(&end) != QV_OK) Die("Downloader::Init failed");
    FileToSync book;
    book.url = Url(size);
    book.name = "file.bin";
    book.size = static_cast<int32_t>(size);
    double peak = 0;
    for (auto _ : state) {
        PeakMemory memory;
        if (downloader.Start(book, kFolder, nullptr) != QV_OK) Die("Downloader::Start refused");
        end.Wait(downloader);
        if (downloader.GetStatus().status != Downloader::DS_Finished) Die("download failed");
        downloader.Cleanup(book);
        peak = std::max(peak, memory.AddedMegabytes());
        state.PauseTiming();
        CheckAndRemove(downloader.GetFinalPath(), size);
        downloader.ClearStatus();
        state.ResumeTiming();
    }
    Finish(state, label, size, peak);
}

void DownloaderLarge(benchmark::State& state) {
    WithDownloader(state, "downloader, 512 MB", kLarge);
}

void DownloaderSmall(benchmark::State& state) {
    WithDownloader(state, "downloader, 64 MB", kSmall);
}

size_t WriteToFile(char* data, size_t size, size_t nmemb, void* fd) {
    size_t count = size * nmemb;
    size_t done = 0;
    while (done < count) {
        ssize_t n = ::write(*static_cast<int*>(fd), data + done, count - done);
        if (n <= 0) return done;
        done += static_cast<size_t>(n);
    }
    return count;
}

// The floor: libcurl straight into the file, with the Downloader's receive buffer but no record,
// no reservation and no progress callback.
void PlainLibcurl(benchmark::State& state) {
    const std::string url = Url(kLarge);
    double peak = 0;
    for (auto _ : state) {
        PeakMemory memory;
        int fd = ::open(kTarget, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        CURL* curl = curl_easy_init();
        curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, WriteToFile);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, &fd);
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, 100L * 1024);
        if (curl_easy_perform(curl) != CURLE_OK) Die("plain libcurl transfer failed");
        curl_easy_cleanup(curl);
        ::close(fd);
        peak = std::max(peak, memory.AddedMegabytes());
        state.PauseTiming();
        CheckAndRemove(kTarget, kLarge);
        state.ResumeTiming();
    }
    Finish(state, "plain libcurl, 512 MB", kLarge, peak);
}

// A program of the same job, its memory measured on its own.
void Program(benchmark::State& state, const char* label, const std::vector<std::string>& command) {
    double peak = 0;
    for (auto _ : state) {
        auto rss = qvbench::RunMeasured(command);
        if (!rss) Die(command.front() + " failed");
        state.PauseTiming();
        peak = std::max(peak, *rss);
        CheckAndRemove(kTarget, kLarge);
        state.ResumeTiming();
    }
    Finish(state, label, kLarge, peak);
}

void CurlProgram(benchmark::State& state) {
    Program(state, "curl program, 512 MB",
            {"curl", "--silent", "--fail", "-o", kTarget, Url(kLarge)});
}

void WgetProgram(benchmark::State& state) {
    Program(state, "wget program, 512 MB", {"wget", "--quiet", "-O", kTarget, Url(kLarge)});
}

void Configure(benchmark::internal::Benchmark* benchmark) {
    qvbench::TimeInMilliseconds(benchmark, 5, true);
}

void PrintPeaks() {
    std::printf("\nPeak memory each transfer added (MB; the programs: their whole peak)\n");
    for (const auto& [name, peak] : g_peaks)
        std::printf("  %-40s %8.1f\n", name.c_str(), peak);
}

}  // namespace

BENCHMARK(DownloaderLarge)->Name("download_512mb/downloader")->Apply(Configure);
BENCHMARK(PlainLibcurl)->Name("download_512mb/plain_libcurl")->Apply(Configure);
BENCHMARK(CurlProgram)->Name("download_512mb/curl_program")->Apply(Configure);
BENCHMARK(WgetProgram)->Name("download_512mb/wget_program")->Apply(Configure);
BENCHMARK(DownloaderSmall)->Name("download_64mb/downloader")->Apply(Configure);

int main(int argc, char** argv) {
    ::mkdir(kFolder, 0777);
    g_server = std::make_unique<qvtest::HttpTestServer>();
    int rc = qvbench::RunAndCompare(
        argc, argv,
        {{"downloader/curl program 512 MB", "download_512mb/downloader",
          "download_512mb/curl_program", 0.10},
         {"downloader/wget program 512 MB", "download_512mb/downloader",
          "download_512mb/wget_program", qvbench::kNoAim},
         {"downloader/plain libcurl 512 MB (the cost of resuming)", "download_512mb/downloader",
          "download_512mb/plain_libcurl", qvbench::kNoAim}});
    PrintPeaks();
    g_server.reset();
    return rc;
}
