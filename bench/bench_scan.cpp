// Scanning 5,000 small tagged MP3s in album folders with `qvtool scan`, against TagLib's own
// FileRef loop over the same files (the floor), MPD's database update (`mpc update --wait`) and
// `beet import -A`, the tools a user would otherwise pick. Every side is a program of its own,
// run under /usr/bin/time, start-up and shut-down included, so files per second and peak memory
// compare like with like. MPD and beets get configuration files and databases of their own in
// the sandbox's /tmp.
//
// The time of a side is its processor time (user and system, of the program and everything it
// waited for), not the wall clock: the machine is shared, and MPD scans on a thread of idle
// priority, which any neighbour's work starves, so its wall time measures the neighbours. On an
// idle machine the two agree, since every side works from memory (tmpfs) on one core at a time.
// The wall time is shown beside it, as `wall_s`.
//
// `bench_scan --fileref-loop DIR` is the floor: every file below DIR, in name order, read by a
// FileRef as the library reads it.

#include <benchmark/benchmark.h>
#include <dirent.h>
#include <sys/stat.h>
#include <taglib/fileref.h>
#include <taglib/tag.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "measured_program.h"
#include "ratio_reporter.h"

namespace {

constexpr int kFiles = 5000;
constexpr int kTracksPerAlbum = 10;
const std::string kMusic = "/mnt/ext1/BenchMusic";
const std::string kMpdDir = "/tmp/bench-mpd";
const std::string kBeetsDir = "/tmp/bench-beets";
const std::string kSelf = std::string(QV_BUILD_BIN_DIR) + "/bench_scan";
const std::string kQvtool = std::string(QV_BUILD_BIN_DIR) + "/qvtool";

std::map<std::string, double> g_peaks;  // MB, by benchmark name

[[noreturn]] void Die(const std::string& what) {
    std::fprintf(stderr, "benchmark: %s\n", what.c_str());
    std::exit(1);
}

void Shell(const std::string& command) {
    if (std::system(command.c_str()) != 0) Die("failed: " + command);
}

// ---- The files: one encoded second of tone, with an ID3v2.3 tag of its own per file ---------

std::string Be32(uint32_t value, bool syncsafe) {
    std::string bytes(4, '\0');
    for (int i = 3; i >= 0; --i) {
        bytes[static_cast<size_t>(i)] = static_cast<char>(value & (syncsafe ? 0x7f : 0xff));
        value >>= syncsafe ? 7 : 8;
    }
    return bytes;
}

std::string TextFrame(const char* id, const std::string& text) {
    return std::string(id) + Be32(static_cast<uint32_t>(text.size() + 1), false) +
           std::string(2, '\0') + '\0' + text;
}

std::string Id3(const std::string& title, const std::string& artist, const std::string& album,
                int track) {
    std::string frames = TextFrame("TIT2", title) + TextFrame("TPE1", artist) +
                         TextFrame("TALB", album) + TextFrame("TRCK", std::to_string(track)) +
                         TextFrame("TCON", "Jazz");
    return std::string("ID3\x03\x00\x00", 6) + Be32(static_cast<uint32_t>(frames.size()), true) +
           frames;
}

void MakeCollection() {
    static bool made = false;
    if (made) return;
    Shell("sox -n -r 22050 -c 1 /tmp/bench-tone.wav synth 1 sine 330 && "
          "lame --quiet -b 32 /tmp/bench-tone.wav /tmp/bench-tone.mp3");
    std::ifstream in("/tmp/bench-tone.mp3", std::ios::binary);
    const std::string audio((std::istreambuf_iterator<char>(in)), {});
    for (int n = 0; n < kFiles; ++n) {
        int album = n / kTracksPerAlbum;
        std::string artist = "Artist " + std::to_string(album / 5);
        std::string album_name = "Album " + std::to_string(album);
        std::string folder = kMusic + "/" + artist + "/" + album_name;
        if (n % kTracksPerAlbum == 0) Shell("mkdir -p '" + folder + "'");
        int track = n % kTracksPerAlbum + 1;
        char name[32];
        std::snprintf(name, sizeof name, "/%02d Song.mp3", track);
        std::ofstream(folder + name, std::ios::binary)
            << Id3("Song " + std::to_string(n), artist, album_name, track) << audio;
    }
    made = true;
}

// ---- The floor: a FileRef per file ---------------------------------------------------------

void Walk(const std::string& folder, std::vector<std::string>& files) {
    DIR* dir = ::opendir(folder.c_str());
    if (!dir) return;
    std::vector<std::string> names;
    while (const dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
    }
    ::closedir(dir);
    std::sort(names.begin(), names.end());
    for (const auto& name : names) {
        std::string path = folder + "/" + name;
        struct stat st {};
        if (::stat(path.c_str(), &st) != 0) continue;
        if (S_ISDIR(st.st_mode)) {
            Walk(path, files);
        } else {
            files.push_back(path);
        }
    }
}

int FileRefLoop(const std::string& root) {
    std::vector<std::string> files;
    Walk(root, files);
    size_t read = 0;
    for (const auto& path : files) {
        TagLib::FileRef file(path.c_str(), true, TagLib::AudioProperties::Average);
        if (file.isNull() || !file.tag()) continue;
        const TagLib::Tag& tag = *file.tag();
        std::string text = tag.title().to8Bit(true) + tag.artist().to8Bit(true) +
                           tag.album().to8Bit(true) + tag.genre().to8Bit(true);
        read += text.empty() ? 0 : 1;
        if (file.audioProperties()) read += file.audioProperties()->length() > 100 ? 1 : 0;
    }
    std::printf("%zu of %zu files read\n", read, files.size());
    return read == files.size() ? 0 : 1;
}

// ---- The sides -----------------------------------------------------------------------------

void Measure(benchmark::State& state, const std::string& name, const std::string& setup,
             const std::string& command) {
    MakeCollection();
    double peak = 0;
    double wall = 0;
    for (auto _ : state) {
        Shell(setup);
        const auto start = std::chrono::steady_clock::now();
        auto measured = qvbench::RunMeasuredWithCpu({"sh", "-c", command});
        wall += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (!measured) Die("failed: " + command);
        state.SetIterationTime(measured->cpu_seconds);
        peak = std::max(peak, measured->peak_mb);
    }
    state.SetItemsProcessed(state.iterations() * kFiles);
    state.counters["peak_MB"] = peak;
    state.counters["wall_s"] = wall / static_cast<double>(state.iterations());
    // Each repetition runs this function anew: the ratio takes the highest of them all.
    g_peaks[name] = std::max(g_peaks[name], peak);
}

// One run a repetition, timed by the processor time each run reports.
void TimeByProcessor(benchmark::internal::Benchmark* benchmark, int repetitions) {
    benchmark->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(1);
    benchmark->Repetitions(repetitions)->ReportAggregatesOnly(true);
}

void Qvtool(benchmark::State& state) {
    Measure(state, "scan_5000/qvtool", "rm -f /mnt/ext1/system/player-2/player-2.db*",
            kQvtool + " scan --no-books " + kMusic + " >/dev/null 2>&1");
}

void FileRef(benchmark::State& state) {
    Measure(state, "scan_5000/fileref_loop", "true", kSelf + " --fileref-loop " + kMusic + " >/dev/null");
}

void Mpd(benchmark::State& state) {
    Shell("mkdir -p " + kMpdDir);
    std::ofstream(kMpdDir + "/mpd.conf")
        << "music_directory \"" << kMusic << "\"\n"
        << "db_file \"" << kMpdDir << "/database\"\n"
        << "log_file \"" << kMpdDir << "/log\"\n"
        << "bind_to_address \"" << kMpdDir << "/socket\"\n"
        << "auto_update \"no\"\nzeroconf_enabled \"no\"\n"
        << "audio_output {\n  type \"null\"\n  name \"none\"\n}\n";
    // The daemon starts on an empty database, is told to update, and stops when it is done.
    const std::string socket = kMpdDir + "/socket";
    Measure(state, "scan_5000/mpd", "rm -f " + kMpdDir + "/database " + socket,
            "mpd --no-daemon " + kMpdDir + "/mpd.conf 2>/dev/null & pid=$!; "
            "while [ ! -S " + socket + " ]; do sleep 0.01; done; "
            "mpc --host " + socket + " update --wait >/dev/null && kill $pid && wait $pid");
}

void Beets(benchmark::State& state) {
    Shell("mkdir -p " + kBeetsDir + "/library");
    std::ofstream(kBeetsDir + "/config.yaml")
        << "directory: " << kBeetsDir << "/library\n"
        << "library: " << kBeetsDir << "/library.db\n"
        << "plugins: []\n"
        << "import:\n  copy: no\n  move: no\n  write: no\n  autotag: no\n  resume: no\n"
        << "  incremental: no\n  quiet: yes\n";
    Measure(state, "scan_5000/beets", "rm -f " + kBeetsDir + "/library.db " + kBeetsDir + "/state.pickle",
            "BEETSDIR=" + kBeetsDir + " beet -c " + kBeetsDir + "/config.yaml import -A -q " +
                kMusic + " >/dev/null 2>&1");
}

// The peers' aim is to need no more memory than they do. The floor links TagLib alone, where
// qvtool brings the whole library and its dependencies: that ratio is for scale.
void PrintMemoryRatios() {
    std::printf("\nPeak memory:\n");
    const std::string ours = "scan_5000/qvtool";
    for (const auto& [name, aim] : std::vector<std::pair<std::string, const char*>>{
             {"scan_5000/fileref_loop", "for scale, no aim"},
             {"scan_5000/mpd", "aim: no more"},
             {"scan_5000/beets", "aim: no more"}}) {
        if (!g_peaks.count(ours) || !g_peaks.count(name)) continue;
        const double ratio = g_peaks[ours] / g_peaks[name];
        const bool missed = std::string(aim) != "for scale, no aim" && ratio > 1.0;
        std::printf("qvtool/%s peak memory: %.1f MB / %.1f MB = %.2fx (%s)%s\n",
                    name.substr(name.find('/') + 1).c_str(), g_peaks[ours], g_peaks[name], ratio,
                    aim, missed ? " MISSED" : "");
    }
}

}  // namespace

BENCHMARK(Qvtool)->Name("scan_5000/qvtool")->Apply([](auto* b) { TimeByProcessor(b, 3); });
BENCHMARK(FileRef)->Name("scan_5000/fileref_loop")->Apply([](auto* b) { TimeByProcessor(b, 3); });
BENCHMARK(Mpd)->Name("scan_5000/mpd")->Apply([](auto* b) { TimeByProcessor(b, 3); });
BENCHMARK(Beets)->Name("scan_5000/beets")->Apply([](auto* b) { TimeByProcessor(b, 1); });

int main(int argc, char** argv) {
    if (argc == 3 && std::string(argv[1]) == "--fileref-loop") return FileRefLoop(argv[2]);
    int result = qvbench::RunAndCompare(
        argc, argv,
        {{"qvtool/FileRef loop, scan 5,000 files", "scan_5000/qvtool", "scan_5000/fileref_loop",
          0.15},
         {"qvtool/mpd update, scan 5,000 files", "scan_5000/qvtool", "scan_5000/mpd", 0},
         {"qvtool/beet import -A, scan 5,000 files", "scan_5000/qvtool", "scan_5000/beets", 0}});
    PrintMemoryRatios();
    return result;
}
