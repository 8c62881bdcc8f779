// addTrack against the bare C API storing the same tracks with the same two statements per track,
// on the same schema with the same PRAGMAs, each statement committing by itself as addTrack's do.
// A third run keeps its two statements prepared across tracks: not the same work, but it shows
// what preparing per call costs.

#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "common_utilities/media_library_manager.h"
#include "media_bench_data.h"
#include "ratio_reporter.h"

namespace {

using namespace mediabench;
using quorvel::utilities::MediaLibraryManager;

constexpr int kTracks = 20000;
const std::string kRawPath = "/mnt/ext1/bench/raw.db";

constexpr const char* kFolderInsert =
    "INSERT OR IGNORE INTO folders (storageid, name) VALUES (?, ?)";
constexpr const char* kTrackInsert =
    "INSERT INTO tracks (title, artist, album, track_no, genre, duration, filename, folder, size, "
    "fast_hash, timestamp) VALUES (?, ?, ?, ?, ?, ?, ?, (SELECT id FROM folders f WHERE f.name =? "
    "AND f.storageid = ?), ?, ?, ?) ;";
const char* const kPragmas[] = {"PRAGMA page_size=8192", "PRAGMA synchronous=1",
                                "PRAGMA journal_mode = WAL", "PRAGMA temp_store = 2",
                                "PRAGMA locking_mode = NORMAL"};

const std::vector<Track>& Tracks() {
    static const std::vector<Track> tracks = MakeTracks(kTracks);
    return tracks;
}

void RemoveDatabase(const std::string& path) {
    for (const char* suffix : {"", "-wal", "-shm", ".lock"})
        ::unlink((path + suffix).c_str());
}

// ---- The library ----------------------------------------------------------------------------

void AddTrackLibrary(benchmark::State& state) {
    const auto& tracks = Tracks();
    for (auto _ : state) {
        state.PauseTiming();
        RemoveDatabase(kLibraryPath);
        auto library = std::make_unique<MediaLibraryManager>();
        state.ResumeTiming();
        for (const Track& track : tracks) {
            if (library->addTrack(track) != QV_OK) Die("addTrack", 0);
        }
        state.PauseTiming();
        library.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kTracks);
}

// ---- The bare C API -------------------------------------------------------------------------

sqlite3* FreshRawLibrary() {
    RemoveDatabase(kRawPath);
    ::mkdir("/mnt/ext1/bench", 0755);
    sqlite3* db = OpenRaw(kRawPath);
    ExecRaw(db, "BEGIN");
    for (const std::string& statement : MediaLibraryManager::schema_statements)
        ExecRaw(db, statement);
    ExecRaw(db, "COMMIT");
    for (const char* pragma : kPragmas)
        ExecRaw(db, pragma);
    return db;
}

struct SplitPath {
    std::string folder;
    std::string name;
};

SplitPath Split(const std::string& path) {
    size_t slash = path.rfind('/');
    if (slash == std::string::npos) return {"", path};
    return {path.substr(0, slash), path.substr(slash + 1)};
}

void BindText(sqlite3_stmt* st, int index, const std::string& text) {
    sqlite3_bind_text(st, index, text.c_str(), -1, SQLITE_TRANSIENT);
}

void BindTrack(sqlite3_stmt* insert, const Track& track, const SplitPath& split) {
    BindText(insert, 1, track.title);
    BindText(insert, 2, track.artist);
    BindText(insert, 3, track.album);
    sqlite3_bind_int(insert, 4, track.track_no);
    BindText(insert, 5, track.genre);
    sqlite3_bind_int(insert, 6, track.duration);
    BindText(insert, 7, split.name);
    BindText(insert, 8, split.folder);
    sqlite3_bind_int64(insert, 9, 1);
    sqlite3_bind_int(insert, 10, track.size);
    BindText(insert, 11, track.fast_hash);
    sqlite3_bind_int64(insert, 12, static_cast<sqlite3_int64>(std::time(nullptr)));
}

void AddTrackRaw(sqlite3* db, const Track& track) {
    const SplitPath split = Split(track.path);
    sqlite3_stmt* folder = nullptr;
    Check(sqlite3_prepare_v2(db, kFolderInsert, -1, &folder, nullptr), SQLITE_OK, "prepare");
    sqlite3_bind_int64(folder, 1, 1);
    BindText(folder, 2, split.folder);
    sqlite3_step(folder);
    sqlite3_finalize(folder);

    sqlite3_stmt* insert = nullptr;
    Check(sqlite3_prepare_v2(db, kTrackInsert, -1, &insert, nullptr), SQLITE_OK, "prepare");
    BindTrack(insert, track, split);
    Check(sqlite3_step(insert), SQLITE_DONE, "insert");
    sqlite3_finalize(insert);
}

void AddTrackBareApi(benchmark::State& state) {
    const auto& tracks = Tracks();
    for (auto _ : state) {
        state.PauseTiming();
        sqlite3* db = FreshRawLibrary();
        state.ResumeTiming();
        for (const Track& track : tracks)
            AddTrackRaw(db, track);
        state.PauseTiming();
        sqlite3_close(db);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kTracks);
}

void AddTrackBareApiPreparedOnce(benchmark::State& state) {
    const auto& tracks = Tracks();
    for (auto _ : state) {
        state.PauseTiming();
        sqlite3* db = FreshRawLibrary();
        state.ResumeTiming();
        sqlite3_stmt* folder = nullptr;
        sqlite3_stmt* insert = nullptr;
        Check(sqlite3_prepare_v2(db, kFolderInsert, -1, &folder, nullptr), SQLITE_OK, "prepare");
        Check(sqlite3_prepare_v2(db, kTrackInsert, -1, &insert, nullptr), SQLITE_OK, "prepare");
        for (const Track& track : tracks) {
            const SplitPath split = Split(track.path);
            sqlite3_bind_int64(folder, 1, 1);
            BindText(folder, 2, split.folder);
            sqlite3_step(folder);
            sqlite3_reset(folder);
            BindTrack(insert, track, split);
            Check(sqlite3_step(insert), SQLITE_DONE, "insert");
            sqlite3_reset(insert);
        }
        sqlite3_finalize(folder);
        sqlite3_finalize(insert);
        state.PauseTiming();
        sqlite3_close(db);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kTracks);
}

void Configure(benchmark::internal::Benchmark* benchmark) {
    qvbench::TimeInMilliseconds(benchmark, 7, true);
}

}  // namespace

BENCHMARK(AddTrackLibrary)->Name("addTrack_20k/library")->Apply(Configure);
BENCHMARK(AddTrackBareApi)->Name("addTrack_20k/raw")->Apply(Configure);
BENCHMARK(AddTrackBareApiPreparedOnce)->Name("addTrack_20k/raw_prepared_once")->Apply(Configure);

int main(int argc, char** argv) {
    return qvbench::RunAndCompare(
        argc, argv,
        {{"library/raw addTrack 20k", "addTrack_20k/library", "addTrack_20k/raw", 0.10}});
}
