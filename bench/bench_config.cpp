// What keeping the configuration cache true across processes costs a read: Config::ReadString
// of a cached file with no change pending (a poll of the inotify descriptor, a map lookup, then
// the platform's read) against the platform's ReadString on an open handle, in the same run.

#include <benchmark/benchmark.h>

#include <fstream>
#include <string>

#include "common_utilities/config.h"
#include "ratio_reporter.h"

namespace {

using quorvel::system::config::Config;

const std::string kFile = "/mnt/ext1/system/config/bench.cfg";
constexpr int kKeys = 64;

std::string KeyOf(int i) {
    return "section.key" + std::to_string(i);
}

void MakeFile() {
    static bool made = false;
    if (made) return;
    made = true;
    std::ofstream out(kFile, std::ios::trunc);
    for (int i = 0; i < kKeys; ++i)
        out << KeyOf(i) << "=value number " << i << '\n';
}

const std::vector<std::string>& Keys() {
    static const std::vector<std::string> keys = [] {
        std::vector<std::string> result;
        for (int i = 0; i < kKeys; ++i)
            result.push_back(KeyOf(i * 7 % kKeys));
        return result;
    }();
    return keys;
}

void ReadThroughCache(benchmark::State& state) {
    MakeFile();
    Config& config = Config::GetInstance();
    size_t total = 0;
    for (auto _ : state) {
        for (const auto& key : Keys())
            total += config.ReadString(kFile, key, "").size();
    }
    benchmark::DoNotOptimize(total);
    state.SetItemsProcessed(state.iterations() * kKeys);
}

// The platform's read, handed to a std::string as any C++ caller does, so that the difference is
// the cache's own work.
void ReadThroughPlatform(benchmark::State& state) {
    MakeFile();
    iconfig* cfg = OpenConfig(kFile.c_str(), 0);
    size_t total = 0;
    for (auto _ : state) {
        for (const auto& key : Keys())
            total += std::string(ReadString(cfg, key.c_str(), "")).size();
    }
    CloseConfigNoSave(cfg);
    benchmark::DoNotOptimize(total);
    state.SetItemsProcessed(state.iterations() * kKeys);
}

void Configure(benchmark::internal::Benchmark* benchmark) {
    benchmark->Unit(benchmark::kMicrosecond)->Repetitions(9)->ReportAggregatesOnly(true);
}

}  // namespace

BENCHMARK(ReadThroughCache)->Name("read_64_keys/config_cache")->Apply(Configure);
BENCHMARK(ReadThroughPlatform)->Name("read_64_keys/platform")->Apply(Configure);

int main(int argc, char** argv) {
    // The change check is one read() of the inotify descriptor, which finds nothing: a system
    // call, some 300 ns where the platform's own read is some 50. The ratio is that cost, the
    // price of seeing other processes' saves before every read.
    return qvbench::RunAndCompare(
        argc, argv,
        {{"Config::ReadString/platform ReadString, no change pending (the change check)",
          "read_64_keys/config_cache", "read_64_keys/platform", qvbench::kNoAim}});
}
