// The track queries over a library of 100,000 tracks against the bare C API running the same
// statements on a connection with the same collation, reading the rows into the same records.
// The sorted list also reports what it costs in memory: the heap the list holds when it is
// returned, and how far the process's resident size peaked while it was made (SQLite's sorter
// included).

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sqlite3.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "common_utilities/media_library_manager.h"
#include "media_bench_data.h"
#include "ratio_reporter.h"

namespace {

using namespace mediabench;
using quorvel::utilities::MediaLibraryManager;
using TrackGroup = MediaLibraryManager::TrackGroup;

constexpr int kTracks = 100000;
constexpr const char* kSearchText = "harbour";

// The statements as the manager composes them for the internal storage alone, the collation
// loaded.
const std::string kJoinAndFilter =
    " FROM tracks t INNER JOIN folders f ON t.folder = f.id WHERE (f.storageid = 1)";
const std::string kCollation = " COLLATE locale_dependent_collation ";
const std::string kTracksByTitle =
    " SELECT t.id, title, artist, album, track_no, genre, duration, filename, f.name, size, "
    "fast_hash, timestamp " +
    kJoinAndFilter + " ORDER BY title " + kCollation + " ASC ";
const std::string kArtistGroups =
    " SELECT COUNT(t.id) , artist, CASE artist WHEN '' THEN 1 ELSE 0 END AS groups_sort_order" +
    kJoinAndFilter + " GROUP BY artist ORDER BY groups_sort_order, artist" + kCollation + " ASC ";
const std::string kSearch =
    " SELECT t.id, title, artist, album, track_no, genre, duration, filename, f.name, size, "
    "fast_hash " +
    kJoinAndFilter + " AND (" + "    t.title    LIKE '%" + kSearchText + "%'" +
    " OR t.artist   LIKE '%" + kSearchText + "%'" + " OR t.album    LIKE '%" + kSearchText + "%'" +
    " OR t.filename LIKE '%" + kSearchText + "%'" + ")";

// ---- The library of 100,000 tracks ----------------------------------------------------------

// Made by the manager (schema, PRAGMAs), filled in one transaction through the bare API.
void MakeLibrary() {
    for (const char* suffix : {"", "-wal", "-shm"})
        ::unlink((std::string(kLibraryPath) + suffix).c_str());
    { MediaLibraryManager create; }
    sqlite3* db = OpenRaw(kLibraryPath);
    ExecRaw(db, "BEGIN");
    sqlite3_stmt* folder = nullptr;
    sqlite3_stmt* insert = nullptr;
    Check(sqlite3_prepare_v2(db, "INSERT OR IGNORE INTO folders (storageid, name) VALUES (1, ?)",
                             -1, &folder, nullptr),
          SQLITE_OK, "prepare");
    Check(sqlite3_prepare_v2(db,
                             "INSERT INTO tracks (title, artist, album, track_no, genre, duration, "
                             "filename, folder, size, fast_hash, timestamp) VALUES (?, ?, ?, ?, ?, "
                             "?, ?, (SELECT id FROM folders f WHERE f.name = ? AND f.storageid = "
                             "1), ?, ?, 1700000000)",
                             -1, &insert, nullptr),
          SQLITE_OK, "prepare");
    auto text = [](sqlite3_stmt* st, int index, const std::string& value) {
        sqlite3_bind_text(st, index, value.c_str(), -1, SQLITE_TRANSIENT);
    };
    for (const Track& track : MakeTracks(kTracks)) {
        const size_t slash = track.path.rfind('/');
        const std::string dir = track.path.substr(0, slash);
        text(folder, 1, dir);
        sqlite3_step(folder);
        sqlite3_reset(folder);
        text(insert, 1, track.title);
        text(insert, 2, track.artist);
        text(insert, 3, track.album);
        sqlite3_bind_int(insert, 4, track.track_no);
        text(insert, 5, track.genre);
        sqlite3_bind_int(insert, 6, track.duration);
        text(insert, 7, track.path.substr(slash + 1));
        text(insert, 8, dir);
        sqlite3_bind_int(insert, 9, track.size);
        text(insert, 10, track.fast_hash);
        Check(sqlite3_step(insert), SQLITE_DONE, "insert");
        sqlite3_reset(insert);
    }
    sqlite3_finalize(folder);
    sqlite3_finalize(insert);
    ExecRaw(db, "COMMIT");
    sqlite3_close(db);
}

MediaLibraryManager& Library() {
    static std::unique_ptr<MediaLibraryManager> library = [] {
        MakeLibrary();
        return std::make_unique<MediaLibraryManager>();
    }();
    return *library;
}

// The bare connection, set up as the manager's: the same PRAGMAs, the collation of the same
// language.
sqlite3* RawLibrary() {
    static sqlite3* db = [] {
        Library();
        sqlite3* raw = OpenRaw(kLibraryPath);
        SetUpLikeTheLibrary(raw);
        std::string language = mgstate && mgstate->language ? mgstate->language : "en";
        ExecRaw(raw,
                "SELECT icu_load_collation('" + language + "', 'locale_dependent_collation');");
        return raw;
    }();
    return db;
}

std::vector<Track> RawTracks(const std::string& sql, bool with_timestamp) {
    std::vector<Track> tracks;
    sqlite3_stmt* st = nullptr;
    Check(sqlite3_prepare_v2(RawLibrary(), sql.c_str(), -1, &st, nullptr), SQLITE_OK, "prepare");
    while (sqlite3_step(st) == SQLITE_ROW) {
        tracks.emplace_back();
        Track& track = tracks.back();
        track.id = sqlite3_column_int(st, 0);
        track.title = ColumnText(st, 1);
        track.artist = ColumnText(st, 2);
        track.album = ColumnText(st, 3);
        track.track_no = sqlite3_column_int(st, 4);
        track.genre = ColumnText(st, 5);
        track.duration = sqlite3_column_int(st, 6);
        track.path = ColumnText(st, 8) + "/" + ColumnText(st, 7);
        track.size = sqlite3_column_int(st, 9);
        track.fast_hash = ColumnText(st, 10);
        if (with_timestamp) track.timestamp = sqlite3_column_int(st, 11);
    }
    sqlite3_finalize(st);
    return tracks;
}

std::vector<TrackGroup> RawGroups(const std::string& sql) {
    std::vector<TrackGroup> groups;
    sqlite3_stmt* st = nullptr;
    Check(sqlite3_prepare_v2(RawLibrary(), sql.c_str(), -1, &st, nullptr), SQLITE_OK, "prepare");
    while (sqlite3_step(st) == SQLITE_ROW) {
        TrackGroup group;
        group.type = MediaLibraryManager::GroupArtist;
        group.count = sqlite3_column_int(st, 0);
        group.name = ColumnText(st, 1);
        groups.push_back(std::move(group));
    }
    sqlite3_finalize(st);
    return groups;
}

// ---- Memory of the sorted list --------------------------------------------------------------

size_t HeapInUse() {
    struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

long StatusKiB(const std::string& field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind(field + ":", 0) == 0) return std::stol(line.substr(field.size() + 1));
    }
    return -1;
}

struct ListMemory {
    double list_mib = 0;
    double peak_mib = 0;
};

// Held: the heap that the returned list occupies. Peak: the growth of the resident size while the
// list is made, measured from a reset high-water mark.
ListMemory MeasureSortedList() {
    // Free pages go back to the system first, so that the list's pages count as growth.
    malloc_trim(0);
    std::ofstream("/proc/self/clear_refs") << "5";
    const long rss_before = StatusKiB("VmRSS");
    const size_t heap_before = HeapInUse();
    auto tracks = Library().getTracks(MediaLibraryManager::ByTitle, MediaLibraryManager::GroupNone,
                                      "", false);
    Expect(tracks, kTracks, "getTracks");
    ListMemory memory;
    memory.list_mib = static_cast<double>(HeapInUse() - heap_before) / (1024 * 1024);
    memory.peak_mib = static_cast<double>(StatusKiB("VmHWM") - rss_before) / 1024;
    return memory;
}

// ---- Benchmarks -----------------------------------------------------------------------------

void TracksByTitleLibrary(benchmark::State& state) {
    static const ListMemory memory = MeasureSortedList();
    for (auto _ : state) {
        auto tracks = Library().getTracks(MediaLibraryManager::ByTitle,
                                          MediaLibraryManager::GroupNone, "", false);
        Expect(tracks, kTracks, "getTracks");
    }
    state.counters["list_MiB"] = memory.list_mib;
    state.counters["peak_MiB"] = memory.peak_mib;
    state.SetItemsProcessed(state.iterations() * kTracks);
}

void TracksByTitleRaw(benchmark::State& state) {
    RawLibrary();
    for (auto _ : state)
        Expect(RawTracks(kTracksByTitle, true), kTracks, "raw tracks");
    state.SetItemsProcessed(state.iterations() * kTracks);
}

void ArtistGroupsLibrary(benchmark::State& state) {
    for (auto _ : state) {
        auto groups = Library().getTrackGroups(MediaLibraryManager::GroupArtist,
                                               MediaLibraryManager::Ascending);
        benchmark::DoNotOptimize(groups.data());
    }
    state.SetItemsProcessed(state.iterations() * kTracks);
}

void ArtistGroupsRaw(benchmark::State& state) {
    RawLibrary();
    for (auto _ : state) {
        auto groups = RawGroups(kArtistGroups);
        benchmark::DoNotOptimize(groups.data());
    }
    state.SetItemsProcessed(state.iterations() * kTracks);
}

void SearchLibrary(benchmark::State& state) {
    for (auto _ : state) {
        auto tracks = Library().search(kSearchText);
        benchmark::DoNotOptimize(tracks.data());
    }
    state.SetItemsProcessed(state.iterations() * kTracks);
}

void SearchRaw(benchmark::State& state) {
    RawLibrary();
    for (auto _ : state) {
        auto tracks = RawTracks(kSearch, false);
        benchmark::DoNotOptimize(tracks.data());
    }
    state.SetItemsProcessed(state.iterations() * kTracks);
}

void Configure(benchmark::internal::Benchmark* benchmark) {
    qvbench::TimeInMilliseconds(benchmark, 7);
}

}  // namespace

BENCHMARK(TracksByTitleLibrary)->Name("getTracks_title_100k/library")->Apply(Configure);
BENCHMARK(TracksByTitleRaw)->Name("getTracks_title_100k/raw")->Apply(Configure);
BENCHMARK(ArtistGroupsLibrary)->Name("getTrackGroups_artist_100k/library")->Apply(Configure);
BENCHMARK(ArtistGroupsRaw)->Name("getTrackGroups_artist_100k/raw")->Apply(Configure);
BENCHMARK(SearchLibrary)->Name("search_100k/library")->Apply(Configure);
BENCHMARK(SearchRaw)->Name("search_100k/raw")->Apply(Configure);

int main(int argc, char** argv) {
    return qvbench::RunAndCompare(
        argc, argv,
        {{"library/raw getTracks by title 100k", "getTracks_title_100k/library",
          "getTracks_title_100k/raw", 0.10},
         {"library/raw getTrackGroups artist 100k", "getTrackGroups_artist_100k/library",
          "getTrackGroups_artist_100k/raw", 0.10},
         {"library/raw search 100k", "search_100k/library", "search_100k/raw", 0.10}});
}
