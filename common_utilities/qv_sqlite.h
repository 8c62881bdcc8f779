// The one way every database of the library talks to SQLite: how a connection is opened, why a
// busy database never reaches the caller, how damage to a file is reported, and the result codes
// the managers above test for (SQLite's own codes; success of a statement is SQLITE_DONE, 101).
//
// SQLite's header stays out of this one, so that applications build without it.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "common_utilities/common_utilities.h"

struct sqlite3;
struct sqlite3_stmt;

// Puts SQLite in serialized mode when the build allows it. Called on every open: only the first
// call of a process can still change the mode, later ones are told so and log it.
QV_EXPORT void useSerializedMode();

// Installed on every connection: sleeps 50 ms per attempt and gives up after the 41st, some
// 2 seconds, after which the wrappers below simply ask again.
QV_EXPORT int busyHandler(void* unused, int count);

namespace quorvel {
namespace utilities {

// Thrown by prepare_v2, run and bind_all. Deliberately outside the std::exception family: the
// database layer's failures are caught by name, and a generic handler elsewhere must not swallow
// them by accident.
class QV_EXPORT SqliteError {
public:
    explicit SqliteError(std::string message) : message_(std::move(message)) {}

    const std::string& message() const { return message_; }

private:
    std::string message_;
};

class Sqlite;

// One prepared statement, made by Sqlite::prepare; finalized by its destructor at the latest.
class QV_EXPORT Statement {
public:
    // A blob value. Its own type, so that a string meant as bytes is bound as a blob, zero bytes
    // and all, and never as text by overload accident.
    class Binary {
    public:
        Binary() = default;
        explicit Binary(std::string bytes) : bytes_(std::move(bytes)) {}

        const std::string& bytes() const { return bytes_; }

    private:
        std::string bytes_;
    };

    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    // Binds take SQLite's indexes, the first parameter being 1. Text and blobs are copied by
    // SQLite, so the caller's buffer need not outlive the call.
    int bind(int index, long long value);
    int bind(int index, int value);
    int bind(int index, double value);
    int bind(int index, const std::string& value);
    int bind(int index, const char* value);
    int bind(int index, const char* value, int length);
    int bind_binary(int index, const char* data, int size);
    int bind(int index, const Binary& value);
    int bind_null(int index);

    // Binds the values to parameters 1, 2, ... in turn; throws SqliteError("Failed to bind
    // value") at the first that fails. Enumerations go in as their integer value.
    template <typename... Values>
    Statement& bind_all(const Values&... values) {
        bind_all_impl(1, values...);
        return *this;
    }

    int step();
    // For statements that yield no rows: SQLITE_DONE, or SqliteError("Failed to run statement").
    int run();
    int reset();
    int finalize();
    int clear_bindings();

    int column_int(int column) const;
    long long column_int64(int column) const;
    double column_double(int column) const;
    // Owned by SQLite and valid until the next step, reset or finalize; null for NULL.
    const char* column_text(int column) const;
    std::string column_binary(int column) const;
    bool is_null_columnt(int column) const;

    // Shape of the result, for callers that print rows they did not write the query for.
    int column_count() const;
    const char* column_name(int column) const;
    int column_type(int column) const;

private:
    friend class Sqlite;
    friend class KeptStatement;
    Statement(sqlite3_stmt* stmt, std::function<void()> corrupt_handler);

    void bind_all_impl(int) {}

    template <typename First, typename... Rest>
    void bind_all_impl(int index, const First& first, const Rest&... rest) {
        int rc;
        if constexpr (std::is_enum_v<First>)
            rc = bind(index, static_cast<int>(first));
        else
            rc = bind(index, first);
        if (rc != 0) throw SqliteError("Failed to bind value");
        bind_all_impl(index + 1, rest...);
    }

    sqlite3_stmt* stmt_;
    // Taken when the statement was prepared; a handler given to the connection later does not
    // reach it.
    std::function<void()> corrupt_handler_;
};

// One connection, embedded by its owner. It does not close itself: closing is the owner's call,
// made where the owner can see the result.
class QV_EXPORT Sqlite {
public:
    Sqlite() = default;
    Sqlite(const Sqlite&) = delete;
    Sqlite& operator=(const Sqlite&) = delete;

    // Creates the file when missing. A failure keeps SQLite's handle in the object, so the
    // object must be closed before it can be opened again.
    int open(const std::string& path);
    // Opens an existing file only; a missing file is the expected failure, so it is quiet and
    // leaves the object closed.
    int open_no_create(const std::string& path);
    int close();
    // SQLITE_DONE on success, never SQLITE_OK.
    int exec(const std::string& sql);
    // Null on failure; the caller owns the statement.
    std::unique_ptr<Statement> prepare(const std::string& sql);
    // Throws SqliteError with SQLite's message on failure.
    std::shared_ptr<Statement> prepare_v2(const std::string& sql);

    std::string GetLastErrorMsg() const;
    long long LastInsertedRow() const;

private:
    int OpenWithFlags(const std::string& path, int flags, bool create);

    sqlite3* db_ = nullptr;

public:
    // Called each time SQLite reports the file damaged or not a database. The layer itself
    // neither closes nor removes anything: the owner decides what damage means.
    std::function<void()> corrupt_handler;
};

// A statement that a manager runs once per item of a long batch (a track per scanned file):
// prepared on its first use and kept, because parsing the text again for every item costs more
// than running it. Between uses it is reset with no values bound, so it holds no lock and no
// snapshot of the file. The owner releases it before the connection closes: a connection with a
// live statement refuses to close.
class QV_EXPORT KeptStatement {
public:
    // One use: the statement, ready for binding; reset and cleared when the use ends.
    class Use {
    public:
        Use(KeptStatement& owner, bool kept) : owner_(&owner), kept_(kept) {}
        ~Use();
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;

        // Null when the statement could not be prepared (Sqlite::prepare has logged why).
        Statement* get() const { return owner_->statement_.get(); }
        Statement& operator*() const { return *get(); }
        Statement* operator->() const { return get(); }

        // Whether a step that answered `rc` should be made again on a statement prepared afresh:
        // a statement kept from an earlier use fails in its step when the file's schema changed
        // under it (a table dropped by another connection), where a statement prepared for this
        // use would have failed in its prepare, with that failure's log line. When so, the
        // statement is dropped, and the next use of its owner prepares it.
        bool RemakeAfter(int rc);

    private:
        KeptStatement* owner_;
        bool kept_;  // prepared before this use
    };

    KeptStatement(Sqlite& db, std::string sql) : db_(db), sql_(std::move(sql)) {}
    KeptStatement(const KeptStatement&) = delete;
    KeptStatement& operator=(const KeptStatement&) = delete;

    // Prepares on the first use, and again after a failed one.
    Use use();
    // Finalizes now; the next use prepares afresh.
    void release() { statement_.reset(); }

private:
    Sqlite& db_;
    const std::string sql_;
    std::unique_ptr<Statement> statement_;
};

// BEGIN ... END on a connection, rolled back unless committed. A failed commit leaves the
// transaction active, so that leaving the scope still rolls it back.
class QV_EXPORT Transaction {
public:
    // Null when BEGIN fails.
    static std::unique_ptr<Transaction> acquire(Sqlite& db);

    explicit Transaction(Sqlite& db) : db_(db) {}
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    // 0 on success, otherwise SQLite's code; commit and rollback give -1 unless active.
    int init();
    int commit();
    int rollback();

private:
    enum : int { kNotBegun = 0, kActive = 1, kFinished = 2 };

    int Finish(const char* sql);

    Sqlite& db_;
    int state_ = kNotBegun;
};

}  // namespace utilities
}  // namespace quorvel
