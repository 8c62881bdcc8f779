// Generated libraries for the media library benchmarks: tracks shaped like a real collection
// (hundreds of artists, a dozen tracks an album, titles in several scripts), the same in every
// run.
#pragma once

#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "common_utilities/media_library_manager.h"

namespace mediabench {

using Track = quorvel::utilities::MediaLibraryManager::Track;

constexpr const char* kLibraryPath = "/mnt/ext1/system/player-2/player-2.db";

[[noreturn]] inline void Die(const char* what, int rc) {
    std::fprintf(stderr, "benchmark: %s failed with [%d]\n", what, rc);
    std::exit(1);
}

inline void Check(int rc, int expected, const char* what) {
    if (rc != expected) Die(what, rc);
}

// Opened as the library's SQLite layer opens its connections, so only the layer differs.
inline sqlite3* OpenRaw(const std::string& path) {
    sqlite3* db = nullptr;
    Check(sqlite3_open_v2(path.c_str(), &db,
                          SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                          nullptr),
          SQLITE_OK, "sqlite3_open_v2");
    return db;
}

inline void ExecRaw(sqlite3* db, const std::string& sql) {
    Check(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK, sql.c_str());
}

// Stops the benchmark when a list does not have the length the data promises.
template <typename List>
void Expect(const List& list, size_t size, const char* what) {
    if (list.size() != size) Die(what, static_cast<int>(list.size()));
}

// The PRAGMAs the library's set-up runs on every connection of its databases (temp_store decides
// where the sorter works), for a bare connection that is to compete on equal terms.
inline void SetUpLikeTheLibrary(sqlite3* db) {
    for (const char* pragma :
         {"PRAGMA page_size=8192", "PRAGMA synchronous=1", "PRAGMA journal_mode = WAL",
          "PRAGMA temp_store = 2", "PRAGMA locking_mode = NORMAL"})
        ExecRaw(db, pragma);
}

// A text column, "" for NULL.
inline std::string ColumnText(sqlite3_stmt* st, int column) {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(st, column));
    return text ? text : "";
}

// `count` tracks: 12 to an album, 9 albums to an artist, with one artist in seven unknown.
inline std::vector<Track> MakeTracks(int count) {
    static const char* const kWords[] = {
        "Morning", "River",   "Glass", "Moon",  "Winter",  "Paper",  "Silver", "Harbour",
        "Äpfel",   "Straße",  "Ёлка",  "Вишня", "Lantern", "Echo",   "Salt",   "Orchard",
        "Zebra",   "Øresund", "Cedar", "Night", "Ember",   "Willow", "Quartz", "Dune"};
    constexpr unsigned kWordCount = sizeof kWords / sizeof kWords[0];
    std::vector<Track> tracks;
    tracks.reserve(static_cast<size_t>(count));
    unsigned seed = 20240601;
    for (int i = 0; i < count; ++i) {
        seed = seed * 1103515245u + 12345u;
        const int album = i / 12;
        const int artist = album / 9;
        const std::string title =
            std::string(kWords[(seed >> 8) % kWordCount]) + " " + kWords[(seed >> 16) % kWordCount];
        const std::string artist_name = artist % 7 == 3 ? ""
                                                        : std::string(kWords[artist % kWordCount]) +
                                                              " " + std::to_string(artist);
        const std::string album_name =
            std::string(kWords[album % kWordCount]) + " " + std::to_string(album);
        char file[64];
        std::snprintf(file, sizeof file, "%02d %s.mp3", i % 12 + 1, title.c_str());
        Track track(
            ("/mnt/ext1/Music/Artist " + std::to_string(artist) + "/" + album_name + "/" + file)
                .c_str(),
            title.c_str());
        track.artist = artist_name;
        track.album = album_name;
        track.genre = kWords[(album * 5) % 8];
        track.track_no = i % 12 + 1;
        track.duration = static_cast<int32_t>(120 + (seed >> 4) % 400);
        track.size = track.duration * 40000;
        track.fast_hash = std::to_string(seed);
        tracks.push_back(std::move(track));
    }
    return tracks;
}

}  // namespace mediabench
