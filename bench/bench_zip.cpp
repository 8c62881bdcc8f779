// Reading every member of a 200 MB archive of audio-sized members through QVZipManager, against
// minizip used directly and against the unzip program writing the members to /dev/null, with the
// peak memory each adds. The members range from 5 to 100 MB, so a reader that held a member would
// show it in its peak.

#include <benchmark/benchmark.h>
#include <unzip.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <string>
#include <vector>

#include "common_utilities/old_zip/qv_zip_manager.h"
#include "measured_program.h"
#include "peak_memory.h"
#include "ratio_reporter.h"

namespace {

using quorvel::QVZipManager;
using qvbench::PeakMemory;

constexpr const char* kArchive = "/tmp/bench-book.zip";
constexpr size_t kPiece = 64 * 1024;
constexpr long long kTotalBytes = 200LL << 20;

[[noreturn]] void Die(const char* what) {
    std::fprintf(stderr, "benchmark: %s\n", what);
    std::exit(1);
}

// Mostly incompressible bytes with some repetition, like encoded audio, deflated at level 1.
const char kMakeArchive[] = R"(
import random, sys, zipfile
random.seed(11)
noise = random.randbytes(1 << 20)
sizes = [100, 50, 25, 10, 5, 5, 5]
with zipfile.ZipFile(sys.argv[1], "w", zipfile.ZIP_DEFLATED, compresslevel=1) as z:
    for n, megabytes in enumerate(sizes):
        with z.open("Book/%02d.mp3" % (n + 1), "w") as out:
            for i in range(megabytes):
                out.write(noise[i * 4099 % 65536:] + noise[:i * 4099 % 65536])
)";

const std::vector<std::string>& Members() {
    static const std::vector<std::string> members = [] {
        const std::string command = std::string("python3 -c '") + kMakeArchive + "' " + kArchive;
        if (std::system(command.c_str()) != 0) Die("can't make the archive");
        QVZipManager zip;
        std::list<std::string> names;
        if (zip.Open(kArchive, "") != quorvel::QVZM_OK || zip.GetFilesList(names) != 0)
            Die("can't list the archive");
        return std::vector<std::string>(names.begin(), names.end());
    }();
    return members;
}

void Finish(benchmark::State& state, long long bytes, double peak) {
    if (bytes != kTotalBytes) Die("the members did not add up to 200 MB");
    state.SetBytesProcessed(state.iterations() * kTotalBytes);
    state.counters["peak_MB"] = peak;
}

void Library(benchmark::State& state) {
    Members();
    std::vector<char> buffer(kPiece);
    double peak = 0;
    long long bytes = 0;
    for (auto _ : state) {
        PeakMemory memory;
        bytes = 0;
        QVZipManager zip;
        if (zip.Open(kArchive, "") != quorvel::QVZM_OK) Die("open");
        for (const auto& member : Members()) {
            if (zip.ChangeFile(member) != quorvel::QVZM_OK) Die("change file");
            int got;
            while ((got = zip.Read(buffer.data(), buffer.size())) > 0)
                bytes += got;
            if (got < 0) Die("read");
        }
        peak = std::max(peak, memory.AddedMegabytes());
    }
    Finish(state, bytes, peak);
}

void Minizip(benchmark::State& state) {
    Members();
    std::vector<char> buffer(kPiece);
    double peak = 0;
    long long bytes = 0;
    for (auto _ : state) {
        PeakMemory memory;
        bytes = 0;
        unzFile zip = unzOpen64(kArchive);
        if (!zip) Die("unzOpen64");
        for (const auto& member : Members()) {
            if (unzLocateFile(zip, member.c_str(), 2) != UNZ_OK ||
                unzOpenCurrentFile(zip) != UNZ_OK)
                Die("minizip open member");
            int got;
            while ((got = unzReadCurrentFile(zip, buffer.data(), kPiece)) > 0)
                bytes += got;
            if (got < 0) Die("unzReadCurrentFile");
            unzCloseCurrentFile(zip);
        }
        unzClose(zip);
        peak = std::max(peak, memory.AddedMegabytes());
    }
    Finish(state, bytes, peak);
}

// The program's own peak, under /usr/bin/time; it writes every member to /dev/null.
void UnzipProgram(benchmark::State& state) {
    Members();
    const std::vector<std::string> command = {"sh", "-c",
                                              std::string("unzip -p ") + kArchive + " >/dev/null"};
    double peak = 0;
    for (auto _ : state) {
        auto rss = qvbench::RunMeasured(command);
        if (!rss) Die("unzip failed");
        peak = std::max(peak, *rss);
    }
    Finish(state, kTotalBytes, peak);
}

void Configure(benchmark::internal::Benchmark* benchmark) {
    qvbench::TimeInMilliseconds(benchmark, 5);
}

}  // namespace

BENCHMARK(Library)->Name("read_200MB/library")->Apply(Configure);
BENCHMARK(Minizip)->Name("read_200MB/minizip")->Apply(Configure);
BENCHMARK(UnzipProgram)->Name("read_200MB/unzip_program")->Apply(Configure);

int main(int argc, char** argv) {
    return qvbench::RunAndCompare(
        argc, argv,
        {{"library/minizip read 200 MB", "read_200MB/library", "read_200MB/minizip", 0.10},
         {"library/unzip -p read 200 MB", "read_200MB/library", "read_200MB/unzip_program",
          qvbench::kNoAim}});
}
