#include "measured_program.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

extern char** environ;

namespace qvbench {

std::optional<double> RunMeasured(const std::vector<std::string>& command) {
    auto measured = RunMeasuredWithCpu(command);
    if (!measured) return std::nullopt;
    return measured->peak_mb;
}

std::optional<Measurement> RunMeasuredWithCpu(const std::vector<std::string>& command) {
    const std::string report = "/tmp/qvbench-" + std::to_string(::getpid()) + ".rss";
    std::vector<std::string> words = {"/usr/bin/time", "-f", "%M %U %S", "-o", report};
    words.insert(words.end(), command.begin(), command.end());
    std::vector<char*> argv;
    for (auto& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);

    pid_t pid = 0;
    if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
        return std::nullopt;
    }
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return std::nullopt;
    }
    std::ifstream figures(report);
    double kilobytes = 0;
    double user = 0;
    double system = 0;
    figures >> kilobytes >> user >> system;
    ::unlink(report.c_str());
    return Measurement{kilobytes / 1024.0, user + system};
}

}  // namespace qvbench
