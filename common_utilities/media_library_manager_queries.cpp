// The read side of the media library. Statements are composed from fixed pieces joined with
// nothing in between; storage ids and the LIKE texts are written into them, all else is bound.

#include <dirent.h>
#include <sqlite3.h>
#include <strings.h>
#include <sys/stat.h>

#include <algorithm>

#include "boardprofile.h"
#include "common_utilities/media_library_manager.h"

namespace quorvel {
namespace utilities {
namespace {

const std::string kFullColumns =
    " SELECT t.id, title, artist, album, track_no, genre, duration, filename, f.name, size, "
    "fast_hash, timestamp ";
const std::string kShortColumns =
    " SELECT t.id, title, artist, album, track_no, genre, duration, filename, f.name, size, "
    "fast_hash ";
const std::string kCountColumn = " SELECT COUNT(t.id) ";
const std::string kJoin = " FROM tracks t INNER JOIN folders f ON t.folder = f.id";
const std::string kWhere = " WHERE ";

// "(f.storageid = 1 OR f.storageid = 2)": the storages present, written into the statement. An
// empty list gives "(0)", which no row satisfies.
template <typename Ids>
std::string toStringNoSubquery(const std::string& column, const Ids& ids) {
    std::string condition = "(";
    if (ids.empty()) condition += "0";
    for (auto it = ids.begin(); it != ids.end(); ++it) {
        if (it != ids.begin()) condition += " OR ";
        condition += column + " = " + std::to_string(*it);
    }
    return condition + ")";
}

std::string Text(const Statement& st, int column) {
    const char* text = st.column_text(column);
    return text ? text : "";
}

enum class Columns { kFull, kShort };

// Column order of both column lists; the short one stops before the timestamp.
void ReadTrack(const Statement& st, Columns columns, MediaLibraryManager::Track& track) {
    // Ids beyond 32 bits come back cut; no library reaches them.
    track.id = st.column_int(0);
    track.title = Text(st, 1);
    track.artist = Text(st, 2);
    track.album = Text(st, 3);
    track.track_no = st.column_int(4);
    track.genre = Text(st, 5);
    track.duration = st.column_int(6);
    track.path = Text(st, 8) + "/" + Text(st, 7);
    track.size = st.column_int(9);
    track.fast_hash = Text(st, 10);
    if (columns == Columns::kFull) track.timestamp = st.column_int(11);
}

void ReadTracks(Statement& st, Columns columns, std::vector<MediaLibraryManager::Track>& tracks) {
    while (st.step() == SQLITE_ROW) {
        tracks.emplace_back();
        ReadTrack(st, columns, tracks.back());
    }
}

// A value outside the map has no column. It is not added to the map: a lookup that writes would
// race between managers on different threads.
std::string GroupColumn(MediaLibraryManager::TrackGroupType group) {
    auto it = MediaLibraryManager::group_columns.find(group);
    return it == MediaLibraryManager::group_columns.end() ? std::string() : it->second;
}

bool StartsWithIgnoringCase(const std::string& text, const char* prefix) {
    return ::strncasecmp(text.c_str(), prefix, std::char_traits<char>::length(prefix)) == 0;
}

bool IsDirectory(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The trees of the system and of other applications, never browsed.
bool IsRefusedTree(const std::string& path) {
    return StartsWithIgnoringCase(path, "/mnt/ext1/system") ||
           StartsWithIgnoringCase(path, "/mnt/ext1/applications") ||
           StartsWithIgnoringCase(path, "/mnt/secure");
}

std::vector<std::string> SubdirectoryNames(DIR* dir, const std::string& path) {
    std::vector<std::string> names;
    while (dirent* entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        if (name.empty() || name[0] == '.') continue;
        if (path == "/mnt/ext1" && name == "system") continue;
        const std::string full = path + "/" + name;
        if (full == "/mnt/ext1/applications" || full == "/mnt/secure") continue;
        if (IsDirectory(full)) names.push_back(name);
    }
    return names;
}

// "/mnt" lists the storages rather than the directory: the mount points of other devices are no
// business of the player.
std::vector<std::string> StorageNames(const std::string& path) {
    std::vector<std::string> names{std::string("/mnt/ext1").substr(path.size() + 1)};
    if (IsSDinserted()) names.push_back(std::string("/mnt/ext2").substr(path.size() + 1));
    return names;
}

}  // namespace

std::vector<MediaLibraryManager::Track> MediaLibraryManager::getTracks(SortType sort,
                                                                       TrackGroupType group,
                                                                       const std::string& value,
                                                                       bool exact) {
    std::vector<Track> result;
    std::string sql =
        kFullColumns + kJoin + kWhere + toStringNoSubquery("f.storageid", storage_ids_);
    const std::string column = GroupColumn(group);
    const bool bind_value = !column.empty() && exact;
    if (!column.empty()) {
        if (exact)
            sql += " AND " + column + " = ? ";
        else
            sql += " AND " + column + " LIKE " + "\"" + value + "%" + "\"";
    }
    switch (sort) {
        case ByTitle:
            sql += " ORDER BY title " + collation_ + " ASC ";
            break;
        case ByTrackNo:
            sql += " ORDER BY track_no ASC ";
            break;
        case ByFilename:
            sql += " ORDER BY filename  " + collation_ + " ASC ";
            break;
        case ByDuration:
            sql += " ORDER BY duration ASC ";
            break;
        case ByTimestamp:
            sql += " ORDER BY timestamp ASC ";
            break;
    }

    std::unique_ptr<Statement> st = db_.prepare(sql);
    QV_RETURN_IF(!st.get(), result);
    if (bind_value) {
        int err = st->bind(1, value);
        QV_RETURN_IF(err, result);
    }
    ReadTracks(*st, Columns::kFull, result);
    return result;
}

std::vector<MediaLibraryManager::TrackGroup> MediaLibraryManager::getTrackGroups(
    TrackGroupType group, SortDir dir) {
    std::vector<TrackGroup> result;
    const std::string column = GroupColumn(group);
    std::string sql = kCountColumn;
    // The empty group sorts last in both directions: it is a group, not a name among names.
    if (!column.empty())
        sql +=
            ", " + column + ", CASE " + column + " WHEN '' THEN 1 ELSE 0 END AS groups_sort_order";
    sql += kJoin + kWhere + toStringNoSubquery("f.storageid", storage_ids_);
    sql += " GROUP BY " + column + " ORDER BY groups_sort_order, " + column + collation_ +
           (dir == Ascending ? " ASC " : " DESC ");

    std::unique_ptr<Statement> st = db_.prepare(sql);
    QV_RETURN_IF(!st.get(), result);
    while (st->step() == SQLITE_ROW) {
        TrackGroup entry;
        entry.type = group;
        entry.count = st->column_int(0);
        entry.name = Text(*st, 1);
        result.push_back(std::move(entry));
    }
    return result;
}

std::vector<MediaLibraryManager::TrackGroup> MediaLibraryManager::getSubdirsTracksCount(
    const std::string& path) {
    std::vector<TrackGroup> result;
    DIR* dir = ::opendir(path.c_str());
    if (!dir) return result;
    if (IsRefusedTree(path)) {
        ::closedir(dir);
        return result;
    }
    std::vector<std::string> names =
        path == "/mnt" ? StorageNames(path) : SubdirectoryNames(dir, path);
    ::closedir(dir);
    std::sort(names.begin(), names.end());

    const std::string storages = toStringNoSubquery("f.storageid", storage_ids_);
    for (const std::string& name : names) {
        // "%" on both sides and nothing escaped: a folder counts wherever the text stands in its
        // path, so a sibling whose name begins with this one is counted too.
        const std::string sql = kCountColumn + kJoin + " WHERE f.name LIKE " + "\"" + "%" + path +
                                "/" + name + "%" + "\"" + " AND " + storages;
        std::unique_ptr<Statement> st = db_.prepare(sql);
        QV_RETURN_IF(!st.get(), result);
        if (st->step() == SQLITE_ROW) result.push_back({GroupFolder, name, st->column_int(0)});
    }
    return result;
}

std::vector<MediaLibraryManager::Track> MediaLibraryManager::search(const std::string& text) {
    std::vector<Track> result;
    const std::string sql =
        kShortColumns + kJoin + kWhere + toStringNoSubquery("f.storageid", storage_ids_) +
        " AND (" + "    t.title    LIKE '%" + text + "%'" + " OR t.artist   LIKE '%" + text + "%'" +
        " OR t.album    LIKE '%" + text + "%'" + " OR t.filename LIKE '%" + text + "%'" + ")";
    std::unique_ptr<Statement> st = db_.prepare(sql);
    QV_RETURN_IF(!st.get(), result);
    ReadTracks(*st, Columns::kShort, result);
    return result;
}

MediaLibraryManager::Track MediaLibraryManager::getTrackByPath(const std::string& path) {
    Track result;
    const std::string sql = kFullColumns + kJoin + kWhere +
                            toStringNoSubquery("f.storageid", storage_ids_) +
                            " AND f.name = ? AND t.filename = ?";
    std::unique_ptr<Statement> st = db_.prepare(sql);
    QV_RETURN_IF(!st.get(), result);
    const size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "" : path.substr(0, slash);
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    int err = st->bind(1, folder);
    QV_RETURN_IF(err, result);
    err = st->bind(2, name);
    QV_RETURN_IF(err, result);
    if (st->step() == SQLITE_ROW) ReadTrack(*st, Columns::kFull, result);
    return result;
}

}  // namespace utilities
}  // namespace quorvel
