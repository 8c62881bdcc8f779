// The audiobook store: its file, construction, and the writing operations.

#include "common_utilities/audio/audio_books_manager.h"

#include <sqlite3.h>

#include "common_utilities/split_path.h"

namespace quorvel {
namespace audio {
namespace {

using utilities::SplitAtLastSlash;
using utilities::SplitPath;
using utilities::Statement;
using utilities::StorageHelper;

constexpr const char* kDatabasePath = "/mnt/ext1/system/config/audiobooks/audiobooks.db";
constexpr const char* kCorruptedKey = "AudiobooksDatabaseCorrupted";
constexpr int kDatabaseVersion = 1;
constexpr const char* kScriptsArchive = "/zelgrot/share/audiobooks/scripts.tar.gz";

// SQLite binds 64-bit values as long long, which int64_t is not on every platform.
long long Wide(int64_t value) {
    return static_cast<long long>(value);
}

}  // namespace

const std::vector<std::string> AudioBooksManager::schema_statements_audiobooks = {
    "CREATE TABLE IF NOT EXISTS storages(id INTEGER PRIMARY KEY, name TEXT)",
    "INSERT OR IGNORE INTO storages (id, name) VALUES (1, 'InternalStorage');",
    "CREATE TABLE IF NOT EXISTS folders( id INTEGER PRIMARY KEY AUTOINCREMENT, storageid INTEGER, "
    "name TEXT, FOREIGN KEY(storageid) REFERENCES storages(id), UNIQUE(storageid, name) ON "
    "CONFLICT FAIL)",
    "CREATE INDEX IF NOT EXISTS folders_name_idx ON folders(name)",
    "CREATE TABLE IF NOT EXISTS audiobooks(  id INTEGER PRIMARY KEY AUTOINCREMENT, type INTEGER, "
    "title TEXT, artist TEXT, genre TEXT, duration INTEGER )",
    "CREATE TABLE IF NOT EXISTS files(  id INTEGER PRIMARY KEY AUTOINCREMENT,  book_id INTEGER,  "
    "filename TEXT,  folder_id INTEGER,  duration INTEGER, UNIQUE (book_id, filename, "
    "folder_id),  FOREIGN KEY (book_id) REFERENCES audiobooks(id), FOREIGN KEY (folder_id) "
    "REFERENCES folders(id) )",
    "CREATE TABLE IF NOT EXISTS chapters(  book_id INTEGER,  no INTEGER,  file_id INTEGER,  "
    "start_position INTEGER,  end_position INTEGER,  title,  PRIMARY KEY (book_id, no),  FOREIGN "
    "KEY (book_id) REFERENCES audiobooks(id),  FOREIGN KEY (file_id) REFERENCES files(id) )",
    "CREATE TABLE book_state(  id INTEGER PRIMARY KEY AUTOINCREMENT,  book_id INTEGER,  "
    "read_position TEXT,  read_percents INTEGER,  last_read_ts INTEGER,  UNIQUE (book_id),  "
    "FOREIGN KEY (book_id) REFERENCES audiobooks(id) )",
    "CREATE TABLE IF NOT EXISTS bookmarks ( id INTEGER PRIMARY KEY AUTOINCREMENT,  book_id "
    "INTEGER,  position INTEGER,  location TEXT,  title TEXT,  note TEXT,  FOREIGN KEY (book_id) "
    "REFERENCES audiobooks(id) )",
    "CREATE TABLE IF NOT EXISTS version(id INTEGER PRIMARY KEY)",
    "INSERT OR IGNORE INTO version VALUES(1)",
};

// The media library comes second, as the members stand: it is opened before this file.
// Whatever GetDb could not do, it has logged; the manager goes on with the connection it got.
AudioBooksManager::AudioBooksManager()
    : db_helper_(kDatabasePath, kCorruptedKey, kDatabaseVersion, kScriptsArchive,
                 schema_statements_audiobooks) {
    db_helper_.GetDb(db_);
    storage_ids_ = StorageHelper(db_).getStorages();
}

AudioBooksManager::~AudioBooksManager() {
    db_.close();
}

void AudioBooksManager::updateStorageIds() {
    storage_ids_ = StorageHelper(db_).getStorages();
}

int AudioBooksManager::addAudioBook(const std::shared_ptr<AudioBook>& book) {
    std::unique_ptr<Statement> st = db_.prepare(
        "INSERT INTO audiobooks (type, title, artist, genre, duration) VALUES (?, ?, ?, ?, ?) ;");
    QV_RETURN_IF(!st.get(), QV_FAILED);
    st->bind_all(book->getType(), book->getTitle(), book->getAuthor(), book->getGenre(),
                 static_cast<int>(book->getDuration()));
    if (st->step() != SQLITE_DONE) return QV_FAILED;
    const int64_t id = db_.LastInsertedRow();
    // A chapter the database refuses is lost; the book stands.
    for (const AudioBook::Chapter& chapter : book->getChapters())
        addChapter(id, chapter);
    return QV_OK;
}

int AudioBooksManager::addFile(int64_t bookId, const std::string& path) {
    const int64_t storageId = StorageHelper(db_).GetStorageByPath(path);
    const SplitPath split = SplitAtLastSlash(path);

    std::unique_ptr<Statement> st1 =
        db_.prepare("INSERT OR IGNORE INTO folders (storageid, name) VALUES (?, ?)");
    QV_RETURN_IF(!st1.get(), QV_FAILED);
    st1->bind_all(Wide(storageId), split.folder);
    int rc = st1->step();
    if (rc != SQLITE_DONE) {
        QV_LOG_ERR(rc);
        return rc;
    }

    std::unique_ptr<Statement> st = db_.prepare(
        "INSERT OR IGNORE INTO files (book_id, filename, folder_id) VALUES (?, ?, (SELECT id FROM "
        "folders f WHERE f.name =? AND f.storageid = ?));");
    QV_RETURN_IF(!st.get(), QV_FAILED);
    st->bind_all(Wide(bookId), split.name, split.folder, Wide(storageId));
    rc = st->step();
    if (rc != SQLITE_DONE) {
        QV_LOG_ERR(rc);
        return rc;
    }
    return QV_OK;
}

int AudioBooksManager::addChapter(int64_t bookId, const AudioBook::Chapter& chapter) {
    addFile(bookId, chapter.path);
    const int64_t storageId = StorageHelper(db_).GetStorageByPath(chapter.path);
    const SplitPath split = SplitAtLastSlash(chapter.path);
    std::unique_ptr<Statement> st = db_.prepare(
        std::string("INSERT INTO chapters (book_id, no, start_position, end_position, title, "
                    "file_id) ") +
        " VALUES (?, ?, ?, ?, ?, (SELECT id from files WHERE filename = ? AND book_id = ? AND " +
        " folder_id = (SELECT id FROM folders f WHERE f.name =? AND f.storageid = ?))) ;");
    QV_RETURN_IF(!st.get(), QV_FAILED);
    st->bind_all(Wide(bookId), static_cast<int>(chapter.no),
                 static_cast<int>(chapter.start_position), static_cast<int>(chapter.end_position),
                 chapter.title, split.name, Wide(bookId), split.folder, Wide(storageId));
    return st->step() == SQLITE_DONE ? QV_OK : QV_FAILED;
}

int AudioBooksManager::setState(int64_t bookId, const AudioBook::State& state) {
    // The unique book_id makes this a replacement, which gives the row a new id.
    std::unique_ptr<Statement> st = db_.prepare(
        "INSERT OR REPLACE INTO book_state (book_id, read_position, read_percents, last_read_ts) "
        "VALUES (?, ?, ?, ?)");
    QV_RETURN_IF(!st.get(), QV_FAILED);
    st->bind_all(Wide(bookId), state.read_position, static_cast<int>(state.read_percents),
                 Wide(state.last_read_ts));
    return st->step() == SQLITE_DONE ? QV_OK : QV_FAILED;
}

int AudioBooksManager::removeAudioBook(int64_t bookId) {
    auto remove_func = [this, bookId](const char* sql) -> int {
        std::unique_ptr<Statement> st = db_.prepare(sql);
        QV_RETURN_IF(!st.get(), QV_FAILED);
        st->bind_all(Wide(bookId));
        return st->step() == SQLITE_DONE ? QV_OK : QV_FAILED;
    };
    // What hangs on the book first, the book last: a failure midway leaves a book that can be
    // removed again, never rows that point at nothing.
    QV_RETURN_UNLESS(remove_func("DELETE FROM files WHERE book_id = ?") == QV_OK, QV_FAILED);
    QV_RETURN_UNLESS(remove_func("DELETE FROM chapters WHERE book_id = ?") == QV_OK, QV_FAILED);
    QV_RETURN_UNLESS(remove_func("DELETE FROM book_state WHERE book_id = ?") == QV_OK, QV_FAILED);
    QV_RETURN_UNLESS(remove_func("DELETE FROM bookmarks WHERE book_id = ?") == QV_OK, QV_FAILED);
    QV_RETURN_UNLESS(remove_func("DELETE FROM audiobooks WHERE id = ?") == QV_OK, QV_FAILED);
    return QV_OK;
}

int AudioBooksManager::addBookmark(int64_t bookId, const AudioBookmark& bookmark) {
    std::unique_ptr<Statement> st = db_.prepare(
        "INSERT INTO bookmarks (book_id, position, location, title, note) VALUES (?, ?, ?, ?, ?)");
    QV_RETURN_IF(!st.get(), QV_FAILED);
    st->bind_all(Wide(bookId), static_cast<int>(bookmark.position), bookmark.location,
                 bookmark.title, bookmark.note);
    return st->step() == SQLITE_DONE ? QV_OK : QV_FAILED;
}

int AudioBooksManager::editBookmark(const AudioBookmark& bookmark) {
    std::unique_ptr<Statement> st =
        db_.prepare("UPDATE bookmarks SET title = ?, note = ? WHERE id = ?");
    QV_RETURN_IF(!st.get(), QV_FAILED);
    st->bind_all(bookmark.title, bookmark.note, static_cast<int>(bookmark.id));
    return st->step() == SQLITE_DONE ? QV_OK : QV_FAILED;
}

int AudioBooksManager::removeBookmark(int id) {
    std::unique_ptr<Statement> st = db_.prepare("DELETE FROM bookmarks WHERE id = ?");
    QV_RETURN_IF(!st.get(), QV_FAILED);
    st->bind_all(id);
    return st->step() == SQLITE_DONE ? QV_OK : QV_FAILED;
}

}  // namespace audio
}  // namespace quorvel
