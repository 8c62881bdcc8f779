// Benchmarks that time two ways of doing the same work (the library's way and a yardstick) say,
// after the usual table, how far apart the two came out in the same run.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace qvbench {

// Prints the console table as usual and keeps the real time of every benchmark for ratios.
class RecordingReporter : public benchmark::ConsoleReporter {
public:
    explicit RecordingReporter(OutputOptions options = OO_Tabular) : ConsoleReporter(options) {}

    void ReportRuns(const std::vector<Run>& runs) override;

    // Real time of one iteration in seconds, the median over repetitions; negative when the
    // benchmark did not run or failed. `name` is the benchmark's name, with its arguments
    // ("insert/wrapper", "lookup/raw/64") but without the decorations that options add
    // ("repeats:5", "real_time").
    double RealSeconds(const std::string& name) const;

private:
    std::map<std::string, std::vector<double>> samples_;  // one per repetition
    std::map<std::string, double> medians_;               // when only aggregates are reported
};

struct Ratio {
    std::string label;      // "wrapper/raw insert 100k"
    std::string numerator;  // benchmark names as RealSeconds takes them
    std::string denominator;
    double tolerance;  // 0.05: the numerator may take at most 5% longer; kNoAim: for scale only;
                       // AtLeastTimesFaster(2): at most half as long
};

// The tolerance of a ratio that is reported for scale, with no aim to meet.
constexpr double kNoAim = -1.0;

// The tolerance of a ratio whose numerator must be `factor` times as fast as the yardstick.
constexpr double AtLeastTimesFaster(double factor) {
    return 1.0 / factor - 1.0;
}

// "aim: within 5%", "aim: no slower" (tolerance 0), "aim: at least 2x faster", or "for scale,
// no aim" (kNoAim).
std::string AimText(double tolerance);

// One line per ratio, "wrapper/raw insert 100k: 1.03x (aim: within 5%)" (three significant
// digits, so that 0.00075x stays readable), marked when the aim is
// missed or a side did not run. Returns how many ratios missed.
int PrintRatios(const RecordingReporter& reporter, const std::vector<Ratio>& ratios,
                std::FILE* out = stdout);

// The whole main of a comparing benchmark: flags, run, table, ratios. Repetitions are
// interleaved at random unless the command line says otherwise, so that a drift of the machine
// does not favour whichever side runs first. The result is 0 even when an aim is missed: a
// benchmark reports, the reader judges.
int RunAndCompare(int argc, char** argv, const std::vector<Ratio>& ratios);

// The timing every comparison uses: wall-clock milliseconds over `repetitions` runs, reported as
// their aggregates. `one_pass` runs the body once per repetition, for bodies that are long on
// their own (a download, a move of a gigabyte).
inline void TimeInMilliseconds(benchmark::internal::Benchmark* benchmark, int repetitions,
                               bool one_pass = false) {
    benchmark->Unit(benchmark::kMillisecond)->UseRealTime();
    if (one_pass) benchmark->Iterations(1);
    benchmark->Repetitions(repetitions)->ReportAggregatesOnly(true);
}

}  // namespace qvbench
