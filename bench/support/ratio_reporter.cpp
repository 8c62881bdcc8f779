#include "ratio_reporter.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace qvbench {
namespace {

std::string KeyOf(const benchmark::BenchmarkReporter::Run& run) {
    const auto& name = run.run_name;
    return name.args.empty() ? name.function_name : name.function_name + "/" + name.args;
}

bool HasAim(double tolerance) {
    return tolerance > kNoAim;
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    size_t middle = values.size() / 2;
    return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

}  // namespace

void RecordingReporter::ReportRuns(const std::vector<Run>& runs) {
    for (const Run& run : runs) {
        if (run.error_occurred) continue;
        double seconds =
            run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
        if (run.run_type == Run::RT_Iteration)
            samples_[KeyOf(run)].push_back(seconds);
        else if (run.aggregate_name == "median")
            medians_[KeyOf(run)] = seconds;
    }
    ConsoleReporter::ReportRuns(runs);
}

double RecordingReporter::RealSeconds(const std::string& name) const {
    auto samples = samples_.find(name);
    if (samples != samples_.end() && !samples->second.empty()) return Median(samples->second);
    auto median = medians_.find(name);
    return median != medians_.end() ? median->second : -1.0;
}

int PrintRatios(const RecordingReporter& reporter, const std::vector<Ratio>& ratios,
                std::FILE* out) {
    int missed = 0;
    for (const Ratio& ratio : ratios) {
        double numerator = reporter.RealSeconds(ratio.numerator);
        double denominator = reporter.RealSeconds(ratio.denominator);
        std::string aim = AimText(ratio.tolerance);
        if (numerator < 0 || denominator <= 0) {
            if (!HasAim(ratio.tolerance)) {
                std::fprintf(out, "%s: not measured\n", ratio.label.c_str());
                continue;
            }
            std::fprintf(out, "%s: not measured (%s)\n", ratio.label.c_str(), aim.c_str());
            ++missed;
            continue;
        }
        double value = numerator / denominator;
        if (!HasAim(ratio.tolerance)) {
            std::fprintf(out, "%s: %.3gx (for scale, no aim)\n", ratio.label.c_str(), value);
            continue;
        }
        bool met = value <= 1.0 + ratio.tolerance;
        std::fprintf(out, "%s: %.3gx (%s)%s\n", ratio.label.c_str(), value, aim.c_str(),
                     met ? "" : " MISSED");
        missed += met ? 0 : 1;
    }
    std::fflush(out);
    return missed;
}

std::string AimText(double tolerance) {
    if (!HasAim(tolerance)) return "for scale, no aim";
    if (tolerance < 0) {
        char factor[32];
        std::snprintf(factor, sizeof factor, "%.3g", 1.0 / (1.0 + tolerance));
        return std::string("aim: at least ") + factor + "x faster";
    }
    int percent = static_cast<int>(tolerance * 100 + 0.5);
    if (percent == 0) return "aim: no slower";
    return "aim: within " + std::to_string(percent) + "%";
}

int RunAndCompare(int argc, char** argv, const std::vector<Ratio>& ratios) {
    static const char kInterleave[] = "--benchmark_enable_random_interleaving";
    std::vector<char*> args(argv, argv + argc);
    bool chosen = std::any_of(args.begin(), args.end(), [](const char* arg) {
        return std::strncmp(arg, kInterleave, sizeof kInterleave - 1) == 0;
    });
    std::string interleave = std::string(kInterleave) + "=true";
    if (!chosen) args.insert(args.begin() + 1, interleave.data());
    int count = static_cast<int>(args.size());
    args.push_back(nullptr);

    benchmark::Initialize(&count, args.data());
    if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 1;
    // Colour only for a terminal: the output is often kept in a file.
    RecordingReporter reporter(::isatty(STDOUT_FILENO) ? RecordingReporter::OO_ColorTabular
                                                       : RecordingReporter::OO_Tabular);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::fflush(stdout);
    std::printf("\n");
    PrintRatios(reporter, ratios);
    benchmark::Shutdown();
    return 0;
}

}  // namespace qvbench
