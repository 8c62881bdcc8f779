// The track store: the library's file, its construction, and the two writing operations.

#include "common_utilities/media_library_manager.h"

#include <sqlite3.h>

#include <ctime>
#include <stdexcept>

#include "common_utilities/split_path.h"

namespace quorvel {
namespace utilities {
namespace {

constexpr const char* kDatabasePath = "/mnt/ext1/system/player-2/player-2.db";
constexpr const char* kCorruptedKey = "MediaLibraryDatabaseCorrupted";
constexpr int kDatabaseVersion = 1;
constexpr const char* kScriptsArchive = "/zelgrot/share/player-2/scripts.tar.gz";
constexpr const char* kPlayerConfig = "/mnt/ext1/system/config/player.cfg";

// Binds each value in turn, from parameter 1; the first failure is logged and its code answered.
int BindValue(Statement& st, int index, const std::string& value) {
    return st.bind(index, value);
}
int BindValue(Statement& st, int index, int32_t value) {
    return st.bind(index, static_cast<int>(value));
}
int BindValue(Statement& st, int index, int64_t value) {
    return st.bind(index, static_cast<long long>(value));
}

int BindFrom(Statement&, int) {
    return SQLITE_OK;
}

template <typename First, typename... Rest>
int BindFrom(Statement& st, int index, const First& first, const Rest&... rest) {
    int rc = BindValue(st, index, first);
    if (rc != SQLITE_OK) {
        QV_LOG_ERR(rc);
        return rc;
    }
    return BindFrom(st, index + 1, rest...);
}

}  // namespace

const std::vector<std::string> MediaLibraryManager::schema_statements = {
    "CREATE TABLE IF NOT EXISTS storages(id INTEGER PRIMARY KEY, name TEXT)",
    "INSERT OR IGNORE INTO storages (id, name) VALUES (1, 'InternalStorage');",
    "CREATE TABLE IF NOT EXISTS folders( id INTEGER PRIMARY KEY AUTOINCREMENT, storageid INTEGER, "
    "name TEXT, FOREIGN KEY(storageid) REFERENCES storages(id), UNIQUE(storageid, name) ON "
    "CONFLICT FAIL)",
    "CREATE INDEX IF NOT EXISTS folders_name_idx ON folders(name)",
    "CREATE TABLE IF NOT EXISTS tracks(  id INTEGER PRIMARY KEY AUTOINCREMENT, title TEXT, artist "
    "TEXT, album TEXT, track_no INTEGER, genre TEXT, duration INTEGER, filename TEXT, folder "
    "INTEGER,  size INTEGER,  fast_hash TEXT,  timestamp INTEGER,  FOREIGN KEY(folder) REFERENCES "
    "folders(id) )",
    "CREATE TABLE IF NOT EXISTS tag_names(  id INTEGER PRIMARY KEY AUTOINCREMENT,  name TEXT)",
    "CREATE TABLE IF NOT EXISTS tags( track_id INTEGER, tag_id INTEGER, value TEXT,  PRIMARY "
    "KEY(track_id, tag_id), FOREIGN KEY(track_id) REFERENCES tracks(id),  FOREIGN KEY(tag_id) "
    "REFERENCES tag_names(id) )",
    "CREATE TABLE IF NOT EXISTS version(id INTEGER PRIMARY KEY)",
    "INSERT OR IGNORE INTO version VALUES(1)",
};

const std::map<MediaLibraryManager::TrackGroupType, std::string>
    MediaLibraryManager::group_columns = {
        {GroupArtist, "artist"}, {GroupAlbum, "album"}, {GroupGenre, "genre"},
        {GroupFolder, "f.name"}, {GroupNone, ""},
};

std::string MediaLibraryManager::encoding_ = "1251";

const char* const MediaLibraryManager::kAddFolderSql =
    "INSERT OR IGNORE INTO folders (storageid, name) VALUES (?, ?)";
const char* const MediaLibraryManager::kAddTrackSql =
    "INSERT INTO tracks (title, artist, album, track_no, genre, duration, filename, folder, size, "
    "fast_hash, timestamp) VALUES (?, ?, ?, ?, ?, ?, ?, (SELECT id FROM folders f WHERE f.name =? "
    "AND f.storageid = ?), ?, ?, ?) ;";

MediaLibraryManager::Track::Track(const char* path, const char* title) {
    if (!path || !title) throw std::logic_error("Track: path and title must not be null");
    this->path = path;
    this->title = title;
}

// Whatever GetDb could not do, it has logged; the manager goes on with the connection it got.
MediaLibraryManager::MediaLibraryManager()
    : db_helper_(kDatabasePath, kCorruptedKey, kDatabaseVersion, kScriptsArchive,
                 schema_statements) {
    db_helper_.GetDb(db_);
    init();
    storage_ids_ = StorageHelper(db_).getStorages();
    LoadEncoding();
}

MediaLibraryManager::~MediaLibraryManager() {
    // Before the close: a connection with live statements would refuse it.
    add_folder_.release();
    add_track_.release();
    db_.close();
}

int MediaLibraryManager::GetDb(Sqlite& db) {
    // A manager of its own first: that is what makes sure the file stands at the right version.
    MediaLibraryManager manager;
    int rc = manager.db_helper_.GetDb(db);
    // The handler GetDb installed refers to a helper that dies with this manager; the connection
    // outlives both, so it gets a handler that keeps a helper of its own.
    db.corrupt_handler = [helper = manager.db_helper_]() mutable { helper.CorruptHandler(); };
    return rc;
}

int MediaLibraryManager::GetDb(Sqlite& db, const std::string& path) {
    return db_helper_.GetDb(db, path);
}

void MediaLibraryManager::updateStorageIds() {
    storage_ids_ = StorageHelper(db_).getStorages();
}

void MediaLibraryManager::init() {
    // A platform without a language leaves the statement unfinished, which takes it down the
    // same path as a platform whose SQLite lacks the function.
    const char* language = mgstate ? mgstate->language : nullptr;
    std::string sql = "SELECT icu_load_collation('";
    if (language) {
        sql += language;
        sql += "', 'locale_dependent_collation');";
    }
    if (db_.exec(sql) == SQLITE_DONE) {
        collation_ = " COLLATE locale_dependent_collation ";
    } else {
        QV_LOG_ERROR("Do not support custom_collation");
        collation_ = " ";
    }
}

void MediaLibraryManager::LoadEncoding() {
    iconfig* global = GetGlobalConfig();
    const char* language = global ? ReadString(global, "language", "en") : nullptr;
    if (!language) {
        encoding_ = "1251";
        return;
    }
    const std::string key = std::string("8bit_") + language;
    iconfig* player = OpenConfig(kPlayerConfig, 0);
    const char* value = ReadString(player, key.c_str(), "win1251");
    // Copied before the close, which frees the text.
    std::string encoding = value ? value : "win1251";
    CloseConfig(player);
    if (encoding.compare(0, 3, "win") == 0) encoding.erase(0, 3);
    encoding_ = encoding;
}

// Each statement is kept from one call to the next. A kept one that fails is made anew and run
// once more: if the schema changed under it, the prepare now fails and is reported as it would
// be for a statement made for this call; otherwise the run is repeated, which writes nothing
// twice, since the failed one wrote nothing.
int MediaLibraryManager::addTrack(Track track) {
    const int64_t storageId = StorageHelper(db_).GetStorageByPath(track.path);
    const SplitPath split = SplitAtLastSlash(track.path);

    for (bool again = true; again;) {
        // OR IGNORE overrides the table's ON CONFLICT FAIL: an existing folder is no error, and
        // this step's result is not looked at. Folder rows are made here and nowhere else.
        KeptStatement::Use st1 = add_folder_.use();
        QV_RETURN_IF(!st1.get(), QV_FAILED);
        int rc = BindFrom(*st1, 1, storageId, split.folder);
        if (rc != SQLITE_OK) return rc;
        again = st1.RemakeAfter(st1->step());
    }

    const auto now = static_cast<int64_t>(std::time(nullptr));
    for (;;) {
        KeptStatement::Use st = add_track_.use();
        QV_RETURN_IF(!st.get(), QV_FAILED);
        int rc = BindFrom(*st, 1, track.title, track.artist, track.album, track.track_no,
                          track.genre, track.duration, split.name, split.folder, storageId,
                          track.size, track.fast_hash, now);
        if (rc != SQLITE_OK) return rc;
        rc = st->step();
        if (!st.RemakeAfter(rc)) return rc == SQLITE_DONE ? QV_OK : QV_FAILED;
    }
}

int MediaLibraryManager::removeTrack(int64_t id) {
    auto remove_func = [this, id](const char* sql) -> int {
        std::unique_ptr<Statement> st = db_.prepare(sql);
        QV_RETURN_IF(!st.get(), QV_FAILED);
        if (BindFrom(*st, 1, id) != SQLITE_OK) return QV_FAILED;
        return st->step() == SQLITE_DONE ? QV_OK : QV_FAILED;
    };
    // Tracks first: a track whose tags could not go is harmless, tags without a track are
    // unreachable anyway.
    QV_RETURN_UNLESS(remove_func("DELETE FROM tracks WHERE id = ?") == QV_OK, QV_FAILED);
    QV_RETURN_UNLESS(remove_func("DELETE FROM tags WHERE track_id = ?") == QV_OK, QV_FAILED);
    return QV_OK;
}

}  // namespace utilities
}  // namespace quorvel
