// The audiobook store on its real file, reopened between steps and written from other processes:
// the first and later starts, books with their files and chapters, the state row, bookmarks, the
// lists in every order, removal, a card that is away, an old file upgraded by its scripts and a
// damaged one replaced.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "../media/media_test_support.h"
#include "child_process.h"
#include "common_utilities/audio/audio_books_manager.h"
#include "log_capture.h"
#include "moorglass_host.h"

namespace {

using namespace mediatest;
using quorvel::audio::AudioBook;
using quorvel::audio::AudioBooksManager;
using qvtest::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;
using Chapter = AudioBook::Chapter;
using Bookmark = AudioBooksManager::AudioBookmark;

const std::string kFile = "/mnt/ext1/system/config/audiobooks/audiobooks.db";

Chapter MakeChapter(int no, const std::string& path, int end_ms, const std::string& title = "") {
    Chapter chapter;
    chapter.no = no;
    chapter.path = path;
    chapter.title = title;
    chapter.end_position = end_ms;
    return chapter;
}

std::shared_ptr<AudioBook> MakeBook(AudioBook::AudioBookType type, const std::string& title,
                                    const std::string& author, int duration,
                                    std::vector<Chapter> chapters = {}) {
    auto book = AudioBook::factory(type);
    book->setTitle(title);
    book->setAuthor(author);
    book->setGenre("Novel");
    book->setDuration(duration);
    book->setChapters(std::move(chapters));
    return book;
}

AudioBook::State MakeState(const std::string& location, int percents, int64_t when) {
    AudioBook::State state;
    state.read_position = location;
    state.read_percents = percents;
    state.last_read_ts = when;
    return state;
}

// Titles of the list in its order.
std::vector<std::string> Titles(const std::vector<std::shared_ptr<AudioBook>>& books) {
    std::vector<std::string> titles;
    for (const auto& book : books)
        titles.push_back(book->getTitle());
    return titles;
}

std::vector<std::string> Paths(const std::vector<Chapter>& chapters) {
    std::vector<std::string> paths;
    for (const auto& chapter : chapters)
        paths.push_back(std::to_string(chapter.no) + " " + chapter.path);
    return paths;
}

std::string Count(const std::string& table) {
    return QueryOne(kFile, "SELECT COUNT(*) FROM " + table);
}

TEST(AudioBooksStore, FirstStartMakesTheFileAndLaterStartsKeepIt) {
    LogCapture log;
    { AudioBooksManager first; }
    EXPECT_EQ("1", QueryOne(kFile, "SELECT id FROM version"));
    EXPECT_EQ("InternalStorage", QueryOne(kFile, "SELECT name FROM storages WHERE id = 1"));
    EXPECT_EQ("0", Count("audiobooks"));
    // The player's library is opened too, for the tag reader's code page.
    EXPECT_TRUE(Exists("/mnt/ext1/system/player-2/player-2.db"));
    // The device ships the version scripts' archive.
    EXPECT_TRUE(Exists("/zelgrot/share/audiobooks/scripts.tar.gz"));
    const unsigned long inode = Inode(kFile);

    // A second start, here and in another process, does not run the schema (whose book_state
    // statement would fail on an existing file) and keeps what is stored.
    {
        AudioBooksManager second;
        ASSERT_EQ(QV_OK, second.addAudioBook(MakeBook(AudioBook::EmptyType, "Kept", "", 0)));
    }
    auto child = qvtest::RunInChild([] {
        AudioBooksManager other;
        return Titles(other.getAudioBooks(AudioBooksManager::OrderByTitle)) ==
                       std::vector<std::string>{"Kept"}
                   ? 0
                   : 1;
    });
    EXPECT_TRUE(child.Succeeded()) << child.Describe();
    EXPECT_EQ(inode, Inode(kFile));
    EXPECT_THAT(log.Messages(QV_LOG_ERROR), IsEmpty());
}

TEST(AudioBooksStore, ABookIsStoredRowByRowAndAChapterWithATakenNumberIsLost) {
    {
        AudioBooksManager store;
        ASSERT_EQ(QV_OK, store.addAudioBook(
                             MakeBook(AudioBook::Mp3Type, "Mp3", "A", 300,
                                      {MakeChapter(2, "/mnt/ext1/B/02.mp3", 200000, "Two"),
                                       MakeChapter(1, "/mnt/ext1/B/01.mp3", 100000, "One")})));
        ASSERT_EQ(QV_OK, store.addAudioBook(MakeBook(AudioBook::M4bType, "M4b", "B", 120,
                                                     {MakeChapter(1, "/mnt/ext1/b.m4b", 60000),
                                                      MakeChapter(2, "/mnt/ext1/b.m4b", 120000)})));
        // Chapters numbered 1, 1: the second is refused by the key, silently.
        ASSERT_EQ(QV_OK,
                  store.addAudioBook(MakeBook(AudioBook::Mp3Type, "Twice", "C", 20,
                                              {MakeChapter(1, "/mnt/ext1/T/first.mp3", 10000),
                                               MakeChapter(1, "/mnt/ext1/T/second.mp3", 10000)})));
    }
    EXPECT_EQ("3", Count("audiobooks"));
    EXPECT_THAT(Query(kFile, "SELECT COUNT(*) FROM files GROUP BY book_id ORDER BY book_id"),
                ElementsAre("2", "1", "2"));  // the m4b's one file once
    EXPECT_EQ("NULL", QueryOne(kFile, "SELECT duration FROM files LIMIT 1"));
    EXPECT_EQ("5", Count("chapters"));
    EXPECT_EQ("0", Count("book_state"));  // no state until one is set

    AudioBooksManager store;
    auto books = store.getAudioBooks(AudioBooksManager::OrderByTitle);
    ASSERT_EQ(3u, books.size());
    EXPECT_EQ(AudioBook::M4bType, books[0]->getType());
    EXPECT_EQ("B", books[0]->getAuthor());
    EXPECT_EQ("Novel", books[0]->getGenre());
    EXPECT_EQ(120, books[0]->getDuration());
    EXPECT_TRUE(books[0]->getChapters().empty());  // lists come without chapters
    EXPECT_EQ("", books[0]->getState().read_position);

    const auto chapters = store.getBookChapters(books[1]->getId());
    EXPECT_THAT(Paths(chapters), ElementsAre("1 /mnt/ext1/B/01.mp3", "2 /mnt/ext1/B/02.mp3"));
    EXPECT_EQ("One", chapters[0].title);
    EXPECT_EQ(100000, chapters[0].end_position);
    EXPECT_THAT(Paths(store.getBookChapters(books[2]->getId())),
                ElementsAre("1 /mnt/ext1/T/first.mp3"));
    // The lost chapter's file row was made before the refusal, and stays.
    EXPECT_TRUE(store.isFileAlreadyAdded("/mnt/ext1/T/second.mp3"));
    EXPECT_FALSE(store.isFileAlreadyAdded("/mnt/ext1/T/third.mp3"));
    EXPECT_EQ("/mnt/ext1/T", store.getFolderFromPath("/mnt/ext1/T/first.mp3"));
    EXPECT_EQ("", store.getFolderFromPath("loose.mp3"));
}

TEST(AudioBooksStore, StateIsOneRowPerBookAndOrdersTheLastReadList) {
    {
        AudioBooksManager store;
        for (auto [title, author, duration] : {std::tuple{"beta", "Zed", 300},
                                               {"Alpha", "amy", 100},
                                               {"Gamma", "Bob", 200},
                                               {"delta", "Cid", 50}})
            ASSERT_EQ(QV_OK,
                      store.addAudioBook(MakeBook(AudioBook::Mp3Type, title, author, duration)));
        ASSERT_EQ(QV_OK, store.setState(1, MakeState("/a.mp3:#loc(1)", 10, 1000)));
        ASSERT_EQ(QV_OK, store.setState(3, MakeState("/g.mp3:#loc(3)", 30, 3000)));
    }
    const std::string first_id = QueryOne(kFile, "SELECT id FROM book_state WHERE book_id = 1");
    // A state saved from another process replaces the row.
    auto child = qvtest::RunInChild([] {
        AudioBooksManager store;
        return store.setState(1, MakeState("/b.mp3:#loc(99)", 55, 5000000000LL)) == QV_OK ? 0 : 1;
    });
    ASSERT_TRUE(child.Succeeded()) << child.Describe();
    EXPECT_EQ("1", QueryOne(kFile, "SELECT COUNT(*) FROM book_state WHERE book_id = 1"));
    EXPECT_NE(first_id, QueryOne(kFile, "SELECT id FROM book_state WHERE book_id = 1"));
    EXPECT_EQ("5000000000",
              QueryOne(kFile, "SELECT last_read_ts FROM book_state WHERE book_id = 1"));

    AudioBooksManager store;
    using M = AudioBooksManager;
    // Orders compare bytes: upper case before lower case.
    EXPECT_THAT(Titles(store.getAudioBooks(M::OrderByTitle)),
                ElementsAre("Alpha", "Gamma", "beta", "delta"));
    EXPECT_THAT(Titles(store.getAudioBooks(M::OrderByArtist)),
                ElementsAre("Gamma", "delta", "beta", "Alpha"));
    EXPECT_THAT(Titles(store.getAudioBooks(M::OrderByDuration)),
                ElementsAre("delta", "Alpha", "Gamma", "beta"));
    auto last = store.getAudioBooks(M::OrderByLastRead);
    ASSERT_EQ(4u, last.size());
    EXPECT_EQ("beta", last[0]->getTitle());
    EXPECT_EQ("Gamma", last[1]->getTitle());
    EXPECT_EQ("", last[2]->getState().read_position);  // the unread last
    EXPECT_EQ("", last[3]->getState().read_position);
    EXPECT_EQ("/b.mp3:#loc(99)", last[0]->getState().read_position);
    EXPECT_EQ(55, last[0]->getState().read_percents);
    EXPECT_EQ(3000, last[1]->getState().last_read_ts);
    // Any other order is the table's own.
    EXPECT_THAT(Titles(store.getAudioBooks(static_cast<M::Order>(7))),
                ElementsAre("beta", "Alpha", "Gamma", "delta"));
    // A row of a kind this build doesn't know is left out.
    Exec(kFile, "INSERT INTO audiobooks (type, title) VALUES (9, 'Future')");
    Exec(kFile, "INSERT INTO audiobooks (type, title) VALUES (NULL, 'None')");
    EXPECT_EQ(4u, store.getAudioBooks(M::OrderByTitle).size());
}

TEST(AudioBooksStore, ZipPathsAreStoredSplitAndComeBackUnchanged) {
    const std::string archive = "/mnt/ext1/Books/b.mp3.zip";
    {
        AudioBooksManager store;
        ASSERT_EQ(QV_OK,
                  store.addAudioBook(MakeBook(AudioBook::Mp3ZipType, "Zip", "Z", 60,
                                              {MakeChapter(1, archive + ":#zip(d/01.mp3)", 30000),
                                               MakeChapter(2, archive + ":#zip(d/02.mp3)", 30000),
                                               MakeChapter(3, archive + ":#zip(top.mp3)", 1000)})));
    }
    EXPECT_THAT(Query(kFile, "SELECT name FROM folders ORDER BY name"),
                ElementsAre("/mnt/ext1/Books", "/mnt/ext1/Books/b.mp3.zip:#zip(d"));
    EXPECT_THAT(Query(kFile, "SELECT filename FROM files ORDER BY id"),
                ElementsAre("01.mp3)", "02.mp3)", "b.mp3.zip:#zip(top.mp3)"));

    AudioBooksManager store;
    auto book = store.getAudioBooks(AudioBooksManager::OrderByTitle).at(0);
    book->setChapters(store.getBookChapters(book->getId()));
    EXPECT_THAT(Paths(book->getChapters()),
                ElementsAre("1 " + archive + ":#zip(d/01.mp3)", "2 " + archive + ":#zip(d/02.mp3)",
                            "3 " + archive + ":#zip(top.mp3)"));
    EXPECT_EQ(archive, book->getBookPath());
    EXPECT_TRUE(store.isFileAlreadyAdded(archive + ":#zip(d/02.mp3)"));
    EXPECT_FALSE(store.isFileAlreadyAdded(archive + ":#zip(d/03.mp3)"));
    EXPECT_EQ("/mnt/ext1/Books/b.mp3.zip:#zip(d",
              store.getFolderFromPath(archive + ":#zip(d/01.mp3)"));
}

TEST(AudioBooksStore, BookmarksOrderedByPositionWithOnlyTitleAndNoteEditable) {
    AudioBooksManager store;
    ASSERT_EQ(QV_OK, store.addAudioBook(MakeBook(AudioBook::Mp3Type, "Book", "", 100)));
    for (auto [position, title] : {std::pair{50, "middle"}, {5, "start"}, {90, "end"}}) {
        Bookmark bookmark;
        bookmark.id = 77;  // ignored
        bookmark.position = position;
        bookmark.location = "/a.mp3:#loc(" + std::to_string(position) + ")";
        bookmark.title = title;
        ASSERT_EQ(QV_OK, store.addBookmark(1, bookmark));
    }
    Exec(kFile, "INSERT INTO bookmarks (book_id, position) VALUES (1, 70)");  // NULL texts
    auto bookmarks = store.getBookmarks(1);
    ASSERT_EQ(4u, bookmarks.size());
    EXPECT_EQ("start", bookmarks[0].title);
    EXPECT_EQ(2, bookmarks[0].id);
    EXPECT_EQ("/a.mp3:#loc(5)", bookmarks[0].location);
    EXPECT_EQ(70, bookmarks[2].position);
    EXPECT_EQ("", bookmarks[2].location);
    EXPECT_EQ("", bookmarks[2].note);
    EXPECT_EQ("end", bookmarks[3].title);

    Bookmark edited = bookmarks[1];
    edited.title = "renamed";
    edited.note = "a note";
    edited.position = 1;
    edited.location = "/moved.mp3:#loc(1)";
    ASSERT_EQ(QV_OK, store.editBookmark(edited));
    ASSERT_EQ(QV_OK, store.removeBookmark(bookmarks[0].id));
    ASSERT_EQ(QV_OK, store.removeBookmark(999));  // nothing to remove is no error

    AudioBooksManager reopened;
    bookmarks = reopened.getBookmarks(1);
    ASSERT_EQ(3u, bookmarks.size());
    EXPECT_EQ("renamed", bookmarks[0].title);
    EXPECT_EQ("a note", bookmarks[0].note);
    EXPECT_EQ(50, bookmarks[0].position);
    EXPECT_EQ("/a.mp3:#loc(50)", bookmarks[0].location);
    EXPECT_THAT(reopened.getBookmarks(2), IsEmpty());
}

TEST(AudioBooksStore, RemovalTakesEverythingThatHangsOnTheBook) {
    {
        AudioBooksManager store;
        for (const char* name : {"Gone", "Stays"}) {
            const std::string dir = std::string("/mnt/ext1/") + name;
            ASSERT_EQ(QV_OK, store.addAudioBook(MakeBook(AudioBook::Mp3Type, name, "", 20,
                                                         {MakeChapter(1, dir + "/1.mp3", 10000),
                                                          MakeChapter(2, dir + "/2.mp3", 10000)})));
        }
        for (int64_t id : {1, 2}) {
            ASSERT_EQ(QV_OK, store.setState(id, MakeState("/x:#loc(1)", 1, 1)));
            Bookmark bookmark;
            bookmark.position = 3;
            ASSERT_EQ(QV_OK, store.addBookmark(id, bookmark));
        }
    }
    AudioBooksManager store;
    ASSERT_EQ(QV_OK, store.removeAudioBook(1));
    EXPECT_FALSE(store.isFileAlreadyAdded("/mnt/ext1/Gone/1.mp3"));
    EXPECT_THAT(store.getBookChapters(1), IsEmpty());
    EXPECT_THAT(store.getBookmarks(1), IsEmpty());
    EXPECT_THAT(Titles(store.getAudioBooks(AudioBooksManager::OrderByLastRead)),
                ElementsAre("Stays"));
    for (const char* table : {"files", "chapters", "book_state", "bookmarks"})
        EXPECT_EQ("0", QueryOne(kFile, std::string("SELECT COUNT(*) FROM ") + table +
                                           " WHERE book_id = 1"))
            << table;
    EXPECT_EQ("2", Count("folders"));  // folders stay
    EXPECT_EQ(2u, store.getBookChapters(2).size());
    EXPECT_EQ(1u, store.getBookmarks(2).size());
    EXPECT_EQ(QV_OK, store.removeAudioBook(1));  // again: nothing left, no error
}

// A statement that can't be prepared (its table gone under the manager) is named in the log
// and answered with a failure or an empty list; the other tables go on working.
TEST(AudioBooksStore, StatementsThatCannotBePreparedAreReportedByName) {
    AudioBooksManager store;
    ASSERT_EQ(QV_OK, store.addAudioBook(MakeBook(AudioBook::Mp3Type, "Book", "", 10,
                                                 {MakeChapter(1, "/mnt/ext1/B/1.mp3", 10000)})));
    ASSERT_EQ(QV_OK, store.setState(1, MakeState("/x:#loc(1)", 1, 1)));
    Exec(kFile, "DROP TABLE bookmarks; DROP TABLE folders");
    LogCapture log;
    EXPECT_EQ(QV_FAILED, store.addBookmark(1, Bookmark{}));
    EXPECT_THAT(store.getBookmarks(1), IsEmpty());
    EXPECT_EQ(QV_FAILED, store.addFile(1, "/mnt/ext1/B/2.mp3"));
    EXPECT_FALSE(store.isFileAlreadyAdded("/mnt/ext1/B/1.mp3"));
    EXPECT_THAT(store.getBookChapters(1), IsEmpty());
    EXPECT_EQ(QV_FAILED, store.removeAudioBook(1));
    using qvtest::PidLine;
    EXPECT_TRUE(log.Has(1, PidLine("Condition: \"!st.get()\", return(\"QV_FAILED\")]")));
    EXPECT_TRUE(log.Has(1, PidLine("Condition: \"!st.get()\", return(\"result\")]")));
    EXPECT_TRUE(log.Has(1, PidLine("Condition: \"!st1.get()\", return(\"QV_FAILED\")]")));
    EXPECT_TRUE(log.Has(1, PidLine("Condition: \"!st.get()\", return(\"false\")]")));
    EXPECT_TRUE(log.Has(1, PidLine("Condition: \"remove_func(\"DELETE FROM bookmarks WHERE "
                                   "book_id = ?\") == QV_OK\", return(\"QV_FAILED\")]")));
    // The removal stopped at the bookmarks: what came before it is gone, the book stays.
    EXPECT_EQ("0", Count("chapters"));
    EXPECT_EQ("0", Count("book_state"));
    EXPECT_EQ(1u, store.getAudioBooks(AudioBooksManager::OrderByTitle).size());
    ASSERT_EQ(QV_OK, store.setState(1, MakeState("/x:#loc(1)", 1, 1)));
}

TEST(AudioBooksStore, ABookOnACardThatIsAwayIsStillListed) {
    qvhost_set_card_inserted(1);
    qvhost_set_card_serial("CA4D");
    {
        AudioBooksManager store;
        ASSERT_EQ(QV_OK,
                  store.addAudioBook(MakeBook(AudioBook::Mp3Type, "On card", "", 10,
                                              {MakeChapter(1, "/mnt/ext2/A/1.mp3", 10000)})));
        EXPECT_TRUE(store.isFileAlreadyAdded("/mnt/ext2/A/1.mp3"));
    }
    EXPECT_EQ("2", QueryOne(kFile, "SELECT storageid FROM folders WHERE name = '/mnt/ext2/A'"));
    qvhost_set_card_inserted(0);

    AudioBooksManager store;
    EXPECT_THAT(Titles(store.getAudioBooks(AudioBooksManager::OrderByTitle)),
                ElementsAre("On card"));
    EXPECT_THAT(Paths(store.getBookChapters(1)), ElementsAre("1 /mnt/ext2/A/1.mp3"));
    // Without the card its paths belong to no storage (-1), so the file is not found.
    EXPECT_FALSE(store.isFileAlreadyAdded("/mnt/ext2/A/1.mp3"));
    qvhost_set_card_inserted(1);
    store.updateStorageIds();
    EXPECT_TRUE(store.isFileAlreadyAdded("/mnt/ext2/A/1.mp3"));
}

TEST(AudioBooksStore, AnOldFileIsUpgradedByTheShippedScripts) {
    // A file of version 0, as an older firmware left it: no bookmarks table yet.
    Exec(kFile,
         "CREATE TABLE storages(id INTEGER PRIMARY KEY, name TEXT);"
         "INSERT INTO storages VALUES (1, 'InternalStorage');"
         "CREATE TABLE folders(id INTEGER PRIMARY KEY AUTOINCREMENT, storageid INTEGER,"
         " name TEXT, UNIQUE(storageid, name) ON CONFLICT FAIL);"
         "CREATE TABLE audiobooks(id INTEGER PRIMARY KEY AUTOINCREMENT, type INTEGER,"
         " title TEXT, artist TEXT, genre TEXT, duration INTEGER);"
         "CREATE TABLE files(id INTEGER PRIMARY KEY AUTOINCREMENT, book_id INTEGER,"
         " filename TEXT, folder_id INTEGER, duration INTEGER,"
         " UNIQUE (book_id, filename, folder_id));"
         "CREATE TABLE chapters(book_id INTEGER, no INTEGER, file_id INTEGER,"
         " start_position INTEGER, end_position INTEGER, title,"
         " PRIMARY KEY (book_id, no));"
         "CREATE TABLE book_state(id INTEGER PRIMARY KEY AUTOINCREMENT, book_id INTEGER,"
         " read_position TEXT, read_percents INTEGER, last_read_ts INTEGER,"
         " UNIQUE (book_id));"
         "CREATE TABLE version(id INTEGER PRIMARY KEY); INSERT INTO version VALUES (0);"
         "INSERT INTO audiobooks (type, title, duration) VALUES (3, 'Old book', 10);");
    MakeScriptsArchive("/zelgrot/share/audiobooks/scripts.tar.gz",
                       {{"0to1.sql",
                         "CREATE TABLE bookmarks ( id INTEGER PRIMARY KEY AUTOINCREMENT,  book_id "
                         "INTEGER,  position INTEGER,  location TEXT,  title TEXT,  note TEXT );\n"
                         "UPDATE version SET id = 1;\n"}});
    StderrCapture console;
    AudioBooksManager store;
    EXPECT_EQ("1", QueryOne(kFile, "SELECT id FROM version"));
    EXPECT_THAT(Titles(store.getAudioBooks(AudioBooksManager::OrderByTitle)),
                ElementsAre("Old book"));
    Bookmark bookmark;
    bookmark.position = 4;
    ASSERT_EQ(QV_OK, store.addBookmark(1, bookmark));
    EXPECT_EQ(1u, store.getBookmarks(1).size());
}

TEST(AudioBooksStore, ADamagedFileIsReplacedAndTheMarkerClearsIt) {
    WriteFile(kFile, std::string(16384, '\x5a'));
    qvhost_ipc_clear();
    {
        AudioBooksManager store;
        EXPECT_THAT(store.getAudioBooks(AudioBooksManager::OrderByTitle), IsEmpty());
        EXPECT_NE(QV_OK, store.addAudioBook(MakeBook(AudioBook::EmptyType, "Lost", "", 0)));
    }
    EXPECT_EQ(1, ReadMarker("AudiobooksDatabaseCorrupted"));
    EXPECT_GE(qvhost_ipc_count(272), 1);

    // The next start deletes the marked file and begins anew.
    {
        AudioBooksManager store;
        EXPECT_EQ(0, ReadMarker("AudiobooksDatabaseCorrupted"));
        ASSERT_EQ(QV_OK, store.addAudioBook(MakeBook(AudioBook::EmptyType, "New", "", 0)));
    }
    // A marker set by another application takes the books with it.
    SetMarker("AudiobooksDatabaseCorrupted", 1);
    AudioBooksManager store;
    EXPECT_THAT(store.getAudioBooks(AudioBooksManager::OrderByTitle), IsEmpty());
    EXPECT_EQ(0, ReadMarker("AudiobooksDatabaseCorrupted"));
}

}  // namespace
