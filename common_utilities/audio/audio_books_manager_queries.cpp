// The read side of the audiobook store. Statements are composed from fixed pieces; everything
// the caller gives is bound.

#include <sqlite3.h>

#include "common_utilities/audio/audio_books_manager.h"
#include "common_utilities/split_path.h"

namespace quorvel {
namespace audio {
namespace {

using utilities::SplitAtLastSlash;
using utilities::SplitPath;
using utilities::Statement;
using utilities::StorageHelper;

std::string Text(const Statement& st, int column) {
    const char* text = st.column_text(column);
    return text ? text : "";
}

std::string OrderClause(AudioBooksManager::Order order) {
    switch (order) {
        case AudioBooksManager::OrderByTitle:
            return " ORDER BY title ASC ";
        case AudioBooksManager::OrderByArtist:
            return " ORDER BY artist ASC ";
        case AudioBooksManager::OrderByDuration:
            return " ORDER BY duration ASC ";
        case AudioBooksManager::OrderByLastRead:
            // Descending puts NULL last: the books never read.
            return " ORDER BY s.last_read_ts DESC ";
    }
    return "";
}

// Columns: b.id, b.type, b.title, b.artist, b.genre, b.duration, then the state's book_id,
// read_position, read_percents, last_read_ts (all NULL without a state row).
std::shared_ptr<AudioBook> ReadBook(const Statement& st) {
    auto book = AudioBook::factory(static_cast<AudioBook::AudioBookType>(st.column_int(1)));
    if (!book) return nullptr;
    // Ids and times are read in 32 bits, as every reader of this file does.
    book->setId(st.column_int(0));
    book->setTitle(Text(st, 2));
    book->setAuthor(Text(st, 3));
    book->setGenre(Text(st, 4));
    book->setDuration(st.column_int(5));
    if (!st.is_null_columnt(6)) {
        AudioBook::State state;
        state.read_position = Text(st, 7);
        state.read_percents = st.column_int(8);
        state.last_read_ts = static_cast<int64_t>(st.column_int(9));
        book->setState(state);
    }
    return book;
}

}  // namespace

std::vector<std::shared_ptr<AudioBook>> AudioBooksManager::getAudioBooks(Order order) {
    std::vector<std::shared_ptr<AudioBook>> result;
    const std::string sql =
        std::string(
            " SELECT b.id, b.type, b.title, b.artist, b.genre, b.duration, s.book_id, "
            "s.read_position, s.read_percents, s.last_read_ts ") +
        " FROM audiobooks b LEFT OUTER JOIN book_state s ON s.book_id = b.id" + OrderClause(order);
    std::unique_ptr<Statement> st = db_.prepare(sql);
    QV_RETURN_IF(!st.get(), result);
    while (st->step() == SQLITE_ROW) {
        if (auto book = ReadBook(*st)) result.push_back(std::move(book));
    }
    return result;
}

std::vector<AudioBook::Chapter> AudioBooksManager::getBookChapters(int64_t bookId) {
    std::vector<AudioBook::Chapter> result;
    std::unique_ptr<Statement> st = db_.prepare(
        std::string(" SELECT ch.no, ch.start_position, ch.end_position, ch.title, file.filename, "
                    "folder.name ") +
        " FROM chapters ch INNER JOIN files file ON ch.file_id = file.id INNER JOIN folders "
        "folder " +
        " ON folder.id = file.folder_id " + " WHERE ch.book_id = ? ORDER BY ch.no ASC ");
    QV_RETURN_IF(!st.get(), result);
    int err = st->bind(1, static_cast<long long>(bookId));
    QV_RETURN_IF(err, result);
    while (st->step() == SQLITE_ROW) {
        AudioBook::Chapter chapter;
        chapter.no = st->column_int(0);
        chapter.start_position = st->column_int(1);
        chapter.end_position = st->column_int(2);
        chapter.title = Text(*st, 3);
        chapter.path = Text(*st, 5) + "/" + Text(*st, 4);
        result.push_back(std::move(chapter));
    }
    return result;
}

bool AudioBooksManager::isFileAlreadyAdded(const std::string& path) {
    const int64_t storageId = StorageHelper(db_).GetStorageByPath(path);
    const SplitPath split = SplitAtLastSlash(path);
    std::unique_ptr<Statement> st =
        db_.prepare(std::string(" SELECT f.id FROM files f, folders ") +
                    " WHERE folders.storageid = ? AND folders.name = ? AND f.folder_id = "
                    "folders.id AND f.filename = ?");
    QV_RETURN_IF(!st.get(), false);
    st->bind_all(static_cast<long long>(storageId), split.folder, split.name);
    return st->step() == SQLITE_ROW && st->column_int64(0) > 0;
}

std::string AudioBooksManager::getFolderFromPath(const std::string& path) {
    return SplitAtLastSlash(path).folder;
}

std::vector<AudioBooksManager::AudioBookmark> AudioBooksManager::getBookmarks(int64_t bookId) {
    std::vector<AudioBookmark> result;
    std::unique_ptr<Statement> st =
        db_.prepare(std::string(" SELECT b.id, b.position, b.location, b.title, b.note ") +
                    " FROM bookmarks b " + " WHERE b.book_id = ? ORDER BY b.position ASC ");
    QV_RETURN_IF(!st.get(), result);
    int err = st->bind(1, static_cast<long long>(bookId));
    QV_RETURN_IF(err, result);
    while (st->step() == SQLITE_ROW) {
        AudioBookmark bookmark;
        bookmark.id = st->column_int(0);
        bookmark.position = st->column_int(1);
        bookmark.location = Text(*st, 2);
        bookmark.title = Text(*st, 3);
        bookmark.note = Text(*st, 4);
        result.push_back(std::move(bookmark));
    }
    return result;
}

}  // namespace audio
}  // namespace quorvel
