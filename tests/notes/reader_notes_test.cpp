// The notes store and its queries on a books.db made the way the reading application makes it:
// what is written, what each query finds, and how the manager behaves without the file and while
// the application holds it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "child_process.h"
#include "common_utilities/reader_db_manager.h"
#include "log_capture.h"
#include "media_test_support.h"
#include "reader_books_db.h"

namespace {

using namespace mediatest;
using quorvel::utilities::Book;
using quorvel::utilities::Note;
using quorvel::utilities::ReaderDbManager;
using quorvel::utilities::Sqlite;
using quorvel::utilities::SqliteError;
using qvtest::LogCapture;
using qvtest::PidLine;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

const std::string kDb = readerapp::kBooksDbPath;

Note MakeNote(const std::string& book, const std::string& hash, time_t time,
              const std::string& type = "highlight") {
    Note note;
    note.time = time;
    note.setTag(Note::BookHash, book, time);
    note.setTag(Note::NoteHash, hash, time);
    note.setTag(Note::Type, type, time);
    return note;
}

std::vector<std::string> Hashes(const ReaderDbManager::NoteTimes& notes) {
    std::vector<std::string> hashes;
    for (const auto& entry : notes)
        hashes.push_back(entry.first);
    return hashes;
}

// "title=count" per book, in order.
std::vector<std::string> Counts(const ReaderDbManager::BookCounts& books) {
    std::vector<std::string> entries;
    for (const auto& [book, count] : books)
        entries.push_back(book.title + "=" + std::to_string(count));
    return entries;
}

class ReaderNotes : public testing::Test {
protected:
    void AddBook(const std::string& hash, const std::string& title, time_t time = 1000) {
        ASSERT_EQ(0, notes.addBook(hash, title, "Author", time)) << hash;
    }
    // A note with a quotation and, if given, a comment.
    void AddNote(const std::string& book, const std::string& hash, const std::string& text,
                 const std::string& comment = "", time_t time = 2000,
                 const std::string& type = "highlight") {
        Note note = MakeNote(book, hash, time, type);
        note.setText(text, time);
        if (!comment.empty()) note.setNote(comment, time);
        ASSERT_EQ(0, notes.setNote(note)) << hash;
    }

    // The application makes the file before the manager opens it.
    bool created_ = (readerapp::CreateBooksDatabase(), true);
    ReaderDbManager notes;
};

TEST_F(ReaderNotes, NotesAreAddedChangedAndDeletedByTheirHash) {
    AddBook("BOOK1", "Snow");
    Note note = MakeNote("BOOK1", "N1", 2000);
    note.setText("Schnee fällt", 2001);
    note.setNote("a \"quoted\" comment", 2002);
    note.setTag(Note::Color, "yellow", 2000);
    note.setTag(Note::Image, std::string("\x89PNG\0\0\x01", 7), 2003);
    ASSERT_EQ(0, notes.setNote(note));

    // The identities live in Items only; the bodies are styled JSON with the letters as typed.
    EXPECT_THAT(Query(kDb, "SELECT TagID FROM Tags ORDER BY TagID"),
                ElementsAre("102", "104", "105", "106", "109"));
    EXPECT_EQ("{\n\t\"text\" : \"Schnee fällt\"\n}\n",
              QueryOne(kDb, "SELECT Val FROM Tags WHERE TagID = 104"));
    EXPECT_EQ("blob", QueryOne(kDb, "SELECT typeof(Val) FROM Tags WHERE TagID = 109"));
    EXPECT_EQ("4|0|2000", QueryOne(kDb,
                                   "SELECT TypeID || '|' || State || '|' || TimeAlt FROM "
                                   "Items WHERE HashUUID = 'N1'"));

    Note read = notes.getNote("N1");
    EXPECT_EQ(notes.getItemId("N1"), read.getId());
    EXPECT_EQ("BOOK1", read.getTag(Note::BookHash));
    EXPECT_EQ("N1", read.getTag(Note::NoteHash));
    EXPECT_EQ(2000, read.getTime());
    EXPECT_FALSE(read.removed);
    EXPECT_EQ("Schnee fällt", read.getText());
    EXPECT_EQ("a \"quoted\" comment", read.getNote());
    EXPECT_EQ("yellow", read.getColor());
    EXPECT_EQ("highlight", read.getPrimaryType());
    EXPECT_EQ(std::string("\x89PNG\0\0\x01", 7), read.getImage());
    EXPECT_EQ(2003, read.getTagTimeStamp(Note::Image));

    // A change replaces the values it carries and keeps those it doesn't.
    Note change = MakeNote("", "N1", 3000, "note");
    change.setNote("second thoughts", 3000);
    ASSERT_EQ(0, notes.setNote(change));
    read = notes.getNote("N1");
    EXPECT_EQ(3000, read.getTime());
    EXPECT_EQ("note", read.getType());
    EXPECT_EQ("second thoughts", read.getNote());
    EXPECT_EQ("Schnee fällt", read.getText());
    EXPECT_EQ("yellow", read.getColor());
    EXPECT_EQ("1", QueryOne(kDb, "SELECT count(*) FROM Items WHERE TypeID = 4"));

    // Deleting marks; the row, its values and its id stay, and setting it again doesn't revive it.
    EXPECT_EQ(0, notes.removeNote("N1"));
    EXPECT_EQ(0, notes.removeNote("NO-SUCH-NOTE"));
    EXPECT_NE(-1, notes.getItemId("N1"));
    ASSERT_EQ(0, notes.setNote(change));
    read = notes.getNote("N1");
    EXPECT_TRUE(read.removed);
    EXPECT_EQ("second thoughts", read.getNote());
    EXPECT_THAT(notes.getBookNotes("BOOK1"), IsEmpty());
    EXPECT_THAT(notes.getChangedNotes(2999), ElementsAre("N1"));
}

TEST_F(ReaderNotes, NotesWithoutABookAndBooksTwiceAreRefused) {
    AddBook("BOOK1", "Snow");
    LogCapture log;
    EXPECT_EQ(-1, notes.setNote(MakeNote("", "N1", 10)));
    EXPECT_EQ(-1, notes.setNote(MakeNote("BOOK1", "", 10)));
    EXPECT_THAT(log.Messages(1), IsEmpty());
    EXPECT_EQ(-1, notes.setNote(MakeNote("NO-SUCH-BOOK", "N1", 10)));
    EXPECT_TRUE(log.Has(1, PidLine("Condition: \"-1 == book_id\", return(\"-1\")]No book to add "
                                   "note to")));
    EXPECT_EQ(-1, notes.addBook("BOOK1", "Other", "", 5));
    EXPECT_TRUE(log.Has(4, PidLine("Book with hash BOOK1 is already present")));
    EXPECT_EQ("1", QueryOne(kDb, "SELECT count(*) FROM Items"));
    EXPECT_EQ("0", QueryOne(kDb, "SELECT count(*) FROM Tags"));
    EXPECT_EQ("Snow", QueryOne(kDb, "SELECT Title FROM Books"));
}

// An insert the database refuses must not hand the previous insert's row id to the values.
TEST_F(ReaderNotes, AWriteThatFailsIsReportedAndNeverLandsOnAnotherItem) {
    AddBook("BOOK1", "Snow");
    AddNote("BOOK1", "N1", "first");
    Exec(kDb,
         "CREATE TRIGGER refuse BEFORE INSERT ON Items WHEN NEW.HashUUID LIKE 'BAD%' "
         "BEGIN SELECT RAISE(ABORT, 'refused'); END");
    LogCapture log;
    Note bad = MakeNote("BOOK1", "BAD-NOTE", 50);
    bad.setText("not mine", 50);
    EXPECT_EQ(-1, notes.setNote(bad));
    EXPECT_TRUE(log.Has(1, PidLine("Failed to insert note item with refused")));
    EXPECT_EQ(-1, notes.addBook("BAD-BOOK", "Nope", "", 5));
    EXPECT_TRUE(log.Has(1, PidLine("Failed to insert book item with refused")));
    EXPECT_EQ("first", notes.getNote("N1").getText());
    EXPECT_EQ("Snow", QueryOne(kDb, "SELECT group_concat(Title) FROM Books"));
}

TEST_F(ReaderNotes, JsonBodiesAreReadByMemberAndDamagedOnesGiveNothing) {
    Note note;
    note.setTag(
        Note::Quotation,
        "{\n\t\"text\" : \"x\",\n\t\"begin\" : -42,\n\t\"end\" : 18446744073709551615,"
        "\n\t\"flag\" : true,\n\t\"ratio\" : 0.25,\n\t\"list\" : [1],\n\t\"none\" : null\n}\n",
        1);
    EXPECT_EQ("x", note.getText());
    EXPECT_EQ("-42", note.getStartUri());
    EXPECT_EQ("18446744073709551615", note.getEndUri());
    EXPECT_EQ("true", note.getJsonTagElement(Note::Quotation, "flag"));
    EXPECT_EQ("0.25", note.getJsonTagElement(Note::Quotation, "ratio"));
    EXPECT_EQ("", note.getJsonTagElement(Note::Quotation, "list"));
    EXPECT_EQ("", note.getJsonTagElement(Note::Quotation, "none"));
    EXPECT_EQ("", note.getAnchorUri());  // no such tag

    // Bodies stored by someone else: garbage, an array, a bare string, and the compact form
    // with no line break, whose last character the reading is known to drop.
    AddBook("BOOK1", "Snow");
    for (const char* hash : {"G", "A", "S", "C"})
        AddNote("BOOK1", hash, "placeholder");
    Exec(kDb,
         "UPDATE Tags SET Val = CASE (SELECT HashUUID FROM Items WHERE OID = ItemID) "
         "WHEN 'G' THEN 'not json at all' WHEN 'A' THEN '[\"text\", 1]' "
         "WHEN 'S' THEN '\"text\"' ELSE '{\"text\":\"compact\"}' END WHERE TagID = 104");
    for (const char* hash : {"G", "A", "S"})
        EXPECT_EQ("", notes.getNote(hash).getText()) << hash;
    EXPECT_EQ("compact", notes.getNote("C").getText());

    EXPECT_EQ(Note::JsonText, Note::getTagType(Note::Anchor));
    EXPECT_EQ(Note::BinaryData, Note::getTagType(Note::Tag108));
    EXPECT_EQ(Note::PlainText, Note::getTagType(static_cast<Note::Tags>(999)));
    EXPECT_EQ("00FFAB", ReaderDbManager::toUpperHex(std::string("\0\xff\xab", 3)));
}

TEST_F(ReaderNotes, BooksAreFoundByFastHashAndCountedByTheirNotes) {
    AddBook("OLD", "Old book", 1000);
    AddBook("NEW", "New book", 1000);
    AddBook("MARKS", "Only bookmarks", 1000);
    AddBook("EMPTY", "No notes", 1000);
    AddNote("OLD", "O1", "one");
    AddNote("OLD", "O2", "two");
    AddNote("OLD", "O3", "gone");
    ASSERT_EQ(0, notes.removeNote("O3"));
    AddNote("NEW", "N1", "new");
    AddNote("NEW", "NB", "", "", 2000, "bookmark");
    AddNote("MARKS", "M1", "", "", 2000, "bookmark");
    notes.setTimeAlt("NEW", 5000);

    auto found = notes.getBookByFastHash("NEW");
    ASSERT_EQ(1u, found.size());
    EXPECT_EQ("New book", found[0].title);
    EXPECT_EQ("Author", found[0].authors);
    EXPECT_EQ("NEW", found[0].hash);
    EXPECT_EQ(notes.getItemId("NEW"), found[0].id);
    EXPECT_EQ("NEW", notes.getBookFastHashById(found[0].id));
    EXPECT_EQ("", notes.getBookFastHashById(9999));
    EXPECT_THAT(notes.getBookByFastHash("O1"), IsEmpty());  // a note is no book

    // Newest change first; bookmarks and deleted notes don't count.
    EXPECT_THAT(Counts(notes.getBooksWithNotesCount()), ElementsAre("New book=1", "Old book=2"));
    EXPECT_THAT(Hashes(notes.getBookNotes("OLD")), UnorderedElementsAre("O1", "O2"));
    EXPECT_THAT(notes.getBookNotes("NO-SUCH-BOOK"), IsEmpty());

    // One record per live note, carrying the note's hash.
    std::vector<std::string> per_note;
    for (const Book& book : notes.getBooksWhichHaveNotes())
        per_note.push_back(book.title + ":" + book.hash);
    EXPECT_THAT(per_note, UnorderedElementsAre("Old book:O1", "Old book:O2", "New book:N1",
                                               "New book:NB", "Only bookmarks:M1"));
}

TEST_F(ReaderNotes, ChangesAreTheNotesTouchedAfterATime) {
    AddBook("B", "Book", 100);
    AddNote("B", "EARLY", "a", "", 100);
    AddNote("B", "EDGE", "b", "", 200);
    AddNote("B", "LATE", "c", "", 300);
    EXPECT_THAT(notes.getChangedNotes(199), UnorderedElementsAre("EDGE", "LATE"));
    EXPECT_THAT(notes.getChangedNotes(200), ElementsAre("LATE"));  // after, not at
    notes.setTimeAlt("EARLY", 400);
    ASSERT_EQ(0, notes.removeNote("LATE"));
    EXPECT_THAT(notes.getChangedNotes(300), ElementsAre("EARLY"));
    EXPECT_THAT(notes.getChangedNotes(0), UnorderedElementsAre("EARLY", "EDGE", "LATE"));
}

TEST_F(ReaderNotes, TextSearchesLookIntoQuotationsAndComments) {
    AddBook("B1", "First", 1000);
    AddBook("B2", "Second", 2000);
    AddNote("B1", "QUOTE", "the River Song");
    AddNote("B1", "BOTH", "a river", "river again");
    AddNote("B1", "COMMENT", "nothing here", "Ёлка у реки");
    AddNote("B1", "PERCENT", "100% cotton", "it's the snake_case");
    AddNote("B1", "QUOTES", "she said \"stop\"");
    AddNote("B2", "OTHER", "RIVER bank");
    AddNote("B2", "GONE", "river gone");
    ASSERT_EQ(0, notes.removeNote("GONE"));
    AddNote("B2", "MARK", "river marked", "", 2000, "bookmark");

    // ASCII letters in either case; quotation and comment; a note matching in both comes once.
    EXPECT_THAT(Hashes(notes.getBookNotesFilteredByText("B1", "river")),
                UnorderedElementsAre("QUOTE", "BOTH"));
    EXPECT_THAT(Hashes(notes.getBookNotesFilteredByText("B2", "river")),
                UnorderedElementsAre("OTHER", "MARK"));
    EXPECT_THAT(notes.getBookNotesFilteredByText("NO-SUCH-BOOK", "river"), IsEmpty());
    // Other letters only as written.
    EXPECT_THAT(Hashes(notes.getBookNotesFilteredByText("B1", "Ёлка")), ElementsAre("COMMENT"));
    EXPECT_THAT(notes.getBookNotesFilteredByText("B1", "ёлка"), IsEmpty());
    // "%" and "_" are wildcards; an apostrophe is just a letter; a quote is found as stored.
    EXPECT_THAT(Hashes(notes.getBookNotesFilteredByText("B1", "100%cotton")),
                ElementsAre("PERCENT"));
    EXPECT_THAT(Hashes(notes.getBookNotesFilteredByText("B1", "it_s the")), ElementsAre("PERCENT"));
    EXPECT_THAT(Hashes(notes.getBookNotesFilteredByText("B1", "it's")), ElementsAre("PERCENT"));
    EXPECT_THAT(Hashes(notes.getBookNotesFilteredByText("B1", "\\\"stop\\\"")),
                ElementsAre("QUOTES"));
    // The search is for a member called "text": the key itself is no match.
    EXPECT_THAT(notes.getBookNotesFilteredByText("B1", "text"), IsEmpty());

    // Counted per book, bookmarks and deleted notes left out, newest book first.
    EXPECT_THAT(Counts(notes.getBooksWithNotesCountFilteredByText("RIVER")),
                ElementsAre("Second=1", "First=2"));
    EXPECT_THAT(Counts(notes.getBooksWithNotesCountFilteredByText("ёлка")), IsEmpty());

    // The compact-form question mark search ignores its argument.
    Exec(kDb,
         "UPDATE Tags SET Val = '{\"text\":\"why?\"}' WHERE TagID = 104 AND ItemID = "
         "(SELECT OID FROM Items WHERE HashUUID = 'QUOTE')");
    EXPECT_THAT(notes.findNotesByText("anything"), ElementsAre("{\"text\":\"why?\"}"));
    EXPECT_EQ(notes.findNotesByText(""), notes.findNotesByText("river"));
}

// Without the file every operation fails, each in its documented way, and nothing is created.
TEST(ReaderNotesWithoutDatabase, EveryOperationFailsAndNothingIsCreated) {
    ReaderDbManager notes;
    LogCapture log;
    Note note = MakeNote("B", "N", 1);
    note.setText("t", 1);
    EXPECT_EQ(-1, notes.setNote(note));
    EXPECT_TRUE(log.HasFragment(1, "Failed to insert note item with "));
    EXPECT_EQ(-1, notes.removeNote("N"));
    EXPECT_EQ(-1, notes.addBook("B", "T", "A", 1));
    EXPECT_THROW(notes.getItemId("N"), SqliteError);
    EXPECT_THROW(notes.setTimeAlt("N", 1), SqliteError);
    EXPECT_EQ(0, notes.getNote("N").getId());
    EXPECT_THAT(notes.getBookNotes("B"), IsEmpty());
    EXPECT_THAT(notes.getBookNotesFilteredByText("B", "t"), IsEmpty());
    EXPECT_THAT(notes.getChangedNotes(0), IsEmpty());
    EXPECT_EQ("", notes.getBookFastHashById(1));
    EXPECT_THAT(notes.getBookByFastHash("B"), IsEmpty());
    EXPECT_THAT(notes.getBooksWhichHaveNotes(), IsEmpty());
    EXPECT_THAT(notes.getBooksWithNotesCount(), IsEmpty());
    EXPECT_THAT(notes.getBooksWithNotesCountFilteredByText("t"), IsEmpty());
    EXPECT_THAT(notes.findNotesByText("t"), IsEmpty());
    EXPECT_TRUE(log.HasFragment(1, "Failed to getBooksWithNotesCountFilteredByText with "));
    EXPECT_TRUE(log.HasFragment(1, "Failed to findNotesByText with "));
    for (const char* suffix : {"", "-wal", "-shm", "-journal"})
        EXPECT_FALSE(Exists(kDb + suffix)) << suffix;
}

// The reading application writing in a long transaction: the manager waits past SQLite's own
// busy handler and then goes on, rather than failing.
TEST(ReaderNotesLocked, AWriterWaitsForTheReadingApplication) {
    readerapp::CreateBooksDatabase();
    ASSERT_EQ(0, ReaderDbManager().addBook("B", "Book", "", 1));
    qvtest::Rendezvous locked;
    auto application = qvtest::ChildProcess::Start([&locked] {
        Sqlite db;
        if (db.open(kDb) != 0 || db.exec("BEGIN EXCLUSIVE") != kDone) return 1;
        locked.Signal();
        ::usleep(2600 * 1000);
        const int rc = db.exec("COMMIT");
        db.close();
        return rc == kDone ? 0 : 2;
    });
    ASSERT_TRUE(locked.Wait());
    ReaderDbManager notes;
    const auto start = std::chrono::steady_clock::now();
    Note note = MakeNote("B", "N", 7);
    note.setText("written after the wait", 7);
    EXPECT_EQ(0, notes.setNote(note));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2500));
    auto result = application.Wait();
    EXPECT_TRUE(result.Succeeded()) << result.Describe();
    EXPECT_EQ("written after the wait", notes.getNote("N").getText());
}

}  // namespace
