// The notes and bookmarks of the reading application, for the other programs of the device.
//
// The reading application owns "/mnt/ext1/system/config/books.db": it creates the file and its
// schema, and has it open while this manager works on it. The manager never creates the file:
// without it every operation fails (see each one for how) and nothing appears on disk. A file
// that appears after the manager was made is not seen by that manager.
//
// Notes are addressed by their hash, books by their fast hash (both the `HashUUID` of their row
// in `Items`), never by row number. Nothing is deleted here: a removed note is marked, its row
// and its values stay, and the values of a note are only ever added or replaced.
//
// A manager holds no lock; use it from one thread at a time. The reading application's process
// is kept apart by SQLite's locks and the busy rule of the SQLite layer: a file held by it makes
// the calls wait, never fail.
#pragma once

#include <ctime>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "common_utilities/common_utilities.h"
#include "common_utilities/qv_sqlite.h"

namespace quorvel {
namespace utilities {

// One note (highlight, comment, bookmark or drawing) as it goes in and out of the database.
class QV_EXPORT Note {
public:
    // The tag numbers of the database, and two of this record's own (BookHash, NoteHash), which
    // carry the identities and never reach the table of values. Any other number is accepted
    // too: a value of a kind this library doesn't know survives a read.
    enum Tags : int {
        BookHash = 0,
        NoteHash = 1,
        Anchor = 101,     // JSON {"anchor": ...}
        Type = 102,       // the kind of note; "bookmark" marks a bookmark
        Tag103 = 103,     // text
        Quotation = 104,  // JSON {"text": ..., "begin": ..., "end": ...}
        Comment = 105,    // JSON {"text": ...}
        Color = 106,
        Icon = 107,
        Tag108 = 108,  // binary
        Image = 109,   // binary
        Draws = 110,
    };
    enum TagsTypes : int {
        PlainText = 0,
        JsonText = 1,
        BinaryData = 2,
    };

    // PlainText for every number outside the list above.
    static TagsTypes getTagType(Tags tag);

    // Sets or replaces the value and its time of change.
    void setTag(Tags tag, const std::string& value, time_t time);
    // Empty, and 0, when the note has no such tag.
    std::string getTag(Tags tag) const;
    time_t getTagTimeStamp(Tags tag) const;

    void setId(long long value) { id = value; }
    long long getId() const { return id; }
    time_t getTime() const { return time; }

    // The quotation and the comment as the reading application stores them: a JSON object with
    // the one member "text", in the multi-line styled form that ends in a line break. The text
    // searches rely on that form.
    void setText(const std::string& text, long long time);
    void setNote(const std::string& text, long long time);

    // Members of the JSON tags; empty when the tag, or the member, is absent, or the value is
    // not a JSON object.
    std::string getText() const;
    std::string getNote() const;
    std::string getStartUri() const;
    std::string getEndUri() const;
    std::string getAnchorUri() const;

    // Plain tags, as stored (the image's bytes as they are).
    std::string getType() const;
    std::string getPrimaryType() const;
    std::string getColor() const;
    std::string getIcon() const;
    std::string getImage() const;
    std::string getDraws() const;

    // The member `key` of the JSON tag `tag` as text: a string as it is, a boolean as "true" or
    // "false", numbers in C's "%ld", "%lu" or "%lg" form; empty for null, arrays and objects.
    // The stored value is read without its last character, the line break of the styled form,
    // whatever that character is; a value that does not parse gives what the parser got of it.
    std::string getJsonTagElement(Tags tag, const std::string& key) const;

    time_t time = 0;       // the item's last change (TimeAlt), seconds since the epoch
    bool removed = false;  // the item is marked deleted
    std::map<Tags, std::pair<std::string, time_t>> tags;  // value and time of change, by tag
    long long id = 0;                                     // the row id, 0 until read
};

struct QV_EXPORT Book {
    long long id = 0;  // the row id
    std::string title;
    std::string authors;
    std::string extra;  // left empty by this library
    // The book's fast hash, except in getBooksWhichHaveNotes (see there).
    std::string hash;
};

class QV_EXPORT ReaderDbManager {
public:
    using NoteTimes = std::vector<std::pair<std::string, uint64_t>>;  // hash, TimeAlt
    using BookCounts = std::vector<std::pair<Book, long long>>;       // book, notes

    // Opens the reading application's file if it exists; never creates it.
    ReaderDbManager();
    ~ReaderDbManager();
    ReaderDbManager(const ReaderDbManager&) = delete;
    ReaderDbManager& operator=(const ReaderDbManager&) = delete;

    // ---- Writing ------------------------------------------------------------------------------
    // 0 or -1; a failure is logged. No transaction: a failure part way leaves the steps before.

    // Adds the note or, when its hash is known, changes its time and adds or replaces the values
    // it carries. A new note needs a hash of its own and the hash of a book that is there. A
    // deleted note stays deleted. A value that can't be written is logged and skipped without
    // failing the note.
    int setNote(const Note& note);
    // Marks the note deleted; an unknown hash is no failure.
    int removeNote(const std::string& hash);
    // -1 (logged at level 4) when an item with this hash exists.
    int addBook(const std::string& hash, const std::string& title, const std::string& authors,
                time_t time);
    // These two let SqliteError through to the caller (a missing file, for one).
    void setTimeAlt(const std::string& hash, time_t time);
    // The row id of the book or note with this hash, deleted or not; -1 when there is none.
    long long getItemId(const std::string& hash);

    // The bytes of `text` as upper-case hexadecimal, two digits each.
    static std::string toUpperHex(const std::string& text);

    // ---- Reading ------------------------------------------------------------------------------
    // Each statement is prepared anew and read whole. A failure is logged and what was read
    // before it is returned.
    //
    // Text searches look for `text` in the quotation and the comment of a note, in the styled
    // JSON form: ASCII letters match either case, other letters only as written, and "%" and "_"
    // in `text` are wildcards.

    // The whole note, deleted or not; an empty Note (id 0) for an unknown hash or a note without
    // values.
    Note getNote(const std::string& hash);
    // Hash and time of each live note of the book; empty for an unknown book.
    NoteTimes getBookNotes(const std::string& book_hash);
    NoteTimes getBookNotesFilteredByText(const std::string& book_hash, const std::string& text);
    // Notes changed after `since`, deletions included.
    std::vector<std::string> getChangedNotes(time_t since);
    // The hash of any item by its row id; empty when there is none.
    std::string getBookFastHashById(long long id);
    // None or one book.
    std::vector<Book> getBookByFastHash(const std::string& hash);
    // One Book per live note, whose `hash` is the note's hash, not the book's.
    std::vector<Book> getBooksWhichHaveNotes();
    // Books with their number of live notes other than bookmarks, most recently changed book
    // first; books with none are left out.
    BookCounts getBooksWithNotesCount();
    // The same, counting only the notes that contain `text`.
    BookCounts getBooksWithNotesCountFilteredByText(const std::string& text);
    // The stored values of live notes whose compact JSON form ("text":" with no blanks) holds a
    // question mark in or after the text. `text` is not used: the set is the same for any.
    std::set<std::string> findNotesByText(const std::string& text);

private:
    Sqlite db_;
};

}  // namespace utilities
}  // namespace quorvel
