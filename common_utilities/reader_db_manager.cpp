// ReaderDbManager: the connection to the reading application's file and the writing side.

#include "common_utilities/reader_db_manager.h"

#include <sqlite3.h>

#include <cctype>

#include "common_utilities/serialization_utils.h"

namespace quorvel {
namespace utilities {
namespace {

constexpr const char* kDatabasePath = "/mnt/ext1/system/config/books.db";

// Every write is checked: a failed INSERT would leave LastInsertedRow at an earlier row, and the
// values meant for the new item would be written to another one. A write that did not happen is
// reported as the operation's failure, never as its success.
void StepOrThrow(Statement& st, const Sqlite& db) {
    if (st.step() != SQLITE_DONE) throw SqliteError(db.GetLastErrorMsg());
}

}  // namespace

// A missing file leaves the connection closed; every statement then fails to prepare, which each
// operation turns into its failure result. The file is the reading application's, so neither
// PRAGMAs nor a damage handler of ours are put on it.
ReaderDbManager::ReaderDbManager() {
    db_.open_no_create(kDatabasePath);
}

// The connection is this object's alone; left open it would hold the file's descriptors and
// locks for the rest of the process.
ReaderDbManager::~ReaderDbManager() {
    db_.close();
}

long long ReaderDbManager::getItemId(const std::string& hash) {
    auto st = db_.prepare_v2("SELECT OID from Items WHERE HashUUID = ?");
    st->bind_all(hash);
    if (st->step() != SQLITE_ROW) return -1;
    return st->column_int64(0);
}

int ReaderDbManager::setNote(const Note& note) {
    const std::string note_hash = note.getTag(Note::NoteHash);
    long long id = -1;
    try {
        id = getItemId(note_hash);
        if (id == -1) {
            const std::string book_hash = note.getTag(Note::BookHash);
            // A note without a hash of its own could never be told from the next one without:
            // they would all land on one row, each overwriting the last one's values.
            if (book_hash.empty() || note_hash.empty()) return -1;
            const long long book_id = getItemId(book_hash);
            QV_RETURN_IF(-1 == book_id, -1, "No book to add note to");
            auto st = db_.prepare_v2(
                "INSERT INTO Items (ParentID, TypeID, State, TimeAlt, HashUUID) VALUES ( ?, 4, 0, "
                "?, ?)");
            StepOrThrow(st->bind_all(book_id, static_cast<long long>(note.time), note_hash), db_);
            id = db_.LastInsertedRow();
        } else {
            try {
                auto st = db_.prepare_v2("UPDATE Items SET TimeAlt = ? WHERE  OID = ?");
                StepOrThrow(st->bind_all(static_cast<long long>(note.time), id), db_);
            } catch (const SqliteError& e) {
                QV_LOG_ERROR("Failed to update note item with %s", e.message().c_str());
                return -1;
            }
        }
    } catch (const SqliteError& e) {
        QV_LOG_ERROR("Failed to insert note item with %s", e.message().c_str());
        return -1;
    }

    // The identities (BookHash, NoteHash) live in Items, not among the values.
    for (auto it = note.tags.upper_bound(static_cast<Note::Tags>(99)); it != note.tags.end();
         ++it) {
        try {
            auto st = db_.prepare_v2(
                "INSERT OR REPLACE INTO Tags (ItemID, TagID, Val, TimeEdt) VALUES ( ?, ?, ?, ?) ");
            const long long time = static_cast<long long>(it->second.second);
            if (Note::getTagType(it->first) == Note::BinaryData)
                st->bind_all(id, it->first, Statement::Binary(it->second.first), time);
            else
                st->bind_all(id, it->first, it->second.first, time);
            StepOrThrow(*st, db_);
        } catch (const SqliteError& e) {
            QV_LOG_ERROR("Failed to insert tag for note with %s", e.message().c_str());
        }
    }
    return 0;
}

int ReaderDbManager::removeNote(const std::string& hash) {
    try {
        auto st = db_.prepare_v2("UPDATE OR IGNORE Items SET State = 2 WHERE HashUUID = ?");
        StepOrThrow(st->bind_all(hash), db_);
    } catch (const SqliteError& e) {
        QV_LOG_ERROR("Failed to removeNote with %s", e.message().c_str());
        return -1;
    }
    return 0;
}

int ReaderDbManager::addBook(const std::string& hash, const std::string& title,
                             const std::string& authors, time_t time) {
    const long long when = static_cast<long long>(time);
    long long oid = -1;
    try {
        if (getItemId(hash) != -1) {
            QV_LOG_INFO("Book with hash %s is already present", hash.c_str());
            return -1;
        }
        auto st = db_.prepare_v2(
            "INSERT INTO Items (TypeID, State, TimeAlt, HashUUID) VALUES ( 0, 0, ?, ?)");
        StepOrThrow(st->bind_all(when, hash), db_);
        oid = db_.LastInsertedRow();
    } catch (const SqliteError& e) {
        QV_LOG_ERROR("Failed to insert book item with %s", e.message().c_str());
        return -1;
    }
    try {
        auto st =
            db_.prepare_v2("INSERT INTO Books (OID, Title, Authors, TimeAdd) VALUES ( ?, ?, ?, ?)");
        StepOrThrow(st->bind_all(oid, title, authors, when), db_);
    } catch (const SqliteError& e) {
        QV_LOG_ERROR("Failed to insert book with %s", e.message().c_str());
        return -1;
    }
    return 0;
}

void ReaderDbManager::setTimeAlt(const std::string& hash, time_t time) {
    auto st = db_.prepare_v2("UPDATE Items SET TimeAlt = ? WHERE HashUUID = ?");
    StepOrThrow(st->bind_all(static_cast<long long>(time), hash), db_);
}

std::string ReaderDbManager::toUpperHex(const std::string& text) {
    std::string hex = SerializationUtils::ToHex(text);
    for (char& c : hex)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return hex;
}

}  // namespace utilities
}  // namespace quorvel
