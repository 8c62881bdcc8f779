#include "measured_program.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

extern char** environ;

namespace qvbench {

std::optional<double> RunMeasured(const std::vector<std::string>& command) {
    const std::string report = "/tmp/qvbench-" + std::to_string(::getpid()) + ".rss";
    std::vector<std::string> words = {"/usr/bin/time", "-f", "%M", "-o", report};
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
    std::ifstream kilobytes(report);
    double rss = 0;
    kilobytes >> rss;
    ::unlink(report.c_str());
    return rss / 1024.0;
}

}  // namespace qvbench
