// What a UUID and a user agent cost. GenerateUUID makes a new generator for every call, so that
// no state survives into a forked child; the yardstick is one Boost generator kept across calls
// and printed the same way. A UserAgentConfig reads three files when it is made; the lookup on a
// kept object is what an application pays per request.

#include <benchmark/benchmark.h>

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include <fstream>
#include <string>

#include "common_utilities/user_agent_config.h"
#include "ratio_reporter.h"

namespace {

using quorvel::utilities::GenerateUUID;
using quorvel::utilities::UserAgentConfig;

void UuidPerCall(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(GenerateUUID());
}

void UuidKeptGenerator(benchmark::State& state) {
    boost::uuids::random_generator generator;
    for (auto _ : state)
        benchmark::DoNotOptimize(boost::uuids::to_string(generator()));
}

// A start-up file of a device with a dozen services, each with its hosts.
void WriteDeviceConfig() {
    static bool written = false;
    if (written) return;
    written = true;
    std::ofstream out("/var/run/device.cfg", std::ios::trunc);
    for (const char* type : {"browser", "store", "cloud", "audiobooks"}) {
        for (int i = 0; i < 12; ++i) {
            out << "useragent_" << type << "_service" << i << ".example=" << type
                << "/[fw] ([device_name]; [resolution]; [locale]) E/[webengine_ver]\n";
        }
    }
    std::ofstream("/mnt/ext1/system/config/global.cfg", std::ios::trunc) << "language=de\n";
}

void UserAgentConstructAndLookUp(benchmark::State& state) {
    WriteDeviceConfig();
    for (auto _ : state) {
        UserAgentConfig config("store", "5.15");
        benchmark::DoNotOptimize(config.userAgentForHost("api.service11.example"));
    }
}

void UserAgentLookUp(benchmark::State& state) {
    WriteDeviceConfig();
    UserAgentConfig config("store", "5.15");
    for (auto _ : state)
        benchmark::DoNotOptimize(config.userAgentForHost("api.service11.example"));
}

void Configure(benchmark::internal::Benchmark* benchmark) {
    benchmark->Unit(benchmark::kMicrosecond)->Repetitions(9)->ReportAggregatesOnly(true);
}

}  // namespace

BENCHMARK(UuidPerCall)->Name("uuid/per_call_generator")->Apply(Configure);
BENCHMARK(UuidKeptGenerator)->Name("uuid/kept_generator")->Apply(Configure);
BENCHMARK(UserAgentConstructAndLookUp)->Name("useragent/construct_and_look_up")->Apply(Configure);
BENCHMARK(UserAgentLookUp)->Name("useragent/look_up")->Apply(Configure);

int main(int argc, char** argv) {
    return qvbench::RunAndCompare(
        argc, argv,
        {{"GenerateUUID/kept Boost generator", "uuid/per_call_generator", "uuid/kept_generator",
          0.10},
         {"made per request/kept UserAgentConfig", "useragent/construct_and_look_up",
          "useragent/look_up", qvbench::kNoAim}});
}
