// Publications of ServicesDownloadStatus from 8 processes at once, against the same cycle
// written plainly: open, flock, read the file, put this service's record among the others,
// write it back, look which services live and set the indicator.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "common_utilities/services_download_status.h"
#include "ratio_reporter.h"

namespace {

using quorvel::utilities::DownloadStatus;
using quorvel::utilities::ServicesDownloadStatus;

constexpr int kProcesses = 8;
constexpr int kUpdates = 100;
constexpr const char* kPath = "/tmp/services_download_status";

void InProcesses(const std::function<void(int)>& work) {
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p) {
        pid_t pid = fork();
        if (pid == 0) {
            work(p);
            _exit(0);
        }
        children.push_back(pid);
    }
    for (pid_t pid : children) waitpid(pid, nullptr, 0);
}

void Library(benchmark::State& state) {
    unlink(kPath);
    for (auto _ : state) {
        InProcesses([](int p) {
            DownloadStatus status;
            status.Init("@service" + std::to_string(p), getpid());
            for (int i = 0; i < kUpdates; ++i) status.SetTotalProgressStatus(i, kUpdates, 0, 0);
        });
    }
    state.SetItemsProcessed(state.iterations() * kProcesses * kUpdates);
}

// ---- The plain cycle ------------------------------------------------------------------------

void PutInt(std::string* out, int32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) out->push_back(static_cast<char>(value >> shift));
}

int32_t GetInt(const std::string& data, size_t at) {
    uint32_t value = 0;
    for (size_t i = 0; i < 4; ++i) value = value << 8 | static_cast<unsigned char>(data[at + i]);
    return static_cast<int32_t>(value);
}

// A record of the same form the library writes, with only the totals set.
std::string Record(const std::string& name, int32_t pid, int32_t a, int32_t b) {
    std::string out = name + '\0';
    PutInt(&out, pid);
    PutInt(&out, 1);
    PutInt(&out, 0);
    out += '\0';
    for (int32_t total : {a, b, 0, 0}) PutInt(&out, total);
    out += std::string(3, '\0') + std::string(16, '\0');
    PutInt(&out, 0);
    return out + '\0';
}

// Splits the file into records by walking their fields; false on damage.
bool Split(const std::string& data, std::map<std::string, std::string>* records) {
    size_t at = 0;
    auto skip_string = [&] {
        size_t end = data.find('\0', at);
        if (end == std::string::npos) return false;
        at = end + 1;
        return true;
    };
    auto skip_ints = [&](size_t n) {
        at += 4 * n;
        return at <= data.size();
    };
    auto skip_file = [&] { return skip_string() && skip_string() && skip_string() && skip_ints(4); };
    while (at < data.size()) {
        size_t start = at;
        if (!skip_string()) return false;
        std::string name = data.substr(start, at - start - 1);
        if (!skip_ints(3) || !skip_string() || !skip_ints(4) || !skip_file() || !skip_ints(1))
            return false;
        int32_t files = GetInt(data, at - 4);
        for (int32_t f = 0; f < files; ++f)
            if (!skip_file()) return false;
        if (!skip_string()) return false;
        (*records)[name] = data.substr(start, at - start);
    }
    return true;
}

bool Alive(const std::string& record) {
    int32_t pid = GetInt(record, record.find('\0') + 1);
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%i/cmdline", pid);
    struct stat info;
    return pid != 0 && stat(path, &info) == 0;
}

void PlainPublish(const std::string& name, const std::string& record) {
    int fd = open(kPath, O_RDWR | O_CREAT | O_CLOEXEC, 0777);
    flock(fd, LOCK_EX);
    std::string data;
    char piece[1023];
    for (ssize_t n; (n = read(fd, piece, sizeof piece)) > 0;) data.append(piece, static_cast<size_t>(n));
    std::map<std::string, std::string> records;
    Split(data, &records);
    records[name] = record;
    std::string out;
    bool downloading = false;
    for (const auto& entry : records) {
        out += entry.second;
        downloading = downloading || Alive(entry.second);
    }
    ftruncate(fd, 0);
    lseek(fd, 0, SEEK_SET);
    ssize_t written = write(fd, out.data(), out.size());
    (void)written;
    mg_set_tarvey_status(downloading ? 2 : 0);
    close(fd);
}

void Plain(benchmark::State& state) {
    unlink(kPath);
    for (auto _ : state) {
        InProcesses([](int p) {
            std::string name = "@service" + std::to_string(p);
            for (int i = 0; i < kUpdates; ++i) PlainPublish(name, Record(name, getpid(), i, kUpdates));
        });
    }
    state.SetItemsProcessed(state.iterations() * kProcesses * kUpdates);
}

void Configure(benchmark::internal::Benchmark* benchmark) {
    qvbench::TimeInMilliseconds(benchmark, 10, true);
}

}  // namespace

BENCHMARK(Library)->Name("updates_8x100/library")->Apply(Configure);
BENCHMARK(Plain)->Name("updates_8x100/plain")->Apply(Configure);

int main(int argc, char** argv) {
    return qvbench::RunAndCompare(
        argc, argv,
        {{"library/plain 800 publications from 8 processes", "updates_8x100/library",
          "updates_8x100/plain", 0.20}});
}
