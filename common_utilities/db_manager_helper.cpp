#include "common_utilities/db_manager_helper.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "boardprofile.h"
#include "common_utilities/serialization_utils.h"

namespace quorvel {
namespace utilities {
namespace {

constexpr const char* kGlobalConfig = "/mnt/ext1/system/config/global.cfg";
constexpr const char* kSqliteShell = "/zelgrot/bin/sqlite3";
constexpr int kDatabaseCorrupted = 272;

// The PRAGMAs of every connection, in the order they have always run. WAL lets the readers of
// other applications go on while one writes. The page size, asked for before the switch to WAL,
// reaches only a file that has no tables yet, and the set-up makes none such: files keep SQLite's
// default page size.
const char* const kPragmas[] = {
    "PRAGMA page_size=8192", "PRAGMA synchronous=1",         "PRAGMA journal_mode = WAL",
    "PRAGMA temp_store = 2", "PRAGMA locking_mode = NORMAL",
};

// The longest name a directory of /tmp may have.
constexpr size_t kLongestName = 255;
// More version steps than any archive holds.
constexpr long long kMaxVersionSteps = 1000;

// An exclusive flock on "<path>.lock" for the length of a scope; `result()` is flock's answer.
class FileLock {
public:
    explicit FileLock(const std::string& path)
        // Close-on-exec: a program started by another thread while the lock is held must not
        // inherit the descriptor, and with it the lock.
        : fd_(::open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
        // A failed open is not tested apart: flock on -1 fails, and that is the failure reported.
        do {
            result_ = ::flock(fd_, LOCK_EX);
        } while (result_ != 0 && errno == EINTR);
    }
    ~FileLock() {
        if (result_ == 0) ::flock(fd_, LOCK_UN);
        if (fd_ >= 0) ::close(fd_);
    }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    int result() const { return result_; }

private:
    int fd_;
    int result_ = -1;
};

// Clears the marker and answers true when it was set. The configuration is saved only then.
bool TakeCorruptionMarker(const std::string& key) {
    iconfig* cfg = OpenConfig(kGlobalConfig, 0);
    if (ReadInt(cfg, key.c_str(), 0) != 0) {
        WriteInt(cfg, key.c_str(), 0);
        CloseConfig(cfg);
        return true;
    }
    CloseConfigNoSave(cfg);
    return false;
}

int RunCommand(const std::string& command) {
    return std::system(command.c_str());
}

// `text` as one word of a shell command: as it stands when it holds nothing the shell reads
// specially, else in single quotes. A database in "My Notes" must not have the scripts run on a
// file "My", and a name holding ";" or "$(" must not run anything.
std::string ShellWord(const std::string& text) {
    const bool plain = !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || std::strchr("/._-+,:=@%", c);
    });
    if (plain) return text;
    std::string quoted = "'";
    for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

// The working directory of an upgrade: "/tmp/<tmp>", where <tmp> is the hex form of the file's
// path. That is twice the path's length, and from a path of 128 bytes on it is longer than a
// directory name can be, which left such files without any upgrade (and so replaced them): a
// long <tmp> is cut into directories of the longest name instead.
std::string WorkDir(const std::string& tmp) {
    std::string dir = "/tmp";
    for (size_t at = 0; at < tmp.size(); at += kLongestName) {
        dir += "/" + tmp.substr(at, kLongestName);
    }
    return dir;
}

std::string StepScript(const std::string& tmp, unsigned from, unsigned to, const char* kind) {
    return WorkDir(tmp) + "/" + std::to_string(from) + "to" + std::to_string(to) + kind;
}

bool Readable(const char* path) {
    return mg_access(path, R_OK) == 0;
}

// One step of an upgrade or a downgrade: "<from>to<to>.sql" through the sqlite3 shell, else
// "<from>to<to>.sh" as a program. A missing step is no error yet: later steps may still reach the
// version.
// Commands are built whole, however long the paths: cut to a fixed buffer, they would run the
// scripts on another file or remove another directory.
void RunVersionStep(const std::string& tmp, unsigned from, unsigned to, const std::string& db) {
    std::string script = StepScript(tmp, from, to, ".sql");
    if (Readable(script.c_str())) {
        std::fprintf(stderr, "Use script '%s'\n", script.c_str());
        RunCommand("cat " + ShellWord(script) + "|" + kSqliteShell + " -echo -batch " +
                   ShellWord(db));
        return;
    }
    script = StepScript(tmp, from, to, ".sh");
    if (!Readable(script.c_str())) {
        std::fprintf(stderr, "Cant read %s\n", script.c_str());
        return;
    }
    std::fprintf(stderr, "Use script '%s'\n", script.c_str());
    RunCommand(ShellWord(script));
}

}  // namespace

DbManagerHelper::DbManagerHelper(const std::string& db_path, const std::string& corrupted_key,
                                 int version, const std::string& scripts_archive,
                                 const std::vector<std::string>& schema)
    : db_path(db_path),
      corrupted_key(corrupted_key),
      version(version),
      scripts_archive(scripts_archive),
      schema(schema),
      setup_path_(db_path) {}

int DbManagerHelper::GetDb(Sqlite& db) {
    return GetDb(db, db_path);
}

// The lock on "<path>.lock" is held for the whole set-up, not for the marker alone. Held only
// around the marker, a process that opened the file while another was still creating it would
// find no version in it and replace it under the other's feet, and two processes upgrading at
// once would run every script twice out of one shared directory. It is released before the
// caller uses the database, so it only ever waits for another process's set-up.
int DbManagerHelper::GetDb(Sqlite& db, const std::string& path) {
    setup_path_ = path;
    mg_buildpath(path.c_str());
    FileLock lock(path);
    if (lock.result() != 0) {
        QV_LOG_ERR(lock.result());
        return lock.result();
    }
    // Whoever finds the marker deletes the file, and only once: the others, waiting on the lock,
    // find it cleared and open the new file.
    if (TakeCorruptionMarker(corrupted_key)) RemoveDatabase(path);

    db.corrupt_handler = [this] { CorruptHandler(); };
    return OpenAtVersion(db, path);
}

int DbManagerHelper::OpenAtVersion(Sqlite& db, const std::string& path) {
    if (db.open_no_create(path) != SQLITE_OK) {
        int rc = CreateDatabase(db, path);
        if (rc != 0) return rc;
    }
    // On a new file as on an old one; on a new one the tables exist already at this point.
    int rc = Setup(db);
    if (rc != 0) {
        QV_LOG_ERR(rc);
        return rc;
    }

    if (TestVersion(db)) return 0;
    if (FixVersion(db) == 0) return 0;
    return ReplaceDatabase(db, path);
}

int DbManagerHelper::RemoveDatabase(const std::string& path) {
    int rc = mg_unlink(path.c_str());
    for (const char* suffix : {"-wal", "-shm", "-journal"})
        mg_unlink((path + suffix).c_str());
    return rc;
}

// The last resort. The new file runs without the PRAGMAs until the next start: they were run on
// the connection that is gone, and a replaced database is rare enough not to warrant more.
int DbManagerHelper::ReplaceDatabase(Sqlite& db, const std::string& path) {
    db.close();
    int rc = RemoveDatabase(path);
    if (rc != 0) {
        QV_LOG_ERR(rc);
        return rc;
    }
    return CreateDatabase(db, path);
}

int DbManagerHelper::CreateDatabase(Sqlite& db, const std::string& path) {
    int rc = db.open(path);
    if (rc != SQLITE_OK) {
        QV_LOG_ERR(rc);
        return rc;
    }
    rc = CreateSchema(db);
    if (rc != 0) {
        QV_LOG_ERR(rc);
        return rc;
    }
    return 0;
}

int DbManagerHelper::CreateSchema(Sqlite& db) {
    // Without a transaction (BEGIN failed) the statements still run; their own failure is what
    // gets reported.
    std::unique_ptr<Transaction> transaction = Transaction::acquire(db);
    for (const std::string& statement : schema) {
        int rc = db.exec(statement);
        if (rc != SQLITE_DONE) {
            QV_LOG_ERROR("Failed to perform request: %s", statement.c_str());
            return rc;
        }
    }
    if (transaction) transaction->commit();
    return 0;
}

int DbManagerHelper::Setup(Sqlite& db) {
    for (const char* pragma : kPragmas) {
        int rc = db.exec(pragma);
        if (rc != SQLITE_DONE) {
            QV_LOG_ERR(rc);
            return rc;
        }
    }
    return 0;
}

int DbManagerHelper::GetVersion(Sqlite& db) {
    std::unique_ptr<Statement> st = db.prepare("SELECT id FROM version; ");
    QV_RETURN_IF(!st.get(), QV_FAILED);
    if (st->step() != SQLITE_ROW) return 0;
    int found = st->column_int(0);
    // A second row makes the table meaningless.
    if (st->step() == SQLITE_ROW) return 0;
    return found;
}

bool DbManagerHelper::TestVersion(Sqlite& db) {
    int found = GetVersion(db);
    if (found == version) return true;
    std::fprintf(stderr, "QVDB::testVersion: DB version is invalid ( %d expected, %d found)\n",
                 version, found);
    return false;
}

// Scripts run in the sqlite3 shell or as programs, outside this connection and outside any
// transaction, while the connection stays open: the version read at the end is the only judge,
// and a run that fails half way leaves a wrong version behind, which makes GetDb replace the file.
// They run on the file being set up, never on `db_path` when that is another file: upgrading the
// helper's own file instead would change a database nobody asked about, and then replace the
// one asked about for want of the upgrade.
int DbManagerHelper::FixVersion(Sqlite& db) {
    const int current = GetVersion(db);
    const std::string tmp = SerializationUtils::ToHex(setup_path_);
    const auto expected = static_cast<unsigned>(version);

    int step = 0;
    if (current < version) {
        std::fprintf(stderr, "Upgrade DB from %u to %u\n", static_cast<unsigned>(current),
                     expected);
        step = 1;
    } else if (current > version) {
        std::fprintf(stderr, "Downgrade DB from %u to %u\n", static_cast<unsigned>(current),
                     expected);
        step = -1;
    } else {
        std::fprintf(stderr, "Exec 'vacuum'\n");
        int rc = db.exec("vacuum;");
        if (rc != SQLITE_DONE) {
            QV_LOG_ERR(rc);
            return rc;
        }
    }

    const std::string work = ShellWord(WorkDir(tmp));
    RunCommand("mkdir -p " + work + "; tar xzvf " + ShellWord(scripts_archive) + " -C " + work);

    // A version number from a damaged row can lie billions of steps away; no archive bridges
    // that, and walking it would hold up the application's start for hours.
    const long long distance = std::llabs(static_cast<long long>(version) - current);
    if (distance > kMaxVersionSteps) {
        std::fprintf(stderr, "Cant read scripts of %lld steps\n", distance);
        step = 0;
    }
    for (int from = current; step != 0 && from != version; from += step)
        RunVersionStep(tmp, static_cast<unsigned>(from), static_cast<unsigned>(from + step),
                       setup_path_);

    std::fprintf(stderr, "Exec 'vacuum'\n");
    int rc = db.exec("vacuum;");
    if (rc != SQLITE_DONE) {
        QV_LOG_ERR(rc);
        return rc;
    }

    const int reached = GetVersion(db);
    RunCommand("rm -rf " + ShellWord("/tmp/" + tmp.substr(0, kLongestName)));
    return reached == version ? 0 : -1;
}

void DbManagerHelper::CorruptHandler() {
    iconfig* cfg = OpenConfig(kGlobalConfig, 0);
    WriteInt(cfg, corrupted_key.c_str(), 1);
    // Saved before the system hears of it: whatever the shell does on 272 (a restart of the
    // application, say) finds the marker in place.
    CloseConfig(cfg);
    mg_ipc_cmd(kDatabaseCorrupted, 0);
}

// ---- StorageHelper --------------------------------------------------------------------------

std::vector<int64_t> StorageHelper::getStorages() {
    std::vector<int64_t> storages{1};
    if (IsSDinserted()) storages.push_back(GetStorageByPath("/mnt/ext2"));
    return storages;
}

int64_t StorageHelper::GetStorageByPath(const std::string& path) {
    // Plain prefix tests: "/mnt/ext1x/a" counts as internal storage too.
    if (path.compare(0, 9, "/mnt/ext1") == 0) return 1;
    if (path.compare(0, 9, "/mnt/ext2") != 0) return -1;
    if (IsSDinserted() == 0) return -1;
    const char* serialHex = GetExternalCardSerialNumber();
    QV_RETURN_IF(!serialHex, -1);
    return GetStorageByName(std::string("SDCard:") + serialHex);
}

int64_t StorageHelper::GetStorageByName(const std::string& name) {
    std::unique_ptr<Statement> st = db_.prepare("SELECT id FROM storages WHERE name = ? ");
    QV_RETURN_IF(!st.get(), QV_FAILED);
    int rc = st->bind(1, name);
    if (rc != SQLITE_OK) {
        QV_LOG_ERR(rc);
        return rc;
    }
    if (st->step() == SQLITE_ROW) return st->column_int64(0);

    st = db_.prepare("INSERT INTO storages (name) VALUES (?)");
    QV_RETURN_IF(!st.get(), QV_FAILED);
    rc = st->bind(1, name);
    if (rc != SQLITE_OK) {
        QV_LOG_ERR(rc);
        return rc;
    }
    if (st->step() != SQLITE_DONE) return -1;
    return db_.LastInsertedRow();
}

}  // namespace utilities
}  // namespace quorvel
