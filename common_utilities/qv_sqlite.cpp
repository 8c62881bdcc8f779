#include "common_utilities/qv_sqlite.h"

#include <sqlite3.h>

// Every call that can meet SQLITE_BUSY is repeated until it does not, with no pause and no limit
// of its own: busyHandler has already slept between attempts, and a database that another process
// holds is to be waited out, never reported to the managers above.

namespace {

// Damage is reported wherever a result is looked at, each time it is seen: the handler may be
// the only way the owner learns that the file has to go.
inline void SignalCorruption(int rc, const std::function<void()>& handler) {
    if ((rc == SQLITE_CORRUPT || rc == SQLITE_NOTADB) && handler) handler();
}

}  // namespace

void useSerializedMode() {
    if (sqlite3_threadsafe() == 0) {
        QV_LOG_ERROR("Sqlite using single-thread mode");
        return;
    }
    int rc = sqlite3_config(SQLITE_CONFIG_SERIALIZED);
    if (rc == SQLITE_OK)
        QV_LOG_INFO("Sqlite using serialized mode");
    else if (rc == SQLITE_MISUSE)
        QV_LOG_INFO("Sqlite misuse set SQLITE_CONFIG_SERIALIZED");
    else
        QV_LOG_ERROR("Sqlite config return error [%d]", rc);
}

int busyHandler(void*, int count) {
    if (count > 40) return 0;
    sqlite3_sleep(50);
    return 1;
}

namespace quorvel {
namespace utilities {

// ---- Sqlite ---------------------------------------------------------------------------------

int Sqlite::open(const std::string& path) {
    return OpenWithFlags(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                         true);
}

int Sqlite::open_no_create(const std::string& path) {
    return OpenWithFlags(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_FULLMUTEX, false);
}

int Sqlite::OpenWithFlags(const std::string& path, int flags, bool create) {
    if (db_) return SQLITE_MISUSE;
    useSerializedMode();

    int rc;
    for (;;) {
        rc = sqlite3_open_v2(path.c_str(), &db_, flags, nullptr);
        if (rc != SQLITE_BUSY) break;
        // SQLite hands out a handle even when the open fails; one per attempt would leak.
        sqlite3_close(db_);
        db_ = nullptr;
    }

    if (rc != SQLITE_OK) {
        if (create) {
            SignalCorruption(rc, corrupt_handler);
            QV_LOG_FAILED(rc, "Can't open database");
            // The handle stays: the owner closes the object before trying again.
        } else if (db_) {
            sqlite3_close(db_);
            db_ = nullptr;
        }
        return rc;
    }

    rc = sqlite3_busy_handler(db_, &busyHandler, nullptr);
    if (rc != SQLITE_OK) {
        QV_LOG_FAILED(rc, "Can't set busy handler");
        return rc;
    }
    return SQLITE_OK;
}

int Sqlite::close() {
    if (!db_) return SQLITE_OK;
    // Here SQLITE_BUSY means that statements of this connection are still alive, perhaps being
    // finished on another thread; the connection goes once they have.
    int rc;
    do {
        rc = sqlite3_close(db_);
    } while (rc == SQLITE_BUSY);
    if (rc != SQLITE_OK) {
        QV_LOG_FAILED(rc, "Can't close database");
        return rc;
    }
    db_ = nullptr;
    return SQLITE_OK;
}

int Sqlite::exec(const std::string& sql) {
    if (!db_) return SQLITE_MISUSE;
    int rc;
    do {
        rc = sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr);
    } while (rc == SQLITE_BUSY);
    if (rc == SQLITE_OK) return SQLITE_DONE;
    SignalCorruption(rc, corrupt_handler);
    return rc;
}

std::unique_ptr<Statement> Sqlite::prepare(const std::string& sql) {
    if (!db_) return nullptr;
    sqlite3_stmt* stmt = nullptr;
    int rc;
    do {
        rc = sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, nullptr);
    } while (rc == SQLITE_BUSY);
    SignalCorruption(rc, corrupt_handler);
    QV_LOG_TRACE("Preparing statement [%s]", sql.c_str());
    if (rc != SQLITE_OK) {
        QV_LOG_FAILED(rc, "Can't prepare statement [%s]", sql.c_str());
        return nullptr;
    }
    return std::unique_ptr<Statement>(new Statement(stmt, corrupt_handler));
}

std::shared_ptr<Statement> Sqlite::prepare_v2(const std::string& sql) {
    std::shared_ptr<Statement> statement = prepare(sql);
    if (!statement) throw SqliteError(GetLastErrorMsg());
    return statement;
}

std::string Sqlite::GetLastErrorMsg() const {
    const char* message = sqlite3_errmsg(db_);
    return message ? message : "";
}

long long Sqlite::LastInsertedRow() const {
    return sqlite3_last_insert_rowid(db_);
}

// ---- Statement ------------------------------------------------------------------------------

Statement::Statement(sqlite3_stmt* stmt, std::function<void()> corrupt_handler)
    : stmt_(stmt), corrupt_handler_(std::move(corrupt_handler)) {}

Statement::~Statement() {
    if (stmt_) finalize();
}

int Statement::bind(int index, long long value) {
    return sqlite3_bind_int64(stmt_, index, value);
}

int Statement::bind(int index, int value) {
    return sqlite3_bind_int(stmt_, index, value);
}

int Statement::bind(int index, double value) {
    return sqlite3_bind_double(stmt_, index, value);
}

int Statement::bind(int index, const std::string& value) {
    return sqlite3_bind_text(stmt_, index, value.c_str(), -1, SQLITE_TRANSIENT);
}

int Statement::bind(int index, const char* value) {
    return sqlite3_bind_text(stmt_, index, value, -1, SQLITE_TRANSIENT);
}

int Statement::bind(int index, const char* value, int length) {
    return sqlite3_bind_text(stmt_, index, value, length, SQLITE_TRANSIENT);
}

int Statement::bind_binary(int index, const char* data, int size) {
    return sqlite3_bind_blob(stmt_, index, data, size, SQLITE_TRANSIENT);
}

int Statement::bind(int index, const Binary& value) {
    const std::string& bytes = value.bytes();
    return sqlite3_bind_blob(stmt_, index, bytes.data(), static_cast<int>(bytes.size()),
                             SQLITE_TRANSIENT);
}

int Statement::bind_null(int index) {
    return sqlite3_bind_null(stmt_, index);
}

int Statement::step() {
    int rc;
    do {
        rc = sqlite3_step(stmt_);
    } while (rc == SQLITE_BUSY);
    SignalCorruption(rc, corrupt_handler_);
    return rc;
}

int Statement::run() {
    int rc;
    do {
        rc = sqlite3_step(stmt_);
    } while (rc == SQLITE_BUSY);
    if (rc == SQLITE_DONE) return rc;
    SignalCorruption(rc, corrupt_handler_);
    throw SqliteError("Failed to run statement");
}

int Statement::reset() {
    int rc;
    do {
        rc = sqlite3_reset(stmt_);
    } while (rc == SQLITE_BUSY);
    if (rc != SQLITE_OK) QV_LOG_FAILED(rc, "Can't reset statement");
    return rc;
}

int Statement::finalize() {
    // sqlite3_finalize frees the statement whatever it returns: a non-zero code only repeats the
    // error of the last step. Calling it again, to retry or from the destructor, would free the
    // statement twice, so the handle is dropped in every case.
    int rc = sqlite3_finalize(stmt_);
    stmt_ = nullptr;
    if (rc != SQLITE_OK) QV_LOG_FAILED(rc, "Can't finalize statement");
    return rc;
}

int Statement::clear_bindings() {
    return sqlite3_clear_bindings(stmt_);
}

int Statement::column_int(int column) const {
    return sqlite3_column_int(stmt_, column);
}

long long Statement::column_int64(int column) const {
    return sqlite3_column_int64(stmt_, column);
}

double Statement::column_double(int column) const {
    return sqlite3_column_double(stmt_, column);
}

const char* Statement::column_text(int column) const {
    return reinterpret_cast<const char*>(sqlite3_column_text(stmt_, column));
}

std::string Statement::column_binary(int column) const {
    // The pointer first: asking for the size first could convert the value behind its back.
    const void* data = sqlite3_column_blob(stmt_, column);
    int size = sqlite3_column_bytes(stmt_, column);
    if (!data || size < 1) return std::string();
    return std::string(static_cast<const char*>(data), static_cast<size_t>(size));
}

bool Statement::is_null_columnt(int column) const {
    return sqlite3_column_type(stmt_, column) == SQLITE_NULL;
}

int Statement::column_count() const {
    return sqlite3_column_count(stmt_);
}

const char* Statement::column_name(int column) const {
    return sqlite3_column_name(stmt_, column);
}

int Statement::column_type(int column) const {
    return sqlite3_column_type(stmt_, column);
}

// ---- KeptStatement ----------------------------------------------------------------------

KeptStatement::Use KeptStatement::use() {
    if (!statement_) {
        statement_ = db_.prepare(sql_);
        return Use(*this, false);
    }
    // The trace reads as it did when every use prepared its statement anew.
    QV_LOG_TRACE("Preparing statement [%s]", sql_.c_str());
    return Use(*this, true);
}

bool KeptStatement::Use::RemakeAfter(int rc) {
    // A statement that SQLite could not re-prepare for the new schema answers SQLITE_ERROR (or
    // SQLITE_SCHEMA); other failures, damage above all, are the file's and are not repeated.
    if (!kept_ || (rc != SQLITE_ERROR && rc != SQLITE_SCHEMA) || !get()) return false;
    // Reset first: a finalize after the failed step would repeat its code and log it.
    sqlite3_reset(get()->stmt_);
    owner_->release();
    kept_ = false;
    return true;
}

KeptStatement::Use::~Use() {
    Statement* statement = get();
    if (!statement) return;
    // sqlite3_reset repeats the code of a failed step, as sqlite3_finalize does; the line is the
    // one a statement made for this use would have left when it was finalized.
    int rc = sqlite3_reset(statement->stmt_);
    if (rc != SQLITE_OK) QV_LOG_FAILED(rc, "Can't finalize statement");
    sqlite3_clear_bindings(statement->stmt_);
}

// ---- Transaction ----------------------------------------------------------------------------

std::unique_ptr<Transaction> Transaction::acquire(Sqlite& db) {
    auto transaction = std::make_unique<Transaction>(db);
    if (transaction->init() != 0) return nullptr;
    return transaction;
}

Transaction::~Transaction() {
    if (state_ != kActive) return;
    // The owner's corruption handler runs inside exec; whatever it throws must not escape a
    // destructor that may itself be running because of an exception.
    try {
        rollback();
    } catch (...) {
    }
}

int Transaction::init() {
    int rc = db_.exec("BEGIN TRANSACTION");
    if (rc != SQLITE_DONE) {
        QV_LOG_ERR(rc);
        return rc;
    }
    state_ = kActive;
    return 0;
}

int Transaction::commit() {
    return Finish("END TRANSACTION");
}

int Transaction::rollback() {
    return Finish("ROLLBACK TRANSACTION");
}

int Transaction::Finish(const char* sql) {
    if (state_ != kActive) {
        state_ = kFinished;
        return QV_FAILED;
    }
    int rc = db_.exec(sql);
    if (rc != SQLITE_DONE) {
        // Still active: the destructor gets its chance to roll back.
        QV_LOG_ERR(rc);
        return rc;
    }
    state_ = kFinished;
    return 0;
}

}  // namespace utilities
}  // namespace quorvel
