// Versioned database set-up against real files: every state a database file can be found in,
// upgrade scripts in a real archive run by the real sqlite3 shell, the corruption marker in the
// global configuration, and several processes starting at once.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "boardprofile.h"
#include "child_process.h"
#include "common_utilities/db_manager_helper.h"
#include "common_utilities/serialization_utils.h"
#include "log_capture.h"
#include "media_test_support.h"
#include "moorglass_host.h"

namespace {

using namespace mediatest;
using quorvel::utilities::DbManagerHelper;
using quorvel::utilities::SerializationUtils;
using quorvel::utilities::Sqlite;
using quorvel::utilities::StorageHelper;
using qvtest::LogCapture;
using qvtest::PidLine;
using testing::ElementsAre;
using testing::HasSubstr;

const std::string kDir = "/mnt/ext1/system/notes-test";
const std::string kPath = kDir + "/notes.db";
const std::string kKey = "NotesDatabaseCorrupted";
const std::string kArchive = "/zelgrot/share/notes-test/scripts.tar.gz";
const std::string kWorkDir = "/tmp/" + SerializationUtils::ToHex(kPath);

// A schema in the form the owners give theirs, seeded with `version`.
std::vector<std::string> Schema(int version) {
    return {
        "CREATE TABLE IF NOT EXISTS storages(id INTEGER PRIMARY KEY, name TEXT)",
        "INSERT OR IGNORE INTO storages (id, name) VALUES (1, 'InternalStorage');",
        "CREATE TABLE IF NOT EXISTS notes(id INTEGER PRIMARY KEY, body TEXT)",
        "CREATE TABLE IF NOT EXISTS version(id INTEGER PRIMARY KEY)",
        "INSERT OR IGNORE INTO version VALUES(" + std::to_string(version) + ")",
    };
}

DbManagerHelper Helper(int version, const std::string& archive = kArchive) {
    return DbManagerHelper(kPath, kKey, version, archive, Schema(version));
}

// A file at `version` that holds one note, made and closed as a previous start would leave it.
void MakeDatabase(int version, const std::string& note = "kept note") {
    DbManagerHelper helper = Helper(1);
    Sqlite db;
    ASSERT_EQ(0, helper.GetDb(db));
    EXPECT_EQ(kDone, db.exec("INSERT INTO notes(body) VALUES('" + note + "')"));
    EXPECT_EQ(kDone, db.exec("UPDATE version SET id = " + std::to_string(version)));
    db.close();
}

std::string Script(const std::string& name) {
    return kWorkDir + "/" + name;
}

class DbSetup : public testing::Test {
protected:
    void TearDown() override { db.close(); }
    Sqlite db;
};

TEST_F(DbSetup, FirstStartMakesTheDirectoriesTheSchemaAndThePragmas) {
    ASSERT_FALSE(Exists(kDir));
    DbManagerHelper helper = Helper(1);
    EXPECT_EQ(1, helper.CurrentDbVersion());
    StderrCapture err;
    ASSERT_EQ(0, helper.GetDb(db));

    EXPECT_TRUE(Exists(kPath));
    EXPECT_TRUE(Exists(kPath + ".lock"));  // stays on the disk
    EXPECT_EQ(1, helper.GetVersion(db));
    EXPECT_TRUE(helper.TestVersion(db));
    EXPECT_EQ("InternalStorage", QueryOne(kPath, "SELECT name FROM storages WHERE id = 1"));
    EXPECT_EQ("wal", QueryOne(kPath, "PRAGMA journal_mode"));
    EXPECT_EQ("", err.Text());  // nothing to upgrade, nothing said

    // The lock guards the marker only: it is free while the database is in use.
    int fd = ::open((kPath + ".lock").c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(0, ::flock(fd, LOCK_EX | LOCK_NB));
    ::close(fd);
}

// Every statement that any connection of this process prepares from now on, in order: SQLite's
// own trace, installed on each new connection.
class StatementTrace {
public:
    StatementTrace() {
        Statements().clear();
        sqlite3_auto_extension(reinterpret_cast<void (*)(void)>(&Install));
    }
    ~StatementTrace() { sqlite3_cancel_auto_extension(reinterpret_cast<void (*)(void)>(&Install)); }
    // The traced statements that begin with one of `prefixes`, in order.
    std::vector<std::string> Starting(const std::vector<std::string>& prefixes) const {
        std::vector<std::string> found;
        for (const auto& sql : Statements()) {
            for (const auto& prefix : prefixes) {
                if (sql.rfind(prefix, 0) == 0) {
                    found.push_back(sql);
                    break;
                }
            }
        }
        return found;
    }

private:
    static std::vector<std::string>& Statements() {
        static std::vector<std::string> statements;
        return statements;
    }
    static int Record(unsigned, void*, void*, void* sql) {
        Statements().emplace_back(static_cast<const char*>(sql));
        return 0;
    }
    static int Install(sqlite3* db, char**, const sqlite3_api_routines*) {
        return sqlite3_trace_v2(db, SQLITE_TRACE_STMT, &Record, nullptr);
    }
};

// A setting read back on the connection itself.
std::string Pragma(Sqlite& db, const std::string& name) {
    auto st = db.prepare("PRAGMA " + name);
    if (!st || st->step() != kRow) return "<error>";
    return st->column_text(0);
}

TEST_F(DbSetup, ThePragmasRunInTheirOrderAfterTheSchemaAndHoldOnTheConnection) {
    StatementTrace trace;
    DbManagerHelper helper = Helper(1);
    ASSERT_EQ(0, helper.GetDb(db));
    // After the schema's last statement, ahead of the version's test.
    EXPECT_THAT(
        trace.Starting({"INSERT", "PRAGMA", "SELECT"}),
        ElementsAre("INSERT OR IGNORE INTO storages (id, name) VALUES (1, "
                    "'InternalStorage');",
                    "INSERT OR IGNORE INTO version VALUES(1)", "PRAGMA page_size=8192",
                    "PRAGMA synchronous=1", "PRAGMA journal_mode = WAL", "PRAGMA temp_store = 2",
                    "PRAGMA locking_mode = NORMAL", "SELECT id FROM version;"));

    // synchronous and temp_store belong to the connection: only it can show them.
    EXPECT_EQ("1", Pragma(db, "synchronous"));
    EXPECT_EQ("2", Pragma(db, "temp_store"));
    EXPECT_EQ("wal", Pragma(db, "journal_mode"));
    EXPECT_EQ("normal", Pragma(db, "locking_mode"));
    // The tables came first, so the page size stays SQLite's default.
    EXPECT_EQ("4096", Pragma(db, "page_size"));

    // An existing file at the expected version is kept as it is, and gets the same PRAGMAs.
    EXPECT_EQ(kDone, db.exec("INSERT INTO notes(body) VALUES('kept note')"));
    db.close();
    const unsigned long inode = Inode(kPath);
    StatementTrace again;
    StderrCapture err;
    ASSERT_EQ(0, helper.GetDb(db));
    EXPECT_EQ(inode, Inode(kPath));
    EXPECT_EQ("kept note", QueryOne(kPath, "SELECT body FROM notes"));
    EXPECT_EQ("", err.Text());
    EXPECT_THAT(
        again.Starting({"PRAGMA"}),
        ElementsAre("PRAGMA page_size=8192", "PRAGMA synchronous=1", "PRAGMA journal_mode = WAL",
                    "PRAGMA temp_store = 2", "PRAGMA locking_mode = NORMAL"));
    EXPECT_EQ("1", Pragma(db, "synchronous"));
}

TEST_F(DbSetup, AnOpenThatFailsReportsTheStepThatFailed) {
    LogCapture log;
    // The lock file can't be made: a file stands where the directory should be.
    WriteFile("/mnt/ext1/system/plain-file", "");
    DbManagerHelper under_a_file("/mnt/ext1/system/plain-file/notes.db", kKey, 1, kArchive,
                                 Schema(1));
    EXPECT_EQ(-1, under_a_file.GetDb(db));
    EXPECT_TRUE(log.Has(QV_LOG_ERROR, PidLine(" err:[-1] ")));

    // Nor in a directory that the process may not read.
    ASSERT_EQ(0, ::mkdir("/mnt/ext1/system/locked", 0700));
    auto stranger = qvtest::RunInChild([] {
        if (::setgid(65534) != 0 || ::setuid(65534) != 0) return 10;
        DbManagerHelper helper("/mnt/ext1/system/locked/notes.db", kKey, 1, kArchive, Schema(1));
        Sqlite db;
        return helper.GetDb(db) == -1 ? 0 : 20;
    });
    EXPECT_TRUE(stranger.Succeeded()) << stranger.Describe();
    EXPECT_FALSE(Exists("/mnt/ext1/system/locked/notes.db"));

    // SQLite can't open what is there: a directory of the database's name.
    ASSERT_EQ(0, ::mkdir(kDir.c_str(), 0755));
    ASSERT_EQ(0, ::mkdir(kPath.c_str(), 0755));
    log.Clear();
    EXPECT_EQ(kCantOpen, Helper(1).GetDb(db));
    EXPECT_TRUE(log.Has(QV_LOG_ERROR, PidLine("Failed with [14] Can't open database")));
    EXPECT_TRUE(log.Has(QV_LOG_ERROR, PidLine(" err:[14] ")));
}

TEST_F(DbSetup, AnotherPathIsSetUpAndUpgradedInsteadOfTheHelpersOwn) {
    MakeDatabase(1, "own note");
    const std::string other = "/mnt/ext1/system/notes-elsewhere/notes.db";
    {
        DbManagerHelper first = Helper(1);
        ASSERT_EQ(0, first.GetDb(db, other));
        EXPECT_EQ(kDone, db.exec("INSERT INTO notes(body) VALUES('other note')"));
        db.close();
    }
    EXPECT_TRUE(Exists(other + ".lock"));
    MakeScriptsArchive(kArchive, {{"1to2.sql",
                                   "ALTER TABLE notes ADD COLUMN stars INTEGER DEFAULT 5;\n"
                                   "UPDATE version SET id = 2;\n"}});
    const unsigned long inode = Inode(other);
    DbManagerHelper helper = Helper(2);
    StderrCapture err;
    ASSERT_EQ(0, helper.GetDb(db, other));

    // The file asked about was upgraded in place, its note kept.
    EXPECT_EQ(2, helper.GetVersion(db));
    EXPECT_EQ(inode, Inode(other));
    EXPECT_EQ("5", QueryOne(other, "SELECT stars FROM notes WHERE body = 'other note'"));
    EXPECT_EQ("wal", QueryOne(other, "PRAGMA journal_mode"));
    // The helper's own file was not touched.
    EXPECT_EQ("1", QueryOne(kPath, "SELECT id FROM version"));
    EXPECT_EQ("<error>", QueryOne(kPath, "SELECT stars FROM notes"));
    EXPECT_EQ("own note", QueryOne(kPath, "SELECT body FROM notes"));
    EXPECT_FALSE(Exists("/tmp/" + SerializationUtils::ToHex(other)));
}

// Paths the shell would split or read, and a path whose hex form is longer than a directory name:
// each file is upgraded in place, with its scripts from an archive whose path has a space too.
TEST_F(DbSetup, UpgradesReachFilesWhateverTheirPaths) {
    const std::string archive = "/zelgrot/share/notes test/scripts.tar.gz";
    MakeScriptsArchive(archive, {{"1to2.sql",
                                  "ALTER TABLE notes ADD COLUMN stars INTEGER DEFAULT 5;\n"
                                  "UPDATE version SET id = 2;\n"}});
    const std::string dir = "/mnt/ext1/system/";
    for (const std::string& path :
         {dir + "My Notes/notes.db", dir + "Jo's $(touch pwned);x/notes.db",
          dir + std::string(200, 'n') + "/" + std::string(200, 'm') + ".db"}) {
        SCOPED_TRACE(path);
        {
            DbManagerHelper first = Helper(1);
            ASSERT_EQ(0, first.GetDb(db, path));
            EXPECT_EQ(kDone, db.exec("INSERT INTO notes(body) VALUES('note')"));
            db.close();
        }
        const unsigned long inode = Inode(path);
        DbManagerHelper helper(kPath, kKey, 2, archive, Schema(2));
        StderrCapture err;
        ASSERT_EQ(0, helper.GetDb(db, path));
        db.close();
        EXPECT_EQ(inode, Inode(path));
        EXPECT_EQ("5", QueryOne(path, "SELECT stars FROM notes WHERE body = 'note'"));
        EXPECT_FALSE(Exists("/tmp/" + SerializationUtils::ToHex(path).substr(0, 255)));
    }
    EXPECT_FALSE(Exists(dir + "My"));
    EXPECT_FALSE(Exists("pwned"));
    EXPECT_FALSE(Exists("/tmp/pwned"));
}

TEST_F(DbSetup, SchemaRunsInOneTransaction) {
    std::vector<std::string> schema = Schema(1);
    schema.insert(schema.begin() + 3, "CREATE TABLE half(x) WITH A TYPO");
    DbManagerHelper helper(kPath, kKey, 1, kArchive, schema);
    LogCapture log;
    EXPECT_EQ(kError, helper.GetDb(db));
    EXPECT_TRUE(log.Has(QV_LOG_ERROR, PidLine("Failed to perform request: CREATE TABLE half(x) "
                                              "WITH A TYPO")));
    EXPECT_TRUE(log.Has(QV_LOG_ERROR, PidLine(" err:[1] ")));
    db.close();
    // The statements before the failing one were rolled back with it.
    EXPECT_EQ("0", QueryOne(kPath, "SELECT count(*) FROM sqlite_master"));
}

TEST_F(DbSetup, UpgradeRunsSqlThroughTheShellAndShellScriptsStepByStep) {
    MakeDatabase(1);
    MakeScriptsArchive(
        kArchive,
        {{"1to2.sql",
          "ALTER TABLE notes ADD COLUMN stars INTEGER DEFAULT 1;\n"
          "UPDATE version SET id = 2;\n"},
         {"2to3.sh",
          "#!/bin/sh\n"
          "/zelgrot/bin/sqlite3 " +
              kPath + " 'UPDATE notes SET stars = stars + 4; UPDATE version SET id = 3;'\n"},
         // Steps away from the path of this upgrade are not touched.
         {"3to2.sql", "DELETE FROM notes;\n"}});
    DbManagerHelper helper = Helper(3);
    StderrCapture err;
    ASSERT_EQ(0, helper.GetDb(db));

    EXPECT_EQ(3, helper.GetVersion(db));
    EXPECT_EQ("5", QueryOne(kPath, "SELECT stars FROM notes WHERE body = 'kept note'"));
    std::vector<std::string> progress;
    for (const auto& line : err.Lines()) {
        if (line.find("DB") != std::string::npos || line.rfind("Use ", 0) == 0 ||
            line.rfind("Exec", 0) == 0 || line.rfind("Cant", 0) == 0)
            progress.push_back(line);
    }
    EXPECT_THAT(progress,
                ElementsAre("QVDB::testVersion: DB version is invalid ( 3 expected, 1 found)",
                            "Upgrade DB from 1 to 3", "Use script '" + Script("1to2.sql") + "'",
                            "Use script '" + Script("2to3.sh") + "'", "Exec 'vacuum'"));
    EXPECT_FALSE(Exists(kWorkDir));  // the unpacked scripts are cleaned away
}

TEST_F(DbSetup, NewerFileIsDowngradedAndAMissingStepDoesNotStopLaterOnes) {
    MakeDatabase(4);
    // No step 4 to 3: it is reported, and the next steps still run.
    MakeScriptsArchive(kArchive, {{"3to2.sql", "UPDATE version SET id = 2;\n"},
                                  {"2to1.sql", "UPDATE version SET id = 1;\n"}});
    DbManagerHelper helper = Helper(1);
    unsigned long inode = Inode(kPath);
    StderrCapture err;
    ASSERT_EQ(0, helper.GetDb(db));

    EXPECT_EQ(1, helper.GetVersion(db));
    EXPECT_EQ(inode, Inode(kPath));
    EXPECT_EQ("kept note", QueryOne(kPath, "SELECT body FROM notes"));
    const std::string text = err.Text();
    EXPECT_THAT(text, HasSubstr("Downgrade DB from 4 to 1\n"));
    EXPECT_THAT(text, HasSubstr("Cant read " + Script("4to3.sh") + "\n"));
    EXPECT_THAT(text, HasSubstr("Use script '" + Script("3to2.sql") + "'\n"));
    EXPECT_LT(text.find("3to2.sql'"), text.find("2to1.sql'"));
}

TEST_F(DbSetup, ScriptsThatFailReplaceTheFileWithAFreshOne) {
    MakeDatabase(1);
    // The shell goes on after an error, so a failing step is one that never sets the version.
    MakeScriptsArchive(kArchive, {{"1to2.sql", "ALTER TABLE no_such_table ADD COLUMN x;\n"}});
    DbManagerHelper helper = Helper(2);
    StderrCapture err;
    ASSERT_EQ(0, helper.GetDb(db));

    EXPECT_EQ(2, helper.GetVersion(db));
    EXPECT_EQ("0", QueryOne(kPath, "SELECT count(*) FROM notes"));
    // The replacement goes without the PRAGMAs until the next start.
    EXPECT_EQ("delete", QueryOne(kPath, "PRAGMA journal_mode"));
    EXPECT_THAT(err.Text(), HasSubstr("Use script '" + Script("1to2.sql") + "'"));

    db.close();
    ASSERT_EQ(0, helper.GetDb(db));
    EXPECT_EQ("wal", QueryOne(kPath, "PRAGMA journal_mode"));
}

TEST_F(DbSetup, WithoutAnArchiveEveryStepIsMissingAndTheFileIsReplaced) {
    MakeDatabase(1);
    DbManagerHelper helper = Helper(3, "/zelgrot/share/notes-test/missing.tar.gz");
    StderrCapture err;
    ASSERT_EQ(0, helper.GetDb(db));

    EXPECT_EQ(3, helper.GetVersion(db));
    EXPECT_EQ("0", QueryOne(kPath, "SELECT count(*) FROM notes"));
    const std::string text = err.Text();
    EXPECT_THAT(text, HasSubstr("Cant read " + Script("1to2.sh") + "\n"));
    EXPECT_THAT(text, HasSubstr("Cant read " + Script("2to3.sh") + "\n"));
}

TEST_F(DbSetup, AFileWithoutVersionTableCountsAsVersionMinusOne) {
    Exec(kPath, "CREATE TABLE other(x); INSERT INTO other VALUES(1)");
    MakeScriptsArchive(kArchive, {});
    DbManagerHelper helper = Helper(1);
    StderrCapture err;
    {
        LogCapture log;
        Sqlite probe;
        ASSERT_EQ(0, probe.open_no_create(kPath));
        EXPECT_EQ(-1, helper.GetVersion(probe));
        EXPECT_TRUE(log.Has(QV_LOG_ERROR, PidLine("Condition: \"!st.get()\", "
                                                  "return(\"QV_FAILED\")]")));
        probe.close();
    }
    ASSERT_EQ(0, helper.GetDb(db));

    const std::string text = err.Text();
    EXPECT_THAT(text, HasSubstr("( 1 expected, -1 found)"));
    EXPECT_THAT(text, HasSubstr("Upgrade DB from 4294967295 to 1\n"));
    EXPECT_THAT(text, HasSubstr("Cant read " + Script("4294967295to0.sh") + "\n"));
    EXPECT_THAT(text, HasSubstr("Cant read " + Script("0to1.sh") + "\n"));
    EXPECT_EQ("<error>", QueryOne(kPath, "SELECT x FROM other"));
    EXPECT_EQ(1, helper.GetVersion(db));
}

TEST_F(DbSetup, AVersionNoScriptsCanReachIsReplacedAtOnce) {
    MakeDatabase(2147483000);
    MakeScriptsArchive(kArchive, {{"2147482999to2147482998.sql", "UPDATE version SET id = 1;\n"}});
    DbManagerHelper helper = Helper(1);
    StderrCapture err;
    ASSERT_EQ(0, helper.GetDb(db));
    EXPECT_EQ(1, helper.GetVersion(db));
    EXPECT_EQ("0", QueryOne(kPath, "SELECT count(*) FROM notes"));
    EXPECT_THAT(err.Text(), HasSubstr("Cant read scripts of 2147482999 steps\n"));
}

TEST_F(DbSetup, AFileThatIsNoDatabaseIsMarkedAndTheNextStartBeginsAfresh) {
    WriteFile(kPath, std::string(8192, 'x'));
    SetGlobal("language", "de");
    qvhost_ipc_clear();
    DbManagerHelper helper = Helper(1);
    {
        LogCapture log;
        EXPECT_EQ(kNotADb, helper.GetDb(db));
        EXPECT_TRUE(log.Has(QV_LOG_ERROR, PidLine(" err:[26] ")));
    }
    EXPECT_EQ(1, ReadMarker(kKey));
    EXPECT_GE(qvhost_ipc_count(272), 1);
    db.close();

    ASSERT_EQ(0, helper.GetDb(db));
    EXPECT_EQ(0, ReadMarker(kKey));
    EXPECT_EQ(1, helper.GetVersion(db));
    EXPECT_EQ("wal", QueryOne(kPath, "PRAGMA journal_mode"));
    // The marker's round trip leaves the other settings alone.
    iconfig* global = OpenConfig("/mnt/ext1/system/config/global.cfg", 0);
    EXPECT_STREQ("de", ReadString(global, "language", ""));
    CloseConfigNoSave(global);
}

TEST_F(DbSetup, TheMarkerDeletesTheFileAndIsClearedAlsoWhenTheFileIsGone) {
    MakeDatabase(1, "damaged note");
    SetMarker(kKey, 1);
    DbManagerHelper helper = Helper(1);
    ASSERT_EQ(0, helper.GetDb(db));
    EXPECT_EQ(0, ReadMarker(kKey));
    EXPECT_EQ("0", QueryOne(kPath, "SELECT count(*) FROM notes"));
    db.close();

    for (const char* suffix : {"", "-wal", "-shm"})
        ::unlink((kPath + suffix).c_str());
    SetMarker(kKey, 1);
    ASSERT_EQ(0, helper.GetDb(db));
    EXPECT_EQ(0, ReadMarker(kKey));
    EXPECT_EQ(1, helper.GetVersion(db));
}

TEST_F(DbSetup, TheMarkerIsTestedOnlyUnderTheLockThatAnotherProcessHolds) {
    MakeDatabase(1, "damaged note");
    SetMarker(kKey, 1);
    qvtest::Rendezvous locked;
    auto holder = qvtest::ChildProcess::Start([&locked] {
        int fd = ::open((kPath + ".lock").c_str(), O_RDWR | O_CREAT, 0600);
        if (::flock(fd, LOCK_EX) != 0) return 1;
        locked.Signal();
        ::usleep(400 * 1000);
        // Nobody may have looked at the marker or the file while the lock was held here.
        return (ReadMarker(kKey) == 1 && Exists(kPath)) ? 0 : 2;
    });
    ASSERT_TRUE(locked.Wait());
    DbManagerHelper helper = Helper(1);
    auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(0, helper.GetDb(db));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
    auto result = holder.Wait();
    EXPECT_TRUE(result.Succeeded()) << result.Describe();
    EXPECT_EQ(0, ReadMarker(kKey));
    EXPECT_EQ("0", QueryOne(kPath, "SELECT count(*) FROM notes"));
}

// Starts three processes at once, each setting up the file and writing one note "<round> <i>".
void SetUpInThreeProcessesAtOnce(const std::string& round) {
    constexpr int kProcesses = 3;
    qvtest::Rendezvous gate;
    std::vector<qvtest::ChildProcess> children;
    for (int i = 0; i < kProcesses; ++i) {
        children.push_back(qvtest::ChildProcess::Start([&gate, &round, i] {
            if (!gate.Wait()) return 10;
            DbManagerHelper helper = Helper(1);
            Sqlite db;
            if (helper.GetDb(db) != 0) return 20;
            int rc = db.exec("INSERT INTO notes(body) VALUES('" + round + " " + std::to_string(i) +
                             "')");
            db.close();
            return rc == kDone ? 0 : 30;
        }));
    }
    for (int i = 0; i < kProcesses; ++i)
        gate.Signal();
    for (auto& child : children) {
        auto result = child.Wait();
        EXPECT_TRUE(result.Succeeded()) << result.Describe();
    }
}

TEST(DbSetupProcesses, ProcessesStartingAtOnceShareOneFile) {
    // No file yet: all of them may try to create it.
    SetUpInThreeProcessesAtOnce("first");
    EXPECT_THAT(Query(kPath, "SELECT body FROM notes ORDER BY body"),
                ElementsAre("first 0", "first 1", "first 2"));

    // A marked file: exactly one of them deletes it, and all write into the one that replaced it.
    SetMarker(kKey, 1);
    SetUpInThreeProcessesAtOnce("second");
    EXPECT_THAT(Query(kPath, "SELECT body FROM notes ORDER BY body"),
                ElementsAre("second 0", "second 1", "second 2"));
    EXPECT_EQ(0, ReadMarker(kKey));
    EXPECT_EQ("1", QueryOne(kPath, "SELECT count(*) FROM storages"));
    EXPECT_EQ("1", QueryOne(kPath, "SELECT id FROM version"));
}

TEST_F(DbSetup, StoragesAreTheInternalOneAndTheCardInTheSlot) {
    DbManagerHelper helper = Helper(1);
    ASSERT_EQ(0, helper.GetDb(db));
    StorageHelper storages(db);
    EXPECT_EQ(1, storages.GetStorageByPath("/mnt/ext1"));
    EXPECT_EQ(1, storages.GetStorageByPath("/mnt/ext1x/a.mp3"));  // a plain prefix test
    EXPECT_EQ(-1, storages.GetStorageByPath("/media/usb/a.mp3"));
    EXPECT_EQ(-1, storages.GetStorageByPath("/mnt/ext2/a.mp3"));  // no card
    EXPECT_THAT(storages.getStorages(), ElementsAre(1));

    qvhost_set_card_inserted(1);
    qvhost_set_card_serial("C0FFEE01");
    const int64_t card = storages.GetStorageByPath("/mnt/ext2/Music/a.mp3");
    EXPECT_EQ(2, card);
    EXPECT_EQ(card, storages.GetStorageByName("SDCard:C0FFEE01"));
    EXPECT_EQ("1", QueryOne(kPath, "SELECT count(*) FROM storages WHERE name = 'SDCard:C0FFEE01'"));
    EXPECT_THAT(storages.getStorages(), ElementsAre(1, card));

    qvhost_set_card_serial("BEEF");
    EXPECT_EQ(3, storages.GetStorageByPath("/mnt/ext2"));

    qvhost_set_card_serial(nullptr);
    LogCapture log;
    EXPECT_EQ(-1, storages.GetStorageByPath("/mnt/ext2/x.mp3"));
    EXPECT_TRUE(log.Has(QV_LOG_ERROR, PidLine("Condition: \"!serialHex\", return(\"-1\")]")));
    EXPECT_THAT(storages.getStorages(), ElementsAre(1, -1));
}

}  // namespace
