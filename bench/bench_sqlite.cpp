// The SQLite layer against the bare C API doing the same work, in the same run: the layer is
// meant to cost nothing measurable on the paths the managers repeat per row.

#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "common_utilities/qv_sqlite.h"
#include "ratio_reporter.h"

namespace {

using quorvel::utilities::Sqlite;
using quorvel::utilities::Statement;
using quorvel::utilities::Transaction;

constexpr int kRows = 100000;
// Both sides open their connections as the layer does, so that only the layer itself differs.
constexpr int kOpenFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX;

const char kInsertDb[] = "/tmp/bench_sqlite_insert.db";
const char kLookupDb[] = "/tmp/bench_sqlite_lookup.db";

[[noreturn]] void Die(const char* what, int rc) {
    std::fprintf(stderr, "bench_sqlite: %s failed with [%d]\n", what, rc);
    std::exit(1);
}

void Check(int rc, int expected, const char* what) {
    if (rc != expected) Die(what, rc);
}

// Names shaped like the file names the media library stores.
const std::vector<std::string>& Names() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> result;
        result.reserve(kRows);
        for (int i = 0; i < kRows; ++i)
            result.push_back("Artist " + std::to_string(i % 977) + " - Track " + std::to_string(i) +
                             ".mp3");
        return result;
    }();
    return names;
}

// Keys of the lookup table are spread out and visited in random order, so that each lookup
// really walks the index.
int KeyOf(int row) {
    return row * 7 + 13;
}

const std::vector<int>& LookupKeys() {
    static const std::vector<int> keys = [] {
        std::vector<int> result(kRows);
        for (int i = 0; i < kRows; ++i)
            result[i] = KeyOf(i);
        std::shuffle(result.begin(), result.end(), std::mt19937(20240601));
        return result;
    }();
    return keys;
}

sqlite3* OpenRaw(const char* path) {
    sqlite3* db = nullptr;
    Check(sqlite3_open_v2(path, &db, kOpenFlags, nullptr), SQLITE_OK, "sqlite3_open_v2");
    return db;
}

void ExecRaw(sqlite3* db, const char* sql) {
    Check(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK, sql);
}

void FreshInsertTable(sqlite3* db) {
    ExecRaw(db, "DROP TABLE IF EXISTS tracks; CREATE TABLE tracks(id INTEGER, name TEXT)");
}

void MakeLookupDatabase() {
    static bool made = false;
    if (made) return;
    made = true;
    ::unlink(kLookupDb);
    sqlite3* db = OpenRaw(kLookupDb);
    ExecRaw(db,
            "CREATE TABLE tracks(id INTEGER PRIMARY KEY, key INTEGER, name TEXT);"
            "BEGIN");
    sqlite3_stmt* insert = nullptr;
    Check(
        sqlite3_prepare_v2(db, "INSERT INTO tracks(key, name) VALUES(?, ?)", -1, &insert, nullptr),
        SQLITE_OK, "prepare");
    for (int i = 0; i < kRows; ++i) {
        sqlite3_bind_int(insert, 1, KeyOf(i));
        sqlite3_bind_text(insert, 2, Names()[i].c_str(), -1, SQLITE_TRANSIENT);
        Check(sqlite3_step(insert), SQLITE_DONE, "insert");
        sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    ExecRaw(db, "COMMIT; CREATE INDEX tracks_key ON tracks(key); ANALYZE");
    sqlite3_close(db);
}

// ---- (a) 100k prepared inserts in one transaction -------------------------------------------

void InsertWrapper(benchmark::State& state) {
    ::unlink(kInsertDb);
    Sqlite db;
    Check(db.open(kInsertDb), SQLITE_OK, "open");
    const auto& names = Names();
    for (auto _ : state) {
        state.PauseTiming();
        Check(db.exec("DROP TABLE IF EXISTS tracks; CREATE TABLE tracks(id INTEGER, name TEXT)"),
              SQLITE_DONE, "create");
        state.ResumeTiming();

        auto transaction = Transaction::acquire(db);
        auto insert = db.prepare_v2("INSERT INTO tracks(id, name) VALUES(?, ?)");
        for (int i = 0; i < kRows; ++i) {
            insert->bind(1, i);
            insert->bind(2, names[i]);
            int rc = insert->step();
            if (rc != SQLITE_DONE) Die("insert", rc);
            insert->reset();
        }
        insert.reset();
        Check(transaction->commit(), 0, "commit");
    }
    Check(db.close(), SQLITE_OK, "close");
    state.SetItemsProcessed(state.iterations() * kRows);
}

void InsertRaw(benchmark::State& state) {
    ::unlink(kInsertDb);
    sqlite3* db = OpenRaw(kInsertDb);
    const auto& names = Names();
    for (auto _ : state) {
        state.PauseTiming();
        FreshInsertTable(db);
        state.ResumeTiming();

        ExecRaw(db, "BEGIN TRANSACTION");
        sqlite3_stmt* insert = nullptr;
        Check(sqlite3_prepare_v2(db, "INSERT INTO tracks(id, name) VALUES(?, ?)", -1, &insert,
                                 nullptr),
              SQLITE_OK, "prepare");
        for (int i = 0; i < kRows; ++i) {
            sqlite3_bind_int(insert, 1, i);
            sqlite3_bind_text(insert, 2, names[i].c_str(), -1, SQLITE_TRANSIENT);
            Check(sqlite3_step(insert), SQLITE_DONE, "insert");
            sqlite3_reset(insert);
        }
        sqlite3_finalize(insert);
        ExecRaw(db, "END TRANSACTION");
    }
    sqlite3_close(db);
    state.SetItemsProcessed(state.iterations() * kRows);
}

// ---- (b) 100k point lookups through an index ------------------------------------------------

void LookupWrapper(benchmark::State& state) {
    MakeLookupDatabase();
    Sqlite db;
    Check(db.open_no_create(kLookupDb), SQLITE_OK, "open");
    auto lookup = db.prepare_v2("SELECT id, name FROM tracks WHERE key = ?");
    const auto& keys = LookupKeys();
    long long checksum = 0;
    for (auto _ : state) {
        // One read transaction per pass: without it every lookup takes and drops the file lock,
        // and those system calls would drown what the layer itself costs.
        auto transaction = Transaction::acquire(db);
        for (int key : keys) {
            lookup->bind(1, key);
            if (lookup->step() != SQLITE_ROW) Die("lookup", key);
            checksum += lookup->column_int64(0);
            checksum += static_cast<long long>(std::strlen(lookup->column_text(1)));
            lookup->reset();
        }
        Check(transaction->commit(), 0, "commit");
    }
    benchmark::DoNotOptimize(checksum);
    lookup.reset();
    Check(db.close(), SQLITE_OK, "close");
    state.SetItemsProcessed(state.iterations() * kRows);
}

void LookupRaw(benchmark::State& state) {
    MakeLookupDatabase();
    sqlite3* db = OpenRaw(kLookupDb);
    sqlite3_stmt* lookup = nullptr;
    Check(sqlite3_prepare_v2(db, "SELECT id, name FROM tracks WHERE key = ?", -1, &lookup, nullptr),
          SQLITE_OK, "prepare");
    const auto& keys = LookupKeys();
    long long checksum = 0;
    for (auto _ : state) {
        ExecRaw(db, "BEGIN TRANSACTION");
        for (int key : keys) {
            sqlite3_bind_int(lookup, 1, key);
            if (sqlite3_step(lookup) != SQLITE_ROW) Die("lookup", key);
            checksum += sqlite3_column_int64(lookup, 0);
            checksum += static_cast<long long>(
                std::strlen(reinterpret_cast<const char*>(sqlite3_column_text(lookup, 1))));
            sqlite3_reset(lookup);
        }
        ExecRaw(db, "END TRANSACTION");
    }
    benchmark::DoNotOptimize(checksum);
    sqlite3_finalize(lookup);
    sqlite3_close(db);
    state.SetItemsProcessed(state.iterations() * kRows);
}

void Configure(benchmark::internal::Benchmark* benchmark) {
    qvbench::TimeInMilliseconds(benchmark, 9);
}

}  // namespace

BENCHMARK(InsertWrapper)->Name("insert_100k/wrapper")->Apply(Configure);
BENCHMARK(InsertRaw)->Name("insert_100k/raw")->Apply(Configure);
BENCHMARK(LookupWrapper)->Name("select_100k/wrapper")->Apply(Configure);
BENCHMARK(LookupRaw)->Name("select_100k/raw")->Apply(Configure);

int main(int argc, char** argv) {
    return qvbench::RunAndCompare(
        argc, argv,
        {{"wrapper/raw insert 100k", "insert_100k/wrapper", "insert_100k/raw", 0.05},
         {"wrapper/raw indexed select 100k", "select_100k/wrapper", "select_100k/raw", 0.05}});
}
