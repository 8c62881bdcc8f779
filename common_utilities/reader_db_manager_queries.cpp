// The reading side of ReaderDbManager. Every operation prepares its statement anew, reads all
// rows, and on a failure logs and answers with what it has read so far.

#include <sqlite3.h>

#include "common_utilities/reader_db_manager.h"

namespace quorvel {
namespace utilities {
namespace {

std::string Text(const Statement& st, int column) {
    const char* text = st.column_text(column);
    return text ? text : "";
}

// Note values are stored in the styled JSON form, `"text" : "..."`: the pattern allows anything
// around the colon. The caller's text goes in as it stands, so its "%" and "_" are wildcards.
std::string TextPattern(const std::string& text) {
    return "%\"text\"%:%\"%" + text + "%";
}

Book ReadBook(const Statement& st) {
    Book book;
    book.id = st.column_int64(0);
    book.title = Text(st, 1);
    book.authors = Text(st, 2);
    book.hash = Text(st, 3);
    return book;
}

void ReadNoteTimes(Statement& st, ReaderDbManager::NoteTimes& notes) {
    while (st.step() == SQLITE_ROW)
        notes.emplace_back(Text(st, 0), static_cast<uint64_t>(st.column_int64(1)));
}

void ReadBookCounts(Statement& st, ReaderDbManager::BookCounts& books) {
    while (st.step() == SQLITE_ROW)
        books.emplace_back(ReadBook(st), st.column_int64(4));
}

const char* const kBooksWithNotesCount =
    "SELECT book.OID, book.Title, book.Authors, items.HashUUID, COUNT(items2.HashUUID) FROM Books "
    "book INNER JOIN Items items ON book.OID=items.OID  INNER JOIN Items items2 ON book.OID = "
    "items2.ParentID  INNER JOIN Tags tags ON items2.OID = tags.ItemID  WHERE items.TypeID=0 AND "
    "items2.TypeID=4 AND items.State != 2 AND items2.State != 2  AND tags.TagID = 102 AND "
    "tags.Val != 'bookmark'  GROUP BY book.OID ORDER BY items.TimeAlt DESC, book.OID ";

const char* const kBooksWithNotesCountFilteredByText =
    "SELECT book.OID, book.Title, book.Authors, items.HashUUID, COUNT(DISTINCT items2.HashUUID) "
    "FROM Books book INNER JOIN Items items ON book.OID=items.OID  INNER JOIN Items items2 ON "
    "book.OID = items2.ParentID  INNER JOIN Tags tags ON items2.OID = tags.ItemID  INNER JOIN "
    "Tags tags2 ON tags.ItemID = tags2.ItemID  WHERE items.TypeID=0 AND items2.TypeID=4 AND "
    "items.State != 2 AND items2.State != 2  AND (tags.TagID = 105 OR tags.TagID = 104) AND "
    "tags2.TagID = 102 AND tags2.Val != 'bookmark' AND tags.Val LIKE ?  GROUP BY book.OID ORDER "
    "BY items.TimeAlt DESC, book.OID ";

}  // namespace

Note ReaderDbManager::getNote(const std::string& hash) {
    Note note;
    try {
        auto st = db_.prepare_v2(
            "SELECT t.ItemID, t.TagID, t.Val, t.TimeEdt, i.TimeAlt, i.ParentID, i.State  FROM "
            "Tags t INNER JOIN Items i ON t.ItemID = i.OID  WHERE i.HashUUID = ?");
        st->bind_all(hash);
        bool first = true;
        while (st->step() == SQLITE_ROW) {
            if (first) {
                first = false;
                note.time = static_cast<time_t>(st->column_int64(4));
                note.setTag(Note::NoteHash, hash, note.time);
                note.setTag(Note::BookHash, getBookFastHashById(st->column_int64(5)), note.time);
                note.removed = st->column_int(6) == 2;
                note.id = st->column_int64(0);
            }
            const auto tag = static_cast<Note::Tags>(st->column_int(1));
            const std::string value =
                Note::getTagType(tag) == Note::BinaryData ? st->column_binary(2) : Text(*st, 2);
            note.setTag(tag, value, static_cast<time_t>(st->column_int64(3)));
        }
    } catch (const SqliteError& e) {
        QV_LOG_ERROR("Failed to getNote with %s", e.message().c_str());
    }
    return note;
}

ReaderDbManager::NoteTimes ReaderDbManager::getBookNotes(const std::string& book_hash) {
    NoteTimes notes;
    try {
        const long long book_id = getItemId(book_hash);
        if (book_id == -1) return notes;
        auto st =
            db_.prepare_v2("SELECT HashUUID, TimeAlt From Items WHERE ParentID = ? AND State != 2");
        ReadNoteTimes(st->bind_all(book_id), notes);
    } catch (const SqliteError& e) {
        QV_LOG_ERROR("Failed to getChangedNotes with %s", e.message().c_str());
    }
    return notes;
}

ReaderDbManager::NoteTimes ReaderDbManager::getBookNotesFilteredByText(const std::string& book_hash,
                                                                       const std::string& text) {
    NoteTimes notes;
    try {
        const long long book_id = getItemId(book_hash);
        if (book_id == -1) return notes;
        auto st = db_.prepare_v2(
            "SELECT items.HashUUID, items.TimeAlt  FROM Items items  INNER JOIN Tags tags ON "
            "items.OID = tags.ItemID  WHERE items.ParentID = ? AND items.State != 2 AND "
            "(tags.TagID = 105 OR tags.TagID = 104)  AND tags.Val LIKE ?  GROUP BY "
            "items.HashUUID");
        ReadNoteTimes(st->bind_all(book_id, TextPattern(text)), notes);
    } catch (const SqliteError& e) {
        QV_LOG_ERROR("Failed to getBookNotesFilteredByText with %s", e.message().c_str());
    }
    return notes;
}

std::vector<std::string> ReaderDbManager::getChangedNotes(time_t since) {
    std::vector<std::string> hashes;
    try {
        auto st = db_.prepare_v2("SELECT HashUUID From Items WHERE TimeAlt > ? AND TypeID = 4");
        st->bind_all(static_cast<long long>(since));
        while (st->step() == SQLITE_ROW)
            hashes.push_back(Text(*st, 0));
    } catch (const SqliteError& e) {
        QV_LOG_ERROR("Failed to getChangedNotes with %s", e.message().c_str());
    }
    return hashes;
}

std::string ReaderDbManager::getBookFastHashById(long long id) {
    try {
        auto st = db_.prepare_v2("SELECT HashUUID FROM Items WHERE OID = ? ");
        if (st->bind_all(id).step() == SQLITE_ROW) return Text(*st, 0);
    } catch (const SqliteError& e) {
        QV_LOG_ERROR("Failed to getNote with %s", e.message().c_str());
    }
    return "";
}

std::vector<Book> ReaderDbManager::getBookByFastHash(const std::string& hash) {
    std::vector<Book> books;
    try {
        auto st = db_.prepare_v2(
            "SELECT book.OID, book.Title, book.Authors, items.HashUUID FROM  Books book INNER JOIN "
            "Items items ON book.OID=items.OID  WHERE items.HashUUID=? ");
        st->bind_all(hash);
        while (st->step() == SQLITE_ROW)
            books.push_back(ReadBook(*st));
    } catch (const SqliteError& e) {
        QV_LOG_ERROR("Failed to getBooksWhichHaveNotes with %s", e.message().c_str());
    }
    return books;
}

std::vector<Book> ReaderDbManager::getBooksWhichHaveNotes() {
    std::vector<Book> books;
    try {
        // AND binds before OR: every book row whose own parent is a book matches too, whatever
        // its state. Applications rely on the rows as they come.
        auto st = db_.prepare_v2(
            "SELECT book.OID, book.Title, book.Authors, items.HashUUID FROM  Books book INNER JOIN "
            "Items items ON book.OID=items.ParentID  WHERE items.TypeID=0 OR items.TypeID=4 AND "
            "items.State != 2");
        while (st->step() == SQLITE_ROW)
            books.push_back(ReadBook(*st));
    } catch (const SqliteError& e) {
        QV_LOG_ERROR("Failed to getBooksWhichHaveNotes with %s", e.message().c_str());
    }
    return books;
}

ReaderDbManager::BookCounts ReaderDbManager::getBooksWithNotesCount() {
    BookCounts books;
    try {
        ReadBookCounts(*db_.prepare_v2(kBooksWithNotesCount), books);
    } catch (const SqliteError& e) {
        QV_LOG_ERROR("Failed to getBooksWithNotesCount with %s", e.message().c_str());
    }
    return books;
}

ReaderDbManager::BookCounts ReaderDbManager::getBooksWithNotesCountFilteredByText(
    const std::string& text) {
    BookCounts books;
    try {
        auto st = db_.prepare_v2(kBooksWithNotesCountFilteredByText);
        ReadBookCounts(st->bind_all(TextPattern(text)), books);
    } catch (const SqliteError& e) {
        QV_LOG_ERROR("Failed to getBooksWithNotesCountFilteredByText with %s", e.message().c_str());
    }
    return books;
}

std::set<std::string> ReaderDbManager::findNotesByText(const std::string&) {
    std::set<std::string> values;
    try {
        // The "?" stands inside the string literal: it is a character to match, not a parameter.
        auto st = db_.prepare_v2(
            "SELECT items.HashUUID, tags.Val FROM  Items items INNER JOIN Tags tags ON items.OID = "
            "tags.ItemID  WHERE items.TypeID=4 AND items.State != 2 AND (tags.TagID = 105 OR "
            "tags.TagID = 104) AND tags.Val LIKE '%\"text\":\"%?%' ");
        while (st->step() == SQLITE_ROW)
            values.insert(Text(*st, 1));
    } catch (const SqliteError& e) {
        QV_LOG_ERROR("Failed to findNotesByText with %s", e.message().c_str());
    }
    return values;
}

}  // namespace utilities
}  // namespace quorvel
