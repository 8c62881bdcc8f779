// The player's library of every audio file on the device: one SQLite file, shared by every
// application, that records each track split into storage, folder and file name, and the sorted,
// grouped and searched lists the player shows.
//
// Scanning is not done here: an application walks the storages, fills a Track and hands it to
// addTrack. The library keeps no index of its own on tracks and no unique constraint: the same
// file can be stored twice, and keeping it single is the caller's business (getTrackByPath asks).
//
// Lists are limited to the storages present when the manager was made, or when updateStorageIds
// was last called: the tracks of a removed card stay in the file and come back with the card.
//
// A manager holds no lock; use it from one thread at a time. Several processes use the file at
// once, each statement committing by itself; SQLite's locks and the busy rule of the SQLite layer
// keep them apart.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "common_utilities/common_utilities.h"
#include "common_utilities/db_manager_helper.h"
#include "common_utilities/qv_sqlite.h"

namespace quorvel {
namespace utilities {

class QV_EXPORT MediaLibraryManager {
public:
    // The enumerations take any int: a value outside the list is a valid request that selects
    // nothing in particular (no group column, no order, descending).
    // The columns the groups are made of are in group_columns.
    enum TrackGroupType : int {
        GroupArtist = 0,
        GroupAlbum = 1,
        GroupGenre = 2,
        GroupFolder = 3,
        GroupNone = 4,
    };
    enum SortType : int {
        ByTitle = 0,
        ByTrackNo = 1,
        ByFilename = 2,
        ByDuration = 3,
        ByTimestamp = 4,
    };
    // Any value other than Ascending sorts descending.
    enum SortDir : int {
        Ascending = 0,
        Descending = 1,
    };

    // One audio file. Durations are whole seconds. Unknown texts are empty, never absent.
    struct QV_EXPORT Track {
        int64_t id = 0;  // 0 while not stored
        // Folder + "/" + file name; a file inside a zip archive is "<archive>:#zip(<entry>)".
        std::string path;
        std::string playlist_entry;  // the playlist line it was read from, as written
        int32_t duration = 0;
        std::string title;
        std::string artist;
        std::string album;
        int32_t track_no = 0;  // 0 when unknown
        std::string genre;
        int32_t size = 0;                             // bytes, as the caller gave them
        std::string fast_hash;                        // the caller's; not computed or compared here
        std::map<std::string, std::string> metadata;  // carried along, filled by no query
        bool tags_read = false;  // false in every record read from the database
        int32_t timestamp = 0;   // when addTrack stored it, seconds since the epoch

        Track() = default;
        // Throws std::logic_error for a null pointer.
        Track(const char* path, const char* title);
        Track(const Track&) = default;
        Track(Track&&) noexcept = default;
        Track& operator=(const Track&) = default;
        Track& operator=(Track&&) noexcept = default;
    };

    struct TrackGroup {
        TrackGroupType type = GroupNone;
        std::string name;  // the group's value; "" for the tracks without one
        int32_t count = 0;
    };

    // The statements that create the library's file, in order.
    static const std::vector<std::string> schema_statements;
    // The SQL column of each group; GroupNone has none.
    static const std::map<TrackGroupType, std::string> group_columns;
    // The 8-bit code page assumed for tags that are not UTF-8 ("1251", "koi8-r"), from
    // "player.cfg" by the interface language. Shared by all managers and rewritten by each one
    // made; not guarded.
    static std::string encoding_;

    // Opens the file, creating, upgrading or replacing it as needed, and never fails: a manager
    // whose database could not be opened answers with empty lists.
    MediaLibraryManager();
    ~MediaLibraryManager();
    MediaLibraryManager(const MediaLibraryManager&) = delete;
    MediaLibraryManager& operator=(const MediaLibraryManager&) = delete;

    // A second connection to the library, for an application's own statements. It has no
    // locale-dependent collation.
    static int GetDb(Sqlite& db);
    int GetDb(Sqlite& db, const std::string& path);

    // After a card went in or out.
    void updateStorageIds();

    // QV_OK or QV_FAILED; a failed bind answers SQLite's code. The folder row is made first and
    // stays even when the track's insert fails. The caller's record keeps id 0.
    int addTrack(Track track);
    // Tracks first, then their tags. An unknown id is a success; the folder row stays.
    int removeTrack(int64_t id);

    // Loads the collation of the interface language; called by the constructor.
    void init();

    // ---- Queries ----------------------------------------------------------------------------
    // A statement that fails to prepare gives an empty list and a log line. Values of `group`
    // filters and search texts are written into the statement as they are:
    //  - a non-exact group value is a LIKE prefix: "%" and "_" in it are wildcards, ASCII letters
    //    match either case, and a double quote makes the statement fail;
    //  - a search text with an apostrophe makes the statement fail.

    // All tracks, or those whose `group` column equals `value` (`exact`) or begins with it.
    // GroupFolder without `exact` lists a folder with everything below it. Titles and file names
    // are ordered by the interface language's rules when the platform offers them.
    std::vector<Track> getTracks(SortType sort, TrackGroupType group, const std::string& value,
                                 bool exact);
    // Groups with their track counts; the group of tracks without a value comes last either way.
    std::vector<TrackGroup> getTrackGroups(TrackGroupType group, SortDir dir);
    // The folder browser: the directories directly under `path` (which must exist), each with
    // the tracks whose folder path contains "<path>/<name>" anywhere, so "Music" also counts
    // "Music2". The system's own trees are refused with an empty list; "/mnt" lists the storages.
    std::vector<TrackGroup> getSubdirsTracksCount(const std::string& path);
    // Tracks whose title, artist, album or file name contains `text`; unordered, and without
    // timestamps.
    std::vector<Track> search(const std::string& text);
    // The stored track of this path, or a record with id 0.
    Track getTrackByPath(const std::string& path);

    // ---- Tags and playlists --------------------------------------------------------------------

    // Fills `track` from the tags and properties of the file at `track.path`, which may be a
    // member of a zip archive ("<archive>:#zip(<entry>)"). A file without a title tag is titled
    // by its name without extension. A file that can't be read leaves the record untouched,
    // tags_read false; nothing is logged. Text that is not valid UTF-8, or holds control bytes,
    // is converted from encoding_.
    static void getFileTags(Track& track);

    // An extended M3U file, taken as bytes. The first line is always consumed, a header or not;
    // without the header comment lines are ignored. Relative paths are resolved against the
    // playlist's folder; playlist_entry keeps the line as written. An unreadable file gives an
    // empty list.
    static std::vector<Track> LoadPlayList(const std::string& path);
    // Writes the header and, per track, an "#EXTINF:" line (for tags_read records) and the
    // absolute path. QV_OK or QV_FAILED.
    static int SavePlayList(const std::vector<Track>& tracks, const std::string& path);
    // Every ".mp3" below `path` (titled by its file name), and with `with_playlists` the tracks
    // of every ".m3u"/".m3u8" too, in directory order. The system tree gives nothing.
    static std::vector<Track> playListFromDirectory(const char* path, bool with_playlists);

private:
    void LoadEncoding();

    Sqlite db_;
    std::vector<int64_t> storage_ids_;
    DbManagerHelper db_helper_;
    std::string collation_;
    // The two statements of addTrack, parsed once: a scan adds thousands of tracks in a row.
    KeptStatement add_folder_{db_, kAddFolderSql};
    KeptStatement add_track_{db_, kAddTrackSql};

    static const char* const kAddFolderSql;
    static const char* const kAddTrackSql;
};

}  // namespace utilities
}  // namespace quorvel
