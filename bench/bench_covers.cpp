// Covers of a shelf of 500 generated books (PDF, EPUB, PNG and JPEG pictures) through the
// CoverLoader: the first pass, where the scanner makes the PDF and EPUB covers in the background,
// and the second, from the cache; against pdftoppm and ImageMagick's convert run directly on the
// same books, one after the other, which is what making every cover anew costs.

#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "common_utilities/cover_loader.h"
#include "cover_maker.h"
#include "ratio_reporter.h"
#include "sample_books.h"

namespace {

using quorvel::utilities::CoverLoader;
using quorvel::utilities::SmartBitmap;

const std::string kShelf = "/mnt/ext1/BenchShelf";
const std::string kCache = "/mnt/ext1/system/cover_chache";
const std::string kDirect = "/tmp/direct-covers";
constexpr int kBooks = 500;
constexpr int kWidth = 165, kHeight = 290;

[[noreturn]] void Die(const std::string& message) {
    std::fprintf(stderr, "bench_covers: %s\n", message.c_str());
    std::exit(1);
}

const std::vector<std::string>& Books() {
    static std::vector<std::string> books = [] {
        const qvhost::BookKind kinds[] = {qvhost::BookKind::kPdf, qvhost::BookKind::kEpub,
                                          qvhost::BookKind::kPng, qvhost::BookKind::kJpeg};
        std::vector<std::string> paths;
        for (int i = 0; i < kBooks; ++i) {
            auto kind = kinds[i % 4];
            std::string path =
                kShelf + "/book" + std::to_string(i) + "." + qvhost::BookExtension(kind);
            if (!qvhost::WriteSampleBook(kind, path, "Book " + std::to_string(i), 300 + i % 200,
                                         400 + i % 150, static_cast<unsigned>(i))) {
                Die("cannot write " + path);
            }
            paths.push_back(path);
        }
        return paths;
    }();
    return books;
}

// Every cover through one loader, asking again for the scanner's until they are made.
void LoadShelf() {
    CoverLoader loader;
    std::vector<const std::string*> waiting;
    for (const std::string& book : Books()) {
        SmartBitmap cover;
        int state = loader.LoadCover(book, kWidth, kHeight, 0, &cover);
        if (state == 1)
            waiting.push_back(&book);
        else if (state != 0)
            Die("no cover for " + book);
    }
    auto until = std::chrono::steady_clock::now() + std::chrono::minutes(10);
    while (!waiting.empty()) {
        if (std::chrono::steady_clock::now() > until) Die("the scanner did not finish");
        std::vector<const std::string*> still;
        for (const std::string* book : waiting) {
            SmartBitmap cover;
            if (loader.LoadCoverFromCache(*book, kWidth, kHeight, 0, &cover) != 0)
                still.push_back(book);
        }
        waiting.swap(still);
        if (!waiting.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

void FirstPass(benchmark::State& state) {
    Books();
    for (auto _ : state) {
        state.PauseTiming();
        std::filesystem::remove_all(kCache);
        state.ResumeTiming();
        LoadShelf();
    }
}

void CachedPass(benchmark::State& state) {
    Books();
    LoadShelf();  // makes sure every cover is in the cache
    for (auto _ : state)
        LoadShelf();
}

void Direct(const std::string& book, const std::string& cover) {
    std::string ext = book.substr(book.rfind('.') + 1);
    std::string picture = book;
    std::string work = kDirect + "/work";
    std::filesystem::create_directories(work);
    if (ext == "pdf") {
        if (!qvscanner::RunQuietly({"pdftoppm", "-f", "1", "-l", "1", "-singlefile", "-png",
                                    "-scale-to", std::to_string(kHeight), book, work + "/page"}))
            Die("pdftoppm failed on " + book);
        picture = work + "/page.png";
    } else if (ext == "epub") {
        if (!qvscanner::RunQuietly(
                {"unzip", "-o", "-j", "-q", book, "OEBPS/images/cover art.png", "-d", work}))
            Die("unzip failed on " + book);
        picture = work + "/cover art.png";
    }
    if (!qvscanner::RunQuietly({"convert", picture + "[0]", "-resize",
                                std::to_string(kWidth) + "x" + std::to_string(kHeight), "-strip",
                                "PNG:" + cover}))
        Die("convert failed on " + book);
}

void DirectTools(benchmark::State& state) {
    Books();
    for (auto _ : state) {
        int n = 0;
        for (const std::string& book : Books())
            Direct(book, kDirect + "/" + std::to_string(n++) + ".png");
    }
}

void Configure(benchmark::internal::Benchmark* benchmark) {
    qvbench::TimeInMilliseconds(benchmark, 1, true);
}

}  // namespace

BENCHMARK(FirstPass)->Name("covers_500/loader_first_pass")->Apply(Configure);
BENCHMARK(CachedPass)
    ->Name("covers_500/loader_cached")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Repetitions(3)
    ->ReportAggregatesOnly(true);
BENCHMARK(DirectTools)->Name("covers_500/pdftoppm_convert")->Apply(Configure);

int main(int argc, char** argv) {
    return qvbench::RunAndCompare(
        argc, argv,
        {{"CoverLoader cached/pdftoppm+convert, 500 books", "covers_500/loader_cached",
          "covers_500/pdftoppm_convert", qvbench::AtLeastTimesFaster(20)},
         {"CoverLoader first pass (scanner)/pdftoppm+convert, 500 books",
          "covers_500/loader_first_pass", "covers_500/pdftoppm_convert", qvbench::kNoAim}});
}
