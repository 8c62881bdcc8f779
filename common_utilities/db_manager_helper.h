// Bringing a database file that several applications share to an open, tuned connection at the
// version this build expects, whatever state the file is in: missing, marked as damaged, older,
// newer or beyond repair. And the map from paths on the device to the rows of `storages`.
//
// Losing a database's contents is the accepted price of a failed upgrade: the media and audiobook
// libraries are rebuilt from the files on the device, so nothing here tries to save them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common_utilities/common_utilities.h"
#include "common_utilities/qv_sqlite.h"

namespace quorvel {
namespace utilities {

// One helper per database file, owned by the manager of that file and kept alive as long as the
// connection it set up: the corruption handler that GetDb installs refers to it.
//
// The upgrade scripts live in a gzip-compressed tar archive, one per version step at its top
// level, named "<from>to<to>.sql" (run by the system's sqlite3 shell against the file) or
// "<from>to<to>.sh" (run as a program, with no arguments). A script updates the row of `version`
// itself; the version read after all steps is the only judge of success.
//
// Progress of an upgrade goes to the standard error stream, not to the log: it is meant for
// whoever watches the device's console during a firmware update. The commands of an upgrade are
// run by the shell with `db_path` and `scripts_archive` as they stand, so neither may hold blanks
// or shell characters.
class QV_EXPORT DbManagerHelper {
public:
    // `schema` creates the database from nothing, in this order, and must include the tables
    // `version` and `storages` with their seed rows.
    DbManagerHelper(const std::string& db_path, const std::string& corrupted_key, int version,
                    const std::string& scripts_archive, const std::vector<std::string>& schema);

    int CurrentDbVersion() const { return version; }

    // The whole set-up, for `db_path` or another path. 0 on success, otherwise an SQLite code or
    // the failing system call's result; `db` is left as far as it got (an open connection whose
    // PRAGMAs failed stays open). Call with a closed `db`.
    //
    // The set-up runs under an exclusive flock on the file "<path>.lock", so that of several
    // processes starting at once exactly one deletes a marked file, creates a missing one or
    // upgrades an old one, and the others find the result. The lock is not held while the
    // database is in use.
    int GetDb(Sqlite& db);
    int GetDb(Sqlite& db, const std::string& path);

    // Runs `schema` in one transaction; the code of the first failing statement rolls it back.
    int CreateSchema(Sqlite& db);
    // The PRAGMAs every connection of these databases runs with; 0 or the first failing code.
    int Setup(Sqlite& db);
    // The version stored in the file: -1 without a `version` table, 0 when the table is empty or
    // holds more than one row.
    int GetVersion(Sqlite& db);
    bool TestVersion(Sqlite& db);
    // Runs the scripts from the stored version to the expected one, vacuums, and answers 0 when
    // the file then has the expected version. The scripts work on the file of the last GetDb
    // (`db_path` before any): the one `db` is connected to, also when GetDb was given another
    // path.
    int FixVersion(Sqlite& db);
    // Marks the file as damaged in the global configuration and tells the system; the next
    // GetDb of any process deletes it. The connection is left alone.
    void CorruptHandler();

private:
    // Steps of GetDb after the marker, under the lock.
    int OpenAtVersion(Sqlite& db, const std::string& path);
    // Both the marker's deletion and the replacement of a file beyond repair remove its WAL and
    // shared-memory files too: left behind, they would be replayed into the new file.
    int RemoveDatabase(const std::string& path);
    int ReplaceDatabase(Sqlite& db, const std::string& path);
    // Opens (creating) the file and creates the schema in it; 0, or the logged failing code.
    int CreateDatabase(Sqlite& db, const std::string& path);

    std::string db_path;
    std::string corrupted_key;
    int version;
    std::string scripts_archive;
    std::vector<std::string> schema;
    // The file the last GetDb set up, which the upgrade scripts work on.
    std::string setup_path_;
};

// Maps a path to its storage: 1, the internal storage, for everything under "/mnt/ext1"; the
// card's own row, "SDCard:<serial>", for paths under "/mnt/ext2" while a card is in the slot;
// -1 otherwise. Storage ids belong to one database file and mean nothing in another.
class QV_EXPORT StorageHelper {
public:
    explicit StorageHelper(Sqlite& db) : db_(db) {}

    // The storages present now: 1, then the card's id while a card is in the slot (-1 when its
    // serial number can't be read).
    std::vector<int64_t> getStorages();
    int64_t GetStorageByPath(const std::string& path);
    // The id of the storage with this name, made on first sight. A failed bind answers SQLite's
    // positive code, which callers can't tell from an id; kept as it always was.
    int64_t GetStorageByName(const std::string& name);

private:
    Sqlite& db_;
};

}  // namespace utilities
}  // namespace quorvel
