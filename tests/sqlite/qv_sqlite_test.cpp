// The SQLite layer against real files, and against a real second process for the locking rules.

#include "common_utilities/qv_sqlite.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "child_process.h"
#include "log_capture.h"

namespace {

using namespace std::chrono_literals;
using quorvel::utilities::KeptStatement;
using quorvel::utilities::Sqlite;
using quorvel::utilities::SqliteError;
using quorvel::utilities::Statement;
using quorvel::utilities::Transaction;
using qvtest::LogCapture;
using qvtest::PidLine;

// SQLite's codes, spelt out: like an application, the tests build without SQLite's header.
constexpr int kOk = 0;
constexpr int kError = 1;
constexpr int kCorrupt = 11;
constexpr int kCantOpen = 14;
constexpr int kConstraint = 19;
constexpr int kMisuse = 21;
constexpr int kRange = 25;
constexpr int kNotADb = 26;
constexpr int kRow = 100;
constexpr int kDone = 101;
constexpr int kTextType = 3;
constexpr int kBlobType = 4;

static_assert(!std::is_base_of_v<std::exception, SqliteError>);
static_assert(!std::is_polymorphic_v<SqliteError>);

// The message of the SqliteError that `action` throws; anything else thrown fails the test.
std::string ErrorOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const SqliteError& error) {
        return error.message();
    }
    return "(nothing thrown)";
}

// A path under the user storage with no file behind it, also when all tests share one sandbox.
std::string FreshPath(const std::string& name) {
    std::string path = "/mnt/ext1/" + name;
    ::unlink(path.c_str());
    ::unlink((path + "-journal").c_str());
    return path;
}

void WriteFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

long long CountRows(Sqlite& db, const std::string& table) {
    auto st = db.prepare_v2("SELECT count(*) FROM " + table);
    EXPECT_EQ(kRow, st->step());
    return st->column_int64(0);
}

class SqliteTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(kOk, db.open(path)); }
    void TearDown() override { EXPECT_EQ(kOk, db.close()); }

    const std::string path = FreshPath("test.db");
    Sqlite db;
};

TEST(SqliteOpen, OpenCreatesAndOpenNoCreateFailsQuietly) {
    const std::string path = FreshPath("library.db");
    Sqlite db;
    int damaged = 0;
    db.corrupt_handler = [&] { ++damaged; };
    LogCapture log;

    // A missing file is the expected case: no log, and the object stays usable for open.
    EXPECT_EQ(kCantOpen, db.open_no_create(path));
    EXPECT_TRUE(log.Messages(QV_LOG_ERROR).empty());
    EXPECT_NE(0, ::access(path.c_str(), F_OK));
    EXPECT_EQ(kMisuse, db.exec("SELECT 1"));

    ASSERT_EQ(kOk, db.open(path));
    EXPECT_EQ(kDone, db.exec("CREATE TABLE t(x)"));
    // Only the first configuration of a process can take effect; every later open says so.
    EXPECT_TRUE(log.Has(QV_LOG_INFO, PidLine("Sqlite misuse set SQLITE_CONFIG_SERIALIZED")));

    // An open connection is never reopened, and stays as it was.
    EXPECT_EQ(kMisuse, db.open("/mnt/ext1/other.db"));
    EXPECT_EQ(kMisuse, db.open_no_create(path));
    EXPECT_EQ(kDone, db.exec("INSERT INTO t VALUES(1)"));
    EXPECT_NE(0, ::access("/mnt/ext1/other.db", F_OK));

    EXPECT_EQ(kOk, db.close());
    EXPECT_EQ(kOk, db.close());
    log.Clear();
    EXPECT_EQ(kMisuse, db.exec("SELECT 1"));
    EXPECT_EQ(nullptr, db.prepare("SELECT 1"));
    EXPECT_TRUE(log.Messages().empty());

    ASSERT_EQ(kOk, db.open_no_create(path));
    EXPECT_EQ(1, CountRows(db, "t"));
    EXPECT_EQ(kOk, db.close());
    EXPECT_EQ(0, damaged);
}

TEST(SqliteOpen, TheFirstOpenOfAProcessSetsTheSerializedMode) {
    // A process of its own, on a platform that leaves SQLite unconfigured until the library
    // opens its first database.
    qvtest::ChildResult first = qvtest::RunProgram(
        {"env", "QV_HOST_NO_ICU_COLLATION=1", qvtest::BuildProgram("qvtool"), "--log-level", "4",
         "sql", "--create", FreshPath("first.db"), "SELECT 1; SELECT 2"});
    ASSERT_TRUE(first.Succeeded()) << first.Describe();
    const std::string serialized = "]Sqlite using serialized mode";
    const size_t at = first.output.find(serialized);
    EXPECT_NE(at, std::string::npos) << first.output;
    EXPECT_EQ(first.output.find(serialized, at + 1), std::string::npos) << first.output;
    // At level 4, "I" in the host's log lines.
    const size_t line = first.output.rfind('\n', at) + 1;
    EXPECT_EQ(first.output.compare(line, 2, "I "), 0) << first.output;
}

TEST(SqliteOpen, FailedOpenKeepsItsHandleUntilClosed) {
    const std::string good = FreshPath("good.db");
    Sqlite db;
    LogCapture log;
    EXPECT_EQ(kCantOpen, db.open("/mnt/ext1/no/such/dir/x.db"));
    EXPECT_TRUE(log.Has(QV_LOG_ERROR, PidLine("Failed with [14] Can't open database")));

    EXPECT_EQ(kMisuse, db.open(good));
    EXPECT_EQ(kOk, db.close());
    EXPECT_EQ(kOk, db.open(good));
    EXPECT_EQ(kDone, db.exec("CREATE TABLE t(x)"));
    EXPECT_EQ(kOk, db.close());
}

TEST_F(SqliteTest, ExecAndPrepareReportTheWayCallersTestForIt) {
    LogCapture log;
    EXPECT_EQ(kDone, db.exec("CREATE TABLE t(x); INSERT INTO t VALUES(1)"));
    EXPECT_EQ(kError, db.exec("INSERT INTO missing VALUES(1)"));
    // exec leaves reporting to its caller.
    EXPECT_TRUE(log.Messages(QV_LOG_ERROR).empty());

    EXPECT_NE(nullptr, db.prepare("SELECT x FROM t"));
    EXPECT_TRUE(log.Has(QV_LOG_TRACE, PidLine("Preparing statement [SELECT x FROM t]")));

    EXPECT_EQ(nullptr, db.prepare("SELEC x"));
    EXPECT_TRUE(log.Has(QV_LOG_TRACE, PidLine("Preparing statement [SELEC x]")));
    EXPECT_TRUE(
        log.Has(QV_LOG_ERROR, PidLine("Failed with [1] Can't prepare statement [SELEC x]")));
    EXPECT_EQ("near \"SELEC\": syntax error", ErrorOf([&] { db.prepare_v2("SELEC x"); }));
}

TEST_F(SqliteTest, RunIsForStatementsThatYieldNoRows) {
    ASSERT_EQ(kDone, db.exec("CREATE TABLE t(x UNIQUE)"));
    EXPECT_EQ(kDone, db.prepare_v2("INSERT INTO t VALUES(7)")->run());
    EXPECT_EQ(1, db.LastInsertedRow());

    auto select = db.prepare_v2("SELECT x FROM t");
    EXPECT_EQ("Failed to run statement", ErrorOf([&] { select->run(); }));
    EXPECT_EQ("Failed to run statement",
              ErrorOf([&] { db.prepare_v2("INSERT INTO t VALUES(7)")->run(); }));

    // Only a handler that names the type catches it.
    bool generic = false;
    bool by_name = false;
    try {
        try {
            select->reset();
            select->run();
        } catch (const std::exception&) {
            generic = true;
        }
    } catch (const SqliteError&) {
        by_name = true;
    }
    EXPECT_FALSE(generic);
    EXPECT_TRUE(by_name);
}

TEST_F(SqliteTest, ResetAndFinalizeAfterAFailedStepReportItAndReleaseTheStatementOnce) {
    ASSERT_EQ(kDone, db.exec("CREATE TABLE t(x UNIQUE); INSERT INTO t VALUES(1)"));
    LogCapture log;
    auto st = db.prepare("INSERT INTO t VALUES(1)");
    ASSERT_EQ(kConstraint, st->step());
    EXPECT_EQ(kConstraint, st->reset());
    EXPECT_TRUE(log.Has(QV_LOG_ERROR, PidLine("Failed with [19] Can't reset statement")));
    // Reset, the statement runs again, and fails the same way.
    EXPECT_EQ(kConstraint, st->step());
    // SQLite repeats the step's error here although the statement is gone; neither a retry nor
    // the destructor may finalize it again (the address sanitizer watches for that).
    EXPECT_EQ(kConstraint, st->finalize());
    EXPECT_TRUE(log.Has(QV_LOG_ERROR, PidLine("Failed with [19] Can't finalize statement")));
    EXPECT_EQ(kMisuse, st->step());
    EXPECT_EQ(kOk, st->finalize());
    st.reset();
    EXPECT_EQ(1, CountRows(db, "t"));
}

TEST_F(SqliteTest, BindsKeepEveryByteAndDoNotDependOnTheCallersBuffer) {
    ASSERT_EQ(kDone, db.exec("CREATE TABLE v(a, b, c, d, e, f, g)"));
    const std::string blob("\0a\0b\0", 5);
    const std::string text("x\0y", 3);
    char buffer[] = "transient";

    auto insert = db.prepare("INSERT INTO v VALUES(?, ?, ?, ?, ?, ?, ?)");
    ASSERT_NE(nullptr, insert);
    EXPECT_EQ(kOk, insert->bind_binary(1, blob.data(), static_cast<int>(blob.size())));
    EXPECT_EQ(kOk, insert->bind(2, Statement::Binary(blob)));
    EXPECT_EQ(kOk, insert->bind(3, text.data(), static_cast<int>(text.size())));
    EXPECT_EQ(kOk, insert->bind(4, buffer));
    EXPECT_EQ(kOk, insert->bind(5, 1LL << 40));
    EXPECT_EQ(kOk, insert->bind(6, 2.5));
    EXPECT_EQ(kOk, insert->bind_null(7));
    EXPECT_EQ(kRange, insert->bind(8, 1));
    std::memset(buffer, '#', sizeof buffer - 1);
    EXPECT_EQ(kDone, insert->step());
    // Bindings outlive reset; clear_bindings is what drops them.
    EXPECT_EQ(kOk, insert->reset());
    EXPECT_EQ(kDone, insert->step());
    EXPECT_EQ(kOk, insert->reset());
    EXPECT_EQ(kOk, insert->clear_bindings());
    EXPECT_EQ(kDone, insert->step());

    auto rows = db.prepare("SELECT a, b, c, d, e, f, g, x'' FROM v ORDER BY rowid");
    for (int row = 0; row < 2; ++row) {
        ASSERT_EQ(kRow, rows->step());
        EXPECT_EQ(blob, rows->column_binary(0));
        EXPECT_EQ(kBlobType, rows->column_type(1));
        EXPECT_EQ(blob, rows->column_binary(1));
        EXPECT_EQ(kTextType, rows->column_type(2));
        EXPECT_EQ(text, rows->column_binary(2));
        EXPECT_STREQ("transient", rows->column_text(3));
        EXPECT_EQ(1LL << 40, rows->column_int64(4));
        EXPECT_EQ(2.5, rows->column_double(5));
        EXPECT_TRUE(rows->is_null_columnt(6));
        EXPECT_EQ(nullptr, rows->column_text(6));
        EXPECT_EQ("", rows->column_binary(6));
        EXPECT_FALSE(rows->is_null_columnt(7));
        EXPECT_EQ("", rows->column_binary(7));
    }
    ASSERT_EQ(kRow, rows->step());
    EXPECT_TRUE(rows->is_null_columnt(0));
    EXPECT_EQ(kDone, rows->step());
    EXPECT_EQ(8, rows->column_count());
    EXPECT_STREQ("g", rows->column_name(6));
}

enum class BookKind { kMp3 = 7 };
enum Tag { kTagColor = 101 };

TEST_F(SqliteTest, BindAllBindsFromOneAndThrowsAtTheFirstFailure) {
    ASSERT_EQ(kDone, db.exec("CREATE TABLE r(a, b, c, d, e, f)"));
    db.prepare_v2("INSERT INTO r VALUES(?, ?, ?, ?, ?, ?)")
        ->bind_all(1LL << 33, std::string("title"), 5, BookKind::kMp3, kTagColor,
                   Statement::Binary(std::string("\0z", 2)))
        .run();

    auto row = db.prepare_v2("SELECT a, b, c, d, e, f, typeof(d) FROM r");
    ASSERT_EQ(kRow, row->step());
    EXPECT_EQ(1LL << 33, row->column_int64(0));
    EXPECT_STREQ("title", row->column_text(1));
    EXPECT_EQ(5, row->column_int(2));
    EXPECT_EQ(7, row->column_int(3));
    EXPECT_EQ(101, row->column_int(4));
    EXPECT_EQ(std::string("\0z", 2), row->column_binary(5));
    EXPECT_STREQ("integer", row->column_text(6));

    auto insert = db.prepare_v2("INSERT INTO r(a) VALUES(?)");
    EXPECT_EQ("Failed to bind value", ErrorOf([&] { insert->bind_all(1, 2); }));
}

TEST_F(SqliteTest, KeptStatementStartsEveryUseResetAndUnboundAndHoldsNoLockBetweenUses) {
    ASSERT_EQ(kDone, db.exec("CREATE TABLE t(x UNIQUE, y); INSERT INTO t VALUES(0, 'zero')"));
    const std::string insert_sql = "INSERT INTO t VALUES(?, ?)";
    KeptStatement insert(db, insert_sql);
    KeptStatement select(db, "SELECT x FROM t ORDER BY x");
    LogCapture log;
    {
        auto st = insert.use();
        ASSERT_NE(nullptr, st.get());
        ASSERT_EQ(kOk, st->bind(1, 1));
        ASSERT_EQ(kOk, st->bind(2, std::string("one")));
        EXPECT_EQ(kDone, st->step());
    }
    {
        auto st = insert.use();
        ASSERT_EQ(kOk, st->bind(1, 1));
        EXPECT_EQ(kConstraint, st->step());
    }
    {
        // Neither the failure nor the values of an earlier use reach this one.
        auto st = insert.use();
        ASSERT_EQ(kOk, st->bind(1, 2));
        EXPECT_EQ(kDone, st->step());
    }
    auto nulls = db.prepare_v2("SELECT count(*) FROM t WHERE x = 2 AND y IS NULL");
    ASSERT_EQ(kRow, nulls->step());
    EXPECT_EQ(1, nulls->column_int(0));
    nulls.reset();
    // The use that failed leaves the line a statement of its own would have left when finalized.
    const std::vector<std::string> errors = log.Messages(QV_LOG_ERROR);
    ASSERT_EQ(1u, errors.size());
    EXPECT_EQ(PidLine("Failed with [19] Can't finalize statement"), errors[0]);
    // The trace reads as if every use had prepared its statement.
    int prepared = 0;
    for (const std::string& message : log.Messages(QV_LOG_TRACE))
        prepared += message == PidLine("Preparing statement [" + insert_sql + "]") ? 1 : 0;
    EXPECT_EQ(3, prepared);

    // A use left at a row keeps no read lock: another process may take the file exclusively.
    {
        auto st = select.use();
        ASSERT_EQ(kRow, st->step());
        EXPECT_EQ(0, st->column_int(0));
    }
    auto other = qvtest::RunProgram({"sqlite3", path, "BEGIN EXCLUSIVE; COMMIT;"});
    EXPECT_TRUE(other.Succeeded()) << other.output;

    // A statement that can't be prepared is tried again on every use.
    KeptStatement broken(db, "SELEC x");
    EXPECT_EQ(nullptr, broken.use().get());
    EXPECT_EQ(nullptr, broken.use().get());
    int failures = 0;
    for (const std::string& message : log.Messages(QV_LOG_ERROR))
        failures += message == PidLine("Failed with [1] Can't prepare statement [SELEC x]") ? 1 : 0;
    EXPECT_EQ(2, failures);

    // Released, the connection closes (TearDown); a use after the release prepares afresh.
    insert.release();
    {
        auto st = insert.use();
        ASSERT_EQ(kOk, st->bind(1, 3));
        EXPECT_EQ(kDone, st->step());
    }
    EXPECT_EQ(4, CountRows(db, "t"));
}

TEST_F(SqliteTest, TransactionFinishesOnceAndRollsBackWhenLeftActive) {
    ASSERT_EQ(kDone, db.exec("CREATE TABLE t(x)"));
    {
        auto transaction = Transaction::acquire(db);
        ASSERT_NE(nullptr, transaction);
        ASSERT_EQ(kDone, db.exec("INSERT INTO t VALUES(1)"));
        EXPECT_EQ(0, transaction->commit());

        // Finished: no END or ROLLBACK may reach the transaction that is open now.
        ASSERT_EQ(kDone, db.exec("BEGIN"));
        ASSERT_EQ(kDone, db.exec("INSERT INTO t VALUES(2)"));
        EXPECT_EQ(-1, transaction->commit());
        EXPECT_EQ(-1, transaction->rollback());
        EXPECT_EQ(kDone, db.exec("ROLLBACK"));
    }
    EXPECT_EQ(1, CountRows(db, "t"));

    {
        auto transaction = Transaction::acquire(db);
        ASSERT_EQ(kDone, db.exec("INSERT INTO t VALUES(3)"));
    }
    EXPECT_EQ(1, CountRows(db, "t"));
    EXPECT_EQ("thrown", ErrorOf([&] {
                  auto transaction = Transaction::acquire(db);
                  db.exec("INSERT INTO t VALUES(4)");
                  throw SqliteError("thrown");
              }));
    EXPECT_EQ(1, CountRows(db, "t"));
    {
        Transaction never_begun(db);
        EXPECT_EQ(-1, never_begun.rollback());
    }
    // Nothing was left open on the way.
    EXPECT_EQ(kDone, db.exec("BEGIN"));
    EXPECT_EQ(kDone, db.exec("COMMIT"));
}

TEST_F(SqliteTest, FailedCommitStaysActiveAndFailedBeginGivesNoTransaction) {
    ASSERT_EQ(kDone, db.exec("PRAGMA foreign_keys = ON;"
                             "CREATE TABLE parent(id INTEGER PRIMARY KEY);"
                             "CREATE TABLE child(p REFERENCES parent(id) DEFERRABLE INITIALLY "
                             "DEFERRED)"));
    LogCapture log;
    {
        auto transaction = Transaction::acquire(db);
        ASSERT_NE(nullptr, transaction);
        // A deferred key is checked only at the end, and a failed END keeps the transaction.
        ASSERT_EQ(kDone, db.exec("INSERT INTO child VALUES(42)"));
        EXPECT_EQ(kConstraint, transaction->commit());
        EXPECT_TRUE(log.Has(QV_LOG_ERROR, PidLine(" err:[19] ")));
    }
    EXPECT_EQ(0, CountRows(db, "child"));

    ASSERT_EQ(kDone, db.exec("BEGIN"));
    ASSERT_EQ(kDone, db.exec("INSERT INTO parent VALUES(1)"));
    EXPECT_EQ(nullptr, Transaction::acquire(db));
    EXPECT_TRUE(log.Has(QV_LOG_ERROR, PidLine(" err:[1] ")));
    // The refused transaction must not have rolled back the one that was open.
    EXPECT_EQ(kDone, db.exec("COMMIT"));
    EXPECT_EQ(1, CountRows(db, "parent"));

    Sqlite closed;
    EXPECT_EQ(nullptr, Transaction::acquire(closed));
    EXPECT_TRUE(log.Has(QV_LOG_ERROR, PidLine(" err:[21] ")));
}

TEST(SqliteCorruption, EveryDamagedResultCallsTheConnectionsHandler) {
    const std::string path = "/mnt/ext1/not_a_database.db";
    WriteFile(path, std::string(8192, 'x'));
    Sqlite db;
    int damaged = 0;
    db.corrupt_handler = [&] { ++damaged; };
    LogCapture log;

    // SQLite reads lazily, so the open itself succeeds.
    ASSERT_EQ(kOk, db.open_no_create(path));
    EXPECT_EQ(kNotADb, db.exec("SELECT count(*) FROM sqlite_master"));
    EXPECT_EQ(1, damaged);
    EXPECT_EQ(kNotADb, db.exec("SELECT count(*) FROM sqlite_master"));
    EXPECT_EQ(2, damaged);
    EXPECT_EQ(nullptr, db.prepare("SELECT * FROM sqlite_master"));
    EXPECT_EQ(3, damaged);
    EXPECT_TRUE(
        log.Has(QV_LOG_ERROR, PidLine("Failed with [26] Can't prepare statement [SELECT * FROM "
                                      "sqlite_master]")));
    EXPECT_EQ("file is not a database", ErrorOf([&] { db.prepare_v2("SELECT * FROM t"); }));
    EXPECT_EQ(4, damaged);

    // Other failures are not damage.
    EXPECT_EQ(kError, db.exec("SELEC 1"));
    EXPECT_EQ(4, damaged);
    EXPECT_EQ(kOk, db.close());
}

TEST(SqliteCorruption, StatementKeepsTheHandlerItWasPreparedWith) {
    const std::string path = FreshPath("damaged_later.db");
    Sqlite db;
    ASSERT_EQ(kOk, db.open(path));
    ASSERT_EQ(kDone, db.exec("CREATE TABLE t(x); INSERT INTO t VALUES(1)"));
    int early = 0;
    int late = 0;
    db.corrupt_handler = [&] { ++early; };
    auto select = db.prepare_v2("SELECT x FROM t");
    auto insert = db.prepare_v2("INSERT INTO t VALUES(2)");
    db.corrupt_handler = [&] { ++late; };

    std::string garbage(8192, '\0');
    for (size_t i = 0; i < garbage.size(); ++i)
        garbage[i] = static_cast<char>(i * 7 + 3);
    WriteFile(path, garbage);

    int rc = select->step();
    EXPECT_TRUE(rc == kNotADb || rc == kCorrupt) << rc;
    EXPECT_EQ(1, early);
    EXPECT_EQ("Failed to run statement", ErrorOf([&] { insert->run(); }));
    EXPECT_EQ(2, early);
    EXPECT_EQ(0, late);

    rc = db.exec("SELECT x FROM t");
    EXPECT_TRUE(rc == kNotADb || rc == kCorrupt) << rc;
    EXPECT_EQ(1, late);
    EXPECT_EQ(2, early);

    select.reset();
    insert.reset();
    EXPECT_EQ(kOk, db.close());
}

TEST(SqliteBusy, ALockHeldByAnotherProcessIsWaitedOutNotReported) {
    const std::string path = FreshPath("shared.db");
    {
        Sqlite db;
        ASSERT_EQ(kOk, db.open(path));
        ASSERT_EQ(kDone, db.exec("CREATE TABLE t(who)"));
        ASSERT_EQ(kOk, db.close());
    }

    // Well past the handler's 41 sleeps of 50 ms, so the layer's own retry has to carry on. The
    // child holds the write lock, exclusively, once for each wrapper that meets it.
    constexpr auto kHold = 3s;
    constexpr int kLocks = 4;
    qvtest::Rendezvous locked[kLocks];
    qvtest::Rendezvous go_on[kLocks];
    auto holder = qvtest::ChildProcess::Start([&]() -> int {
        Sqlite db;
        if (db.open(path) != kOk) return 1;
        for (int i = 0; i < kLocks; ++i) {
            if (i > 0 && !go_on[i].Wait(30s)) return 4;
            if (db.exec("BEGIN EXCLUSIVE") != kDone ||
                db.exec("INSERT INTO t VALUES('child')") != kDone)
                return 2;
            locked[i].Signal();
            std::this_thread::sleep_for(kHold);
            if (db.exec("COMMIT") != kDone) return 3;
        }
        return db.close() == kOk ? 0 : 5;
    });
    auto waited_out = [&](int lock, const std::function<void()>& action) {
        if (lock > 0) go_on[lock].Signal();
        ASSERT_TRUE(locked[lock].Wait(30s));
        auto start = std::chrono::steady_clock::now();
        action();
        EXPECT_GT(std::chrono::steady_clock::now() - start, 2050ms) << "lock " << lock;
    };

    Sqlite db;
    ASSERT_EQ(kOk, db.open(path));
    // A connection that has not read the schema yet waits in prepare.
    std::shared_ptr<Statement> count;
    waited_out(0, [&] { count = db.prepare_v2("SELECT count(*) FROM t"); });
    ASSERT_NE(nullptr, count);
    waited_out(1, [&] { EXPECT_EQ(kDone, db.exec("INSERT INTO t VALUES('exec')")); });
    auto insert = db.prepare_v2("INSERT INTO t VALUES('run')");
    waited_out(2, [&] { EXPECT_EQ(kDone, insert->run()); });
    // An exclusive lock keeps readers out too.
    waited_out(3, [&] { ASSERT_EQ(kRow, count->step()); });
    EXPECT_EQ(6, count->column_int(0));
    EXPECT_EQ(kOk, count->reset());
    count.reset();
    insert.reset();

    auto result = holder.Wait(30s);
    EXPECT_TRUE(result.Succeeded()) << result.exit_code << " " << result.output;
    EXPECT_EQ(kOk, db.close());
}

}  // namespace
