// qvtool sql DB "SQL...": statements run through the library's SQLite wrapper, rows as a table.

#include <sqlite3.h>
#include <unistd.h>

#include <cctype>
#include <iostream>
#include <string>
#include <vector>

#include "cli.h"
#include "common_utilities/qv_sqlite.h"
#include "common_utilities/serialization_utils.h"
#include "table.h"

namespace qvtool {
namespace {

using quorvel::utilities::SerializationUtils;
using quorvel::utilities::Sqlite;
using quorvel::utilities::SqliteError;
using quorvel::utilities::Statement;

// True when the text holds nothing but blanks, semicolons and comments.
bool IsBlank(const std::string& sql) {
    for (size_t i = 0; i < sql.size(); ++i) {
        char c = sql[i];
        if (std::isspace(static_cast<unsigned char>(c)) || c == ';') continue;
        if (sql.compare(i, 2, "--") == 0) {
            i = sql.find('\n', i);
            if (i == std::string::npos) return true;
        } else if (sql.compare(i, 2, "/*") == 0) {
            i = sql.find("*/", i + 2);
            if (i == std::string::npos) return true;
            ++i;
        } else {
            return false;
        }
    }
    return true;
}

// Splits at the semicolons that end a statement (not those inside strings, comments or
// triggers), as SQLite itself judges completeness.
std::vector<std::string> SplitStatements(const std::string& sql) {
    std::vector<std::string> statements;
    size_t start = 0;
    for (size_t i = sql.find(';'); i != std::string::npos; i = sql.find(';', i + 1)) {
        std::string candidate = sql.substr(start, i + 1 - start);
        if (!sqlite3_complete(candidate.c_str())) continue;
        if (!IsBlank(candidate)) statements.push_back(candidate);
        start = i + 1;
    }
    std::string rest = sql.substr(start);
    if (!IsBlank(rest)) statements.push_back(rest);
    return statements;
}

std::string Cell(const Statement& st, int column) {
    switch (st.column_type(column)) {
        case SQLITE_NULL:
            return "NULL";
        case SQLITE_BLOB:
            return "x'" + SerializationUtils::ToHex(st.column_binary(column)) + "'";
        default: {
            const char* text = st.column_text(column);
            return text ? text : "";
        }
    }
}

void PrintRows(Statement& st, Sqlite& db) {
    std::vector<std::string> headers;
    for (int c = 0; c < st.column_count(); ++c)
        headers.push_back(st.column_name(c));
    Table table(headers);
    int rc;
    while ((rc = st.step()) == SQLITE_ROW) {
        std::vector<std::string> row;
        for (int c = 0; c < st.column_count(); ++c)
            row.push_back(Cell(st, c));
        table.AddRow(std::move(row));
    }
    if (rc != SQLITE_DONE) throw Failure(kFailed, db.GetLastErrorMsg());
    table.Print(std::cout);
    std::cout << "(" << table.rows() << (table.rows() == 1 ? " row)\n" : " rows)\n");
}

void RunStatement(Sqlite& db, const std::string& sql) {
    std::unique_ptr<Statement> st = db.prepare(sql);
    if (!st) throw Failure(kFailed, db.GetLastErrorMsg());
    if (st->column_count() > 0) {
        PrintRows(*st, db);
        return;
    }
    int rc = st->step();
    if (rc != SQLITE_DONE && rc != SQLITE_ROW) throw Failure(kFailed, db.GetLastErrorMsg());
}

// Closes the connection however the command ends: the wrapper leaves that to its owner.
struct Connection {
    Sqlite db;
    ~Connection() { db.close(); }
};

int RunSql(Args& args) {
    bool create = args.Flag("--create");
    std::string path = args.Next("DB");
    std::string sql = args.Next("SQL");
    args.Done();
    if (sql == "-") sql = ReadAllInput();

    if (!create && ::access(path.c_str(), F_OK) != 0) {
        throw Failure(kNotFound, "no database at " + path + " (--create makes one)");
    }
    Connection connection;
    Sqlite& db = connection.db;
    int rc = create ? db.open(path) : db.open_no_create(path);
    if (rc != 0) throw Failure(kFailed, "can't open " + path + ": " + sqlite3_errstr(rc));
    for (const auto& statement : SplitStatements(sql))
        RunStatement(db, statement);
    return kOk;
}

const bool registered = Register(
    {"sql", "run SQL on a database file, rows as a table",
     "usage: qvtool sql [--create] DB SQL\n"
     "Runs the statements of SQL (\"-\" reads them from standard input) on the database DB\n"
     "through the library's SQLite wrapper, one after the other, and prints the rows of each\n"
     "query as a table. A database that is busy in another process is waited for.\n"
     "  --create   make DB when it does not exist (otherwise that is an error, exit code 3)\n",
     RunSql});

}  // namespace
}  // namespace qvtool
