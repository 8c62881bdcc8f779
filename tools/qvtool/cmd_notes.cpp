// qvtool notes ...: the reading application's notes and bookmarks, through ReaderDbManager, as
// other applications of the device see them. The file belongs to the reading application; the
// tool never creates it (qvtool host reader-db makes a sample one).

#include <unistd.h>

#include <cctype>
#include <ctime>
#include <iostream>
#include <string>
#include <vector>

#include "cli.h"
#include "common_utilities/reader_db_manager.h"
#include "common_utilities/user_agent_config.h"
#include "reader_books_db.h"
#include "table.h"

namespace qvtool {
namespace {

using quorvel::utilities::Book;
using quorvel::utilities::Note;
using quorvel::utilities::ReaderDbManager;
using quorvel::utilities::SqliteError;

constexpr size_t kTextColumns = 48;

// The manager opens the file whatever happens; the tool tells a missing file apart first, so
// that the user hears why rather than an empty list.
ReaderDbManager& Notes() {
    if (::access(readerapp::kBooksDbPath, F_OK) != 0) {
        throw Failure(kNotFound, std::string("no notes database at ") + readerapp::kBooksDbPath +
                                     " (the reading application makes it; qvtool host reader-db "
                                     "makes a sample)");
    }
    static ReaderDbManager notes;
    return notes;
}

// ---- Times ----------------------------------------------------------------------------------

// Seconds since the epoch, or a UTC date "YYYY-MM-DD" with an optional time "HH:MM[:SS]" after a
// blank or a "T".
time_t ParseTime(const std::string& text, const std::string& what) {
    if (!text.empty() && text.find_first_not_of("0123456789") == std::string::npos)
        return static_cast<time_t>(ParseInteger(text, what));
    std::tm tm{};
    int consumed = 0;
    const int fields =
        std::sscanf(text.c_str(), "%4d-%2d-%2d%n", &tm.tm_year, &tm.tm_mon, &tm.tm_mday, &consumed);
    if (fields != 3) throw Failure(kUsage, "bad " + what + ": " + text);
    std::string rest = text.substr(static_cast<size_t>(consumed));
    if (!rest.empty()) {
        int used = 0;
        if ((rest[0] != ' ' && rest[0] != 'T') ||
            std::sscanf(rest.c_str() + 1, "%2d:%2d%n:%2d%n", &tm.tm_hour, &tm.tm_min, &used,
                        &tm.tm_sec, &used) < 2 ||
            static_cast<size_t>(used) + 1 != rest.size())
            throw Failure(kUsage, "bad " + what + ": " + text);
    }
    tm.tm_year -= 1900;
    tm.tm_mon -= 1;
    if (tm.tm_mon < 0 || tm.tm_mon > 11 || tm.tm_mday < 1 || tm.tm_mday > 31 || tm.tm_hour > 23 ||
        tm.tm_min > 59 || tm.tm_sec > 60)
        throw Failure(kUsage, "bad " + what + ": " + text);
    return ::timegm(&tm);
}

std::string FormatTime(time_t time) {
    std::tm tm{};
    ::gmtime_r(&time, &tm);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &tm);
    return text;
}

// ---- Output ---------------------------------------------------------------------------------

// At most `columns` characters (not bytes), with "..." when cut; line breaks become blanks.
std::string Shorten(std::string text, size_t columns = kTextColumns) {
    for (char& c : text)
        if (c == '\n' || c == '\t') c = ' ';
    size_t count = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        if ((static_cast<unsigned char>(text[i]) & 0xC0) == 0x80) continue;
        if (++count > columns) return text.substr(0, i) + "...";
    }
    return text;
}

// What a note says, from its JSON bodies: the quotation, else the comment, else where it is.
std::string NoteText(const Note& note) {
    std::string text = note.getText();
    if (text.empty()) text = note.getNote();
    if (text.empty()) text = note.getAnchorUri();
    return Shorten(text);
}

void PrintCount(size_t count, const char* one, const char* many) {
    std::cout << "(" << count << " " << (count == 1 ? one : many) << ")\n";
}

void PrintBookCounts(const ReaderDbManager::BookCounts& books) {
    Table table({"BOOK", "TITLE", "AUTHORS", "NOTES"});
    for (const auto& [book, count] : books)
        table.AddRow({book.hash, book.title, book.authors, std::to_string(count)});
    table.Print(std::cout);
    PrintCount(books.size(), "book", "books");
}

// One row per note hash, read whole for its kind and texts.
void PrintNotes(const std::vector<std::string>& hashes, bool with_book = false) {
    std::vector<std::string> headers = {"NOTE", "TYPE", "STATE", "CHANGED", "TEXT", "COMMENT"};
    if (with_book) headers.insert(headers.begin(), "BOOK");
    Table table(headers);
    for (const std::string& hash : hashes) {
        const Note note = Notes().getNote(hash);
        std::vector<std::string> row = {hash,
                                        note.getType(),
                                        note.removed ? "deleted" : "live",
                                        FormatTime(note.getTime()),
                                        NoteText(note),
                                        Shorten(note.getNote(), 32)};
        if (with_book) row.insert(row.begin(), note.getTag(Note::BookHash));
        table.AddRow(std::move(row));
    }
    table.Print(std::cout);
    PrintCount(hashes.size(), "note", "notes");
}

std::vector<std::string> HashesOf(const ReaderDbManager::NoteTimes& notes) {
    std::vector<std::string> hashes;
    for (const auto& entry : notes)
        hashes.push_back(entry.first);
    return hashes;
}

Book BookOrFail(const std::string& hash) {
    std::vector<Book> books = Notes().getBookByFastHash(hash);
    if (books.empty()) throw Failure(kNotFound, "no book with the fast hash " + hash);
    return books.front();
}

long long ItemIdOrFail(const std::string& hash) {
    try {
        return Notes().getItemId(hash);
    } catch (const SqliteError& e) {
        throw Failure(kFailed, e.message());
    }
}

// ---- Commands -------------------------------------------------------------------------------

int RunBooks(Args& args) {
    std::optional<std::string> text = args.Option("--text");
    args.Done();
    PrintBookCounts(text ? Notes().getBooksWithNotesCountFilteredByText(*text)
                         : Notes().getBooksWithNotesCount());
    return kOk;
}

int RunList(Args& args) {
    std::optional<std::string> text = args.Option("--text");
    const std::string hash = args.Next("BOOK-HASH");
    args.Done();
    const Book book = BookOrFail(hash);
    std::cout << book.title << (book.authors.empty() ? "" : " - " + book.authors) << '\n';
    PrintNotes(HashesOf(text ? Notes().getBookNotesFilteredByText(hash, *text)
                             : Notes().getBookNotes(hash)));
    return kOk;
}

int RunShow(Args& args) {
    const std::string hash = args.Next("NOTE-HASH");
    args.Done();
    const Note note = Notes().getNote(hash);
    if (note.getId() == 0) throw Failure(kNotFound, "no note with the hash " + hash);
    std::cout << "note " << hash << " (id " << note.getId() << ", "
              << (note.removed ? "deleted" : "live") << ", changed " << FormatTime(note.getTime())
              << ")\n";
    Table table({"TAG", "KIND", "CHANGED", "VALUE"});
    for (const auto& [tag, value] : note.tags) {
        const Note::TagsTypes type = Note::getTagType(tag);
        const std::string shown = type == Note::BinaryData
                                      ? std::to_string(value.first.size()) + " bytes"
                                      : Shorten(value.first, 72);
        const char* kind = type == Note::JsonText     ? "json"
                           : type == Note::BinaryData ? "binary"
                                                      : "text";
        table.AddRow(
            {std::to_string(static_cast<int>(tag)), kind, FormatTime(value.second), shown});
    }
    table.Print(std::cout);
    return kOk;
}

int RunSearch(Args& args) {
    const std::string text = args.Next("TEXT");
    args.Done();
    std::vector<std::string> hashes;
    for (const auto& entry : Notes().getBooksWithNotesCountFilteredByText(text)) {
        for (const std::string& hash :
             HashesOf(Notes().getBookNotesFilteredByText(entry.first.hash, text)))
            hashes.push_back(hash);
    }
    PrintNotes(hashes, true);
    return kOk;
}

int RunSince(Args& args) {
    const time_t since = ParseTime(args.Next("TIME"), "TIME");
    args.Done();
    PrintNotes(Notes().getChangedNotes(since), true);
    return kOk;
}

int RunQuestions(Args& args) {
    args.Done();
    Table table({"VALUE"});
    const auto values = Notes().findNotesByText("");
    for (const std::string& value : values)
        table.AddRow({Shorten(value, 72)});
    table.Print(std::cout);
    PrintCount(values.size(), "value", "values");
    return kOk;
}

int RunAdd(Args& args) {
    Note note;
    const time_t now = std::time(nullptr);
    std::optional<std::string> time = args.Option("--time");
    note.time = time ? ParseTime(*time, "--time") : now;
    std::string hash = args.Option("--hash").value_or("");
    const std::string type = args.Option("--type").value_or("");
    std::optional<std::string> text = args.Option("--text");
    std::optional<std::string> comment = args.Option("--comment");
    std::optional<std::string> color = args.Option("--color");
    std::optional<std::string> anchor = args.Option("--anchor");
    const std::string book = args.Next("BOOK-HASH");
    args.Done();
    if (!text && !comment && !anchor && !color && type.empty())
        throw Failure(kUsage,
                      "nothing to store: give --text, --comment, --anchor, --color or --type");
    BookOrFail(book);
    const bool known = !hash.empty() && ItemIdOrFail(hash) != -1;
    if (hash.empty()) {
        hash = quorvel::utilities::GenerateUUID();
        for (char& c : hash)
            c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    note.setTag(Note::BookHash, book, note.time);
    note.setTag(Note::NoteHash, hash, note.time);
    // The reading application always says what a new note is; counts leave out notes that
    // don't. A change keeps the kind unless told otherwise.
    if (!type.empty() || !known)
        note.setTag(Note::Type,
                    !type.empty() ? type
                    : comment     ? "note"
                    : text        ? "highlight"
                                  : "bookmark",
                    note.time);
    if (text) note.setText(*text, note.time);
    if (comment) note.setNote(*comment, note.time);
    if (color) note.setTag(Note::Color, *color, note.time);
    if (anchor) note.setTag(Note::Anchor, readerapp::StyledJson("anchor", *anchor), note.time);
    if (Notes().setNote(note) != 0) throw Failure(kFailed, "could not store the note (see -v)");
    std::cout << (known ? "changed note " : "added note ") << hash << '\n';
    return kOk;
}

int RunRemove(Args& args) {
    const std::string hash = args.Next("NOTE-HASH");
    args.Done();
    if (ItemIdOrFail(hash) == -1) throw Failure(kNotFound, "no note with the hash " + hash);
    if (Notes().removeNote(hash) != 0) throw Failure(kFailed, "could not delete (see -v)");
    std::cout << "deleted note " << hash << '\n';
    return kOk;
}

int RunAddBook(Args& args) {
    const std::string authors = args.Option("--authors").value_or("");
    std::optional<std::string> time = args.Option("--time");
    const std::string hash = args.Next("FAST-HASH");
    const std::string title = args.Next("TITLE");
    args.Done();
    if (ItemIdOrFail(hash) != -1)
        throw Failure(kFailed, "an item with the hash " + hash + " exists");
    if (Notes().addBook(hash, title, authors,
                        time ? ParseTime(*time, "--time") : std::time(nullptr)) != 0)
        throw Failure(kFailed, "could not add the book (see -v)");
    std::cout << "added book " << hash << '\n';
    return kOk;
}

int RunTouch(Args& args) {
    std::optional<std::string> time = args.Option("--time");
    const std::string hash = args.Next("HASH");
    args.Done();
    if (ItemIdOrFail(hash) == -1) throw Failure(kNotFound, "no book or note with the hash " + hash);
    try {
        Notes().setTimeAlt(hash, time ? ParseTime(*time, "--time") : std::time(nullptr));
    } catch (const SqliteError& e) {
        throw Failure(kFailed, e.message());
    }
    std::cout << "touched " << hash << '\n';
    return kOk;
}

constexpr const char* kTimeHelp =
    "TIME is seconds since the epoch or a UTC date YYYY-MM-DD[ HH:MM[:SS]].\n";
constexpr const char* kSearchHelp =
    "Searches the quotation and the comment: ASCII letters match either case, other letters\n"
    "only as written; % and _ are wildcards.\n";

const bool registered = [] {
    Register({"notes books", "books with their notes, most recently changed first",
              std::string("usage: qvtool notes books [--text TEXT]\n"
                          "Books with the number of their live notes (bookmarks not counted).\n"
                          "  --text TEXT   count only the notes that contain TEXT\n") +
                  kSearchHelp,
              RunBooks});
    Register({"notes list", "the live notes of a book",
              std::string("usage: qvtool notes list BOOK-HASH [--text TEXT]\n"
                          "The book's live notes, with their texts from the JSON bodies.\n"
                          "  --text TEXT   only the notes that contain TEXT\n") +
                  kSearchHelp,
              RunList});
    Register({"notes show", "every value of one note",
              "usage: qvtool notes show NOTE-HASH\nThe note's values by tag number, deleted "
              "notes included.\n",
              RunShow});
    Register({"notes search", "notes of every book that contain a text",
              std::string("usage: qvtool notes search TEXT\n") + kSearchHelp, RunSearch});
    Register({"notes since", "notes changed after a time, deletions included",
              std::string("usage: qvtool notes since TIME\n") + kTimeHelp, RunSince});
    Register({"notes questions", "stored values in compact form with a question mark",
              "usage: qvtool notes questions\nValues of live notes written in compact JSON "
              "(\"text\":\" with no blanks)\nthat hold a question mark in or after the text.\n",
              RunQuestions});
    Register({"notes add", "add a note to a book, or change one",
              std::string("usage: qvtool notes add BOOK-HASH [--hash NOTE-HASH] [--text T] "
                          "[--comment C]\n"
                          "                        [--type highlight|note|bookmark|...] "
                          "[--color C] [--anchor POS] [--time TIME]\n"
                          "A new note gets a new hash (printed). An existing --hash is changed: "
                          "the values\ngiven replace those with the same tag, the others stay.\n") +
                  kTimeHelp,
              RunAdd});
    Register({"notes rm", "mark a note deleted",
              "usage: qvtool notes rm NOTE-HASH\nThe note stays in the file, marked deleted.\n",
              RunRemove});
    Register({"notes add-book", "add a book by its fast hash",
              std::string("usage: qvtool notes add-book FAST-HASH TITLE [--authors A] "
                          "[--time TIME]\n") +
                  kTimeHelp,
              RunAddBook});
    Register({"notes touch", "set the time of change of a book or note",
              std::string("usage: qvtool notes touch HASH [--time TIME]\n") + kTimeHelp, RunTouch});
    return true;
}();

}  // namespace
}  // namespace qvtool
