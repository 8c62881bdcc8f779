// The audiobook library: one SQLite file, "/mnt/ext1/system/config/audiobooks/audiobooks.db",
// shared by the audiobook and player applications, that keeps the books, the files they use,
// their chapters, one reading state per book and bookmarks.
//
// Paths are stored split at their last "/" into a folder row (per storage) and a file name, the
// zip form included: "/m/b.zip:#zip(d/01.mp3)" is folder "/m/b.zip:#zip(d" and name "01.mp3)".
// Every write and lookup splits alike, and reading joins with "/", so a path comes back as it was
// given.
//
// Nothing here runs in a transaction: a book is written row by row, and a chapter that the
// database refuses (a second chapter with the same number) is lost without a word. Lists show
// every book, those on a card that is away included.
//
// A manager holds no lock; use it from one thread at a time. Several processes share the file,
// each statement committing by itself, kept apart by SQLite's locks and the busy rule.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "common_utilities/audio/audio_book.h"
#include "common_utilities/common_utilities.h"
#include "common_utilities/db_manager_helper.h"
#include "common_utilities/media_library_manager.h"
#include "common_utilities/qv_sqlite.h"

namespace quorvel {
namespace utilities {
class IPlayer;
}
namespace audio {

class QV_EXPORT AudioBooksManager {
public:
    struct AudioBookmark {
        int32_t id = 0;
        int32_t position = 0;  // seconds in the book, as the caller gave it
        std::string location;  // "<file>:#loc(<seconds>)"
        std::string title;
        std::string note;
    };

    // Any other value lists in the database's own order. Orders compare bytes, not language.
    enum Order : int {
        OrderByTitle = 0,
        OrderByArtist = 1,
        OrderByDuration = 2,
        OrderByLastRead = 3,  // latest first, the books never read last
    };

    // The statements that create the file, in order. The one of book_state has no IF NOT EXISTS:
    // it runs only when the file is made.
    static const std::vector<std::string> schema_statements_audiobooks;

    // Opens the file, creating, upgrading or replacing it as needed, and opens the media library
    // too (tag reading needs its code page). Never fails: a manager whose database could not be
    // opened answers with failures and empty lists.
    AudioBooksManager();
    ~AudioBooksManager();
    AudioBooksManager(const AudioBooksManager&) = delete;
    AudioBooksManager& operator=(const AudioBooksManager&) = delete;

    // After a card went in or out.
    void updateStorageIds();

    // The book and its chapters; the new id is neither written back nor reported (the largest id
    // of `getAudioBooks` is it). No state row is made. A failed bind throws SqliteError.
    int addAudioBook(const std::shared_ptr<AudioBook>& book);
    // QV_OK, QV_FAILED or SQLite's code of the failing step. A file already there is no error.
    int addFile(int64_t bookId, const std::string& path);
    // Adds the chapter's file first.
    int addChapter(int64_t bookId, const AudioBook::Chapter& chapter);
    // Replaces the book's one state row.
    int setState(int64_t bookId, const AudioBook::State& state);
    // The book's rows in every table; folders and the audio files stay. On a failure the rows
    // deleted before it stay deleted.
    int removeAudioBook(int64_t bookId);

    // Books with their states, without chapters: fill those with setChapters(getBookChapters(id))
    // before converting places. Rows of an unknown type are left out.
    std::vector<std::shared_ptr<AudioBook>> getAudioBooks(Order order);
    // Ordered by number; a chapter whose file row is gone is left out.
    std::vector<AudioBook::Chapter> getBookChapters(int64_t bookId);
    // Whether any book uses the file.
    bool isFileAlreadyAdded(const std::string& path);
    // What precedes the last "/", or "".
    std::string getFolderFromPath(const std::string& path);

    // Position and location are fixed once added; edit changes title and note only.
    int addBookmark(int64_t bookId, const AudioBookmark& bookmark);
    int editBookmark(const AudioBookmark& bookmark);
    int removeBookmark(int id);
    // Ordered by position.
    std::vector<AudioBookmark> getBookmarks(int64_t bookId);

    // ---- Discovery -----------------------------------------------------------------------------
    // Offer each file of a batch with addAudioBookByPath, then call createMp3AudioBooks once.
    //
    // An ".m4b"/".m4a" file is a book by itself, written at once with the chapters the audio
    // engine reports. ".mp3" and ".ogg" files wait in groups by artist and album (across folders;
    // the file's siblings with the same extension and tags join at once), and the ".mp3" members
    // of a ".zip" wait as one group per archive. Files a stored book already uses are passed
    // over. Without the audio engine plug-in every file fails. QV_OK or QV_FAILED.
    int addAudioBookByPath(const std::string& path);
    // Adds to group `key` the files of `folder` (not its subfolders) that end in `extension`
    // and have the group's artist and album.
    void scanDirectoryForOtherChapters(const std::string& folder, const std::string& key,
                                       const std::string& extension);
    // Each waiting group becomes a book: chapters in track-number order when every track has a
    // distinct number of at least 1, otherwise by path and numbered from 1. The groups are
    // dropped afterwards, also those whose book could not be written.
    void createMp3AudioBooks();

private:
    int AddContainerBook(utilities::IPlayer& player, const std::string& path);
    int AddZipMembers(const std::string& path);

    utilities::DbManagerHelper db_helper_;
    utilities::Sqlite db_;
    std::vector<int64_t> storage_ids_;
    utilities::MediaLibraryManager media_library_;
    // Tracks waiting to become books, by group key.
    std::map<std::string, std::vector<utilities::MediaLibraryManager::Track>> pending_tracks_;
};

}  // namespace audio
}  // namespace quorvel
