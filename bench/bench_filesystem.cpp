// File operations against the programs that do the same on the command line, in the same run:
// a 1 GB folder of 2,000 files moved from the internal storage to the card (MoveFiles against
// mv), and a folder of 20,000 files removed (RemoveDir against rm -r). Inside the sandbox both
// storages are tmpfs, as on the device they are flash: what is timed is the work of the code.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "common_utilities/filesystem.h"
#include "ratio_reporter.h"

namespace {

namespace fs = quorvel::system::filesystem;

constexpr int kMoveFiles = 2000;
constexpr size_t kMoveFileBytes = 512 * 1024;  // 2,000 of them: 1 GB
constexpr int kRemoveFolders = 100;
constexpr int kRemoveFilesPerFolder = 200;  // 20,000 files
const std::string kSource = "/mnt/ext1/bench/Books";
const std::string kCardParent = "/mnt/ext2/bench";
const std::string kCardTarget = kCardParent + "/Books";
const std::string kDoomed = "/mnt/ext1/bench/doomed";

[[noreturn]] void Die(const std::string& message) {
    std::fprintf(stderr, "bench_filesystem: %s\n", message.c_str());
    std::exit(1);
}

void WriteFile(const std::string& path, const std::vector<char>& data) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || ::write(fd, data.data(), data.size()) != static_cast<ssize_t>(data.size())) {
        Die("can't write " + path);
    }
    ::close(fd);
}

// Folders of 100 files each, the files `bytes` long.
void MakeTree(const std::string& root, int files, size_t bytes) {
    std::vector<char> data(bytes, 'q');
    for (int i = 0; i < files; ++i) {
        std::string dir = root + "/folder " + std::to_string(i / 100);
        if (i % 100 == 0 && fs::CreateDirectoryTree(dir + "/") != 0) Die("can't make " + dir);
        WriteFile(dir + "/book " + std::to_string(i) + ".epub", data);
    }
}

void Clean() {
    if (std::system("rm -rf /mnt/ext1/bench /mnt/ext2/bench") != 0) Die("can't clean up");
}

void Run(const std::string& command) {
    if (std::system(command.c_str()) != 0) Die(command + " failed");
}

void Check(bool moved) {
    if (!moved || fs::IsFileExist(kSource) ||
        !fs::IsFileExist(kCardTarget + "/folder 19/book 1999.epub")) {
        Die("the move did not happen");
    }
}

// Each repetition moves a freshly made tree; making it is not timed.
template <typename Move>
void TimeMove(benchmark::State& state, Move move) {
    for (auto _ : state) {
        state.PauseTiming();
        Clean();
        MakeTree(kSource, kMoveFiles, kMoveFileBytes);
        fs::CreateDirectoryTree(kCardParent + "/");
        state.ResumeTiming();
        bool moved = move();
        state.PauseTiming();
        Check(moved);
        state.ResumeTiming();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kMoveFiles *
                            static_cast<int64_t>(kMoveFileBytes));
}

void MoveLibrary(benchmark::State& state) {
    TimeMove(state, [] {
        return fs::CreateDirectoryTree(kCardTarget + "/") == 0 &&
               fs::MoveFiles(kCardTarget, kSource, true) == 0;
    });
}

void MoveProgram(benchmark::State& state) {
    TimeMove(state, [] {
        Run("mv '" + kSource + "' '" + kCardTarget + "'");
        return true;
    });
}

template <typename Remove>
void TimeRemove(benchmark::State& state, Remove remove) {
    for (auto _ : state) {
        state.PauseTiming();
        Clean();
        MakeTree(kDoomed, kRemoveFolders * kRemoveFilesPerFolder, 16);
        state.ResumeTiming();
        remove();
        state.PauseTiming();
        if (fs::IsFileExist(kDoomed)) Die("the removal left the folder");
        state.ResumeTiming();
    }
}

void RemoveLibrary(benchmark::State& state) {
    TimeRemove(state, [] {
        if (fs::RemoveDir(kDoomed) != 0) Die("RemoveDir failed");
    });
}

void RemoveProgram(benchmark::State& state) {
    TimeRemove(state, [] { Run("rm -r '" + kDoomed + "'"); });
}

void Configure(benchmark::internal::Benchmark* benchmark) {
    qvbench::TimeInMilliseconds(benchmark, 7, true);
}

}  // namespace

BENCHMARK(MoveLibrary)->Name("move_1gb_2000_files/library")->Apply(Configure);
BENCHMARK(MoveProgram)->Name("move_1gb_2000_files/mv")->Apply(Configure);
BENCHMARK(RemoveLibrary)->Name("remove_20000_files/library")->Apply(Configure);
BENCHMARK(RemoveProgram)->Name("remove_20000_files/rm")->Apply(Configure);

int main(int argc, char** argv) {
    int rc =
        qvbench::RunAndCompare(argc, argv,
                               {{"MoveFiles/mv, 1 GB in 2,000 files, internal storage to card",
                                 "move_1gb_2000_files/library", "move_1gb_2000_files/mv", 0.10},
                                {"RemoveDir/rm -r, 20,000 files", "remove_20000_files/library",
                                 "remove_20000_files/rm", 0.10}});
    Clean();
    return rc;
}
