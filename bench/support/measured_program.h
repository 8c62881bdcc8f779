// Runs a program for a benchmark and measures its peak memory. The program runs under
// /usr/bin/time, which reports the child's own high-water mark: a child spawned straight from the
// benchmark would be charged the benchmark's peak too.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace qvbench {

// Peak resident memory of one successful run in MB; nothing when the program can't be started
// or doesn't exit with 0.
std::optional<double> RunMeasured(const std::vector<std::string>& command);

struct Measurement {
    double peak_mb;
    // User and system time of the program and of every process it waited for. On a shared
    // machine this is what the work cost, whatever the neighbours took of the cores meanwhile.
    double cpu_seconds;
};

// RunMeasured with the processor time as well.
std::optional<Measurement> RunMeasuredWithCpu(const std::vector<std::string>& command);

}  // namespace qvbench
