// qvtool audiobooks ...: the audiobook library of the device, through AudioBooksManager, as the
// audiobook and player applications share it.

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "audiobook_lookup.h"
#include "cli.h"
#include "common_utilities/audio/audio_books_manager.h"
#include "common_utilities/old_zip/qv_zip_manager.h"
#include "progress.h"
#include "table.h"

namespace qvtool {
namespace {

using quorvel::audio::AudioBook;
using quorvel::audio::AudioBooksManager;
using Bookmark = AudioBooksManager::AudioBookmark;

const char* KindName(AudioBook::AudioBookType type) {
    switch (type) {
        case AudioBook::EmptyType:
            return "empty";
        case AudioBook::M4bType:
            return "m4b";
        case AudioBook::Mp3Type:
            return "mp3";
        case AudioBook::Mp3ZipType:
            return "zip";
    }
    return "?";
}

AudioBook::AudioBookType ParseKind(const std::string& word) {
    for (auto type :
         {AudioBook::EmptyType, AudioBook::M4bType, AudioBook::Mp3Type, AudioBook::Mp3ZipType}) {
        if (word == KindName(type)) return type;
    }
    throw Failure(kUsage, "unknown kind " + word + " (mp3, m4b, zip or empty)");
}

std::string LastRead(int64_t timestamp) {
    if (timestamp == 0) return "-";
    const std::time_t when = static_cast<std::time_t>(timestamp);
    std::tm local{};
    localtime_r(&when, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &local);
    return text;
}

// ---- audiobooks list ------------------------------------------------------------------------

AudioBooksManager::Order ParseOrder(const std::string& word) {
    if (word == "title") return AudioBooksManager::OrderByTitle;
    if (word == "artist") return AudioBooksManager::OrderByArtist;
    if (word == "duration") return AudioBooksManager::OrderByDuration;
    if (word == "last") return AudioBooksManager::OrderByLastRead;
    throw Failure(kUsage, "unknown order " + word + " (title, artist, duration or last)");
}

int RunList(Args& args) {
    auto order = ParseOrder(args.Option("--order").value_or("title"));
    args.Done();
    AudioBooksManager library;
    auto books = library.getAudioBooks(order);
    Table table({"ID", "KIND", "TITLE", "AUTHOR", "GENRE", "DURATION", "READ", "LAST READ"});
    for (const auto& book : books) {
        const AudioBook::State state = book->getState();
        const bool read = state.last_read_ts != 0 || !state.read_position.empty();
        table.AddRow({std::to_string(book->getId()), KindName(book->getType()), book->getTitle(),
                      book->getAuthor(), book->getGenre(), Clock(book->getDuration()),
                      read ? std::to_string(state.read_percents) + "%" : "-",
                      LastRead(state.last_read_ts)});
    }
    table.Print(std::cout);
    std::cout << "(" << books.size() << (books.size() == 1 ? " book" : " books") << ")\n";
    return kOk;
}

// ---- audiobooks show ------------------------------------------------------------------------

// A plain file, or a member of an archive in the "<archive>:#zip(<entry>)" form.
bool FileExists(const std::string& path) {
    const size_t marker = path.find(":#zip(");
    if (marker == std::string::npos) {
        struct stat info {};
        return ::stat(path.c_str(), &info) == 0;
    }
    const size_t begin = marker + 6;
    if (path.size() <= begin || path.back() != ')') return false;
    quorvel::QVZipManager zip;
    return zip.Open(path.substr(0, marker), path.substr(begin, path.size() - begin - 1)) ==
           quorvel::QVZM_OK;
}

void PrintFiles(const AudioBook& book) {
    std::vector<std::string> paths;
    for (const auto& chapter : book.getChapters()) {
        if (std::find(paths.begin(), paths.end(), chapter.path) == paths.end())
            paths.push_back(chapter.path);
    }
    std::cout << "\nFiles (" << FormatBytes(static_cast<double>(book.getBookSize()))
              << " on the device):\n";
    Table table({"FILE", "PRESENT"});
    for (const auto& path : paths)
        table.AddRow({path, FileExists(path) ? "yes" : "no"});
    table.Print(std::cout);
}

void PrintChapters(const AudioBook& book) {
    std::cout << "\nChapters:\n";
    Table table({"NO", "TITLE", "START", "END", "IN BOOK", "PATH"});
    const auto chapters = book.getChapters();
    for (unsigned i = 0; i < chapters.size(); ++i) {
        const auto& chapter = chapters[i];
        const auto place = book.getChapterPlayInfo(i);
        table.AddRow({std::to_string(chapter.no), chapter.title,
                      Clock(chapter.start_position / 1000), Clock(chapter.end_position / 1000),
                      Clock(book.getPositionInBook(place.track, place.position)), chapter.path});
    }
    table.Print(std::cout);
}

void PrintState(const AudioBook& book) {
    const AudioBook::State state = book.getState();
    std::cout << "\nState: ";
    if (state.read_position.empty() && state.last_read_ts == 0) {
        std::cout << "never read\n";
        return;
    }
    const auto place = book.locationToPosition(state.read_position);
    std::cout << state.read_percents << "% read, at "
              << Clock(book.getPositionInBook(place.track, place.position)) << " (track "
              << place.track << ", " << Clock(place.position) << "), last read "
              << LastRead(state.last_read_ts) << "\n       " << state.read_position << "\n";
}

void PrintBookmarks(const std::vector<Bookmark>& bookmarks) {
    std::cout << "\nBookmarks:\n";
    Table table({"ID", "POSITION", "TITLE", "NOTE", "LOCATION"});
    for (const auto& bookmark : bookmarks) {
        table.AddRow({std::to_string(bookmark.id), Clock(bookmark.position), bookmark.title,
                      bookmark.note, bookmark.location});
    }
    table.Print(std::cout);
}

int RunShow(Args& args) {
    long long id = ParseId(args, "book");
    args.Done();
    AudioBooksManager library;
    BookPtr book = LoadBook(library, id);
    std::cout << "Book " << id << " (" << KindName(book->getType()) << "): " << book->getTitle()
              << "\nAuthor: " << book->getAuthor() << "\nGenre: " << book->getGenre()
              << "\nDuration: " << Clock(book->getDuration()) << "\n";
    PrintFiles(*book);
    PrintChapters(*book);
    PrintState(*book);
    PrintBookmarks(library.getBookmarks(id));
    return kOk;
}

// ---- audiobooks add -------------------------------------------------------------------------

// "PATH|START|END[|TITLE]", times in seconds or h:mm:ss.
AudioBook::Chapter ParseChapter(const std::string& text, int32_t no) {
    std::vector<std::string> fields;
    std::istringstream in(text);
    std::string field;
    while (std::getline(in, field, '|'))
        fields.push_back(field);
    if (fields.size() < 3 || fields.size() > 4 || fields[0].empty())
        throw Failure(kUsage, "a chapter is PATH|START|END[|TITLE], not '" + text + "'");
    AudioBook::Chapter chapter;
    chapter.no = no;
    chapter.path = fields[0];
    const long long start = ParseSeconds(fields[1], "chapter start");
    const long long end = ParseSeconds(fields[2], "chapter end");
    if (end < start || end > INT32_MAX / 1000)
        throw Failure(kUsage,
                      "chapter " + std::to_string(no) + " ends before it starts, or too late");
    chapter.start_position = static_cast<int32_t>(start * 1000);
    chapter.end_position = static_cast<int32_t>(end * 1000);
    if (fields.size() == 4) chapter.title = fields[3];
    return chapter;
}

// An m4b book lasts to its last chapter's end, the others as long as their chapters together.
int32_t BookDuration(const AudioBook& book) {
    int64_t duration = 0;
    const auto chapters = book.getChapters();
    for (unsigned i = 0; i < chapters.size(); ++i) {
        if (book.getType() == AudioBook::M4bType)
            duration = std::max<int64_t>(duration, chapters[i].end_position / 1000);
        else
            duration += book.getChapterDuration(i);
    }
    return static_cast<int32_t>(std::min<int64_t>(duration, INT32_MAX));
}

long long NewestBookId(AudioBooksManager& library) {
    long long newest = 0;
    for (const auto& book : library.getAudioBooks(AudioBooksManager::OrderByTitle))
        newest = std::max<long long>(newest, book->getId());
    return newest;
}

int RunAdd(Args& args) {
    const auto author = args.Option("--author").value_or("");
    const auto genre = args.Option("--genre").value_or("");
    const auto chapters = args.Options("--chapter");
    const auto kind = ParseKind(args.Next("KIND"));
    const auto title = args.Next("TITLE");
    args.Done();
    BookPtr book = AudioBook::factory(kind);
    book->setTitle(title);
    book->setAuthor(author);
    book->setGenre(genre);
    for (size_t i = 0; i < chapters.size(); ++i)
        book->addChapter(ParseChapter(chapters[i], static_cast<int32_t>(i + 1)));
    book->setDuration(BookDuration(*book));

    AudioBooksManager library;
    if (library.addAudioBook(book) != QV_OK)
        throw Failure(kFailed, "could not store the book (see --verbose)");
    const long long id = NewestBookId(library);
    const size_t stored = library.getBookChapters(id).size();
    std::cout << "added book " << id << ": " << title << " (" << stored << " of " << chapters.size()
              << " chapters)\n";
    if (stored != chapters.size()) throw Failure(kFailed, "some chapters were not stored");
    return kOk;
}

// ---- audiobooks state, bookmark, rm ---------------------------------------------------------

// A location as it stands ("<file>:#loc(<s>)"), or a time in the book turned into one.
std::string ToLocation(const AudioBook& book, const std::string& text) {
    if (text.find(":#loc(") != std::string::npos) return text;
    const auto place = book.getPositionInTrack(ParseSeconds(text, "position"));
    std::string location = book.positionToLocation(place.track, place.position);
    if (location.empty()) throw Failure(kUsage, "the book has no place " + text);
    return location;
}

int RunState(Args& args) {
    long long id = ParseId(args, "book");
    const std::string where = args.Next("LOCATION");
    const long long percent = ParseInteger(args.Next("PERCENT"), "PERCENT");
    args.Done();
    if (percent < 0 || percent > 100) throw Failure(kUsage, "PERCENT must be 0 to 100");
    AudioBooksManager library;
    BookPtr book = LoadBook(library, id);
    AudioBook::State state;
    state.read_position = ToLocation(*book, where);
    state.read_percents = static_cast<int32_t>(percent);
    state.last_read_ts = static_cast<int64_t>(std::time(nullptr));
    if (library.setState(id, state) != QV_OK) throw Failure(kFailed, "could not save the state");
    std::cout << "book " << id << " at " << state.read_position << ", " << percent << "%\n";
    return kOk;
}

int RunBookmarkAdd(Args& args) {
    Bookmark bookmark;
    bookmark.title = args.Option("--title").value_or("");
    bookmark.note = args.Option("--note").value_or("");
    long long id = ParseId(args, "book");
    const std::string where = args.Next("POSITION");
    args.Done();
    AudioBooksManager library;
    BookPtr book = LoadBook(library, id);
    bookmark.location = ToLocation(*book, where);
    const auto place = book->locationToPosition(bookmark.location);
    bookmark.position = book->getPositionInBook(place.track, place.position);
    if (library.addBookmark(id, bookmark) != QV_OK)
        throw Failure(kFailed, "could not add the bookmark");
    std::cout << "bookmark at " << Clock(bookmark.position) << " in book " << id << "\n";
    return kOk;
}

// The bookmark and the book it belongs to; kNotFound when no book has it.
std::pair<long long, Bookmark> FindBookmark(AudioBooksManager& library, long long bookmark_id) {
    for (const auto& book : library.getAudioBooks(AudioBooksManager::OrderByTitle)) {
        for (const auto& bookmark : library.getBookmarks(book->getId())) {
            if (bookmark.id == bookmark_id) return {book->getId(), bookmark};
        }
    }
    throw Failure(kNotFound, "no bookmark " + std::to_string(bookmark_id));
}

int RunBookmarkEdit(Args& args) {
    auto title = args.Option("--title");
    auto note = args.Option("--note");
    long long bookmark_id = ParseId(args, "bookmark");
    args.Done();
    if (!title && !note) throw Failure(kUsage, "nothing to change: give --title or --note");
    AudioBooksManager library;
    Bookmark bookmark = FindBookmark(library, bookmark_id).second;
    if (title) bookmark.title = *title;
    if (note) bookmark.note = *note;
    if (library.editBookmark(bookmark) != QV_OK)
        throw Failure(kFailed, "could not change the bookmark");
    std::cout << "bookmark " << bookmark_id << " changed\n";
    return kOk;
}

int RunBookmarkRemove(Args& args) {
    long long bookmark_id = ParseId(args, "bookmark");
    args.Done();
    AudioBooksManager library;
    FindBookmark(library, bookmark_id);
    if (library.removeBookmark(static_cast<int>(bookmark_id)) != QV_OK)
        throw Failure(kFailed, "could not remove the bookmark");
    std::cout << "removed bookmark " << bookmark_id << "\n";
    return kOk;
}

int RunRemove(Args& args) {
    const bool files = args.Flag("--files");
    long long id = ParseId(args, "book");
    args.Done();
    AudioBooksManager library;
    BookPtr book = LoadBook(library, id);
    if (library.removeAudioBook(id) != QV_OK) throw Failure(kFailed, "could not remove the book");
    if (files) book->removeBookFromDevice();
    std::cout << "removed book " << id << (files ? " and its files" : "") << "\n";
    return kOk;
}

// ---- Registration ---------------------------------------------------------------------------

const bool registered_list = Register(
    {"audiobooks list", "list the audiobooks with their reading state",
     "usage: qvtool audiobooks list [--order title|artist|duration|last]\n"
     "Lists every book, those on a card that is away included. Orders compare bytes (\"Z\"\n"
     "before \"a\"); \"last\" puts the latest read first and the books never read last.\n",
     RunList});

const bool registered_show = Register(
    {"audiobooks show", "one book: files, chapters, state and bookmarks",
     "usage: qvtool audiobooks show ID\n"
     "Shows the book ID with its files (and whether they are on the device), its chapters with\n"
     "where each starts in the book, its reading state and its bookmarks; times as H:MM:SS.\n",
     RunShow});

const bool registered_add = Register(
    {"audiobooks add", "store a book with its chapters",
     "usage: qvtool audiobooks add mp3|m4b|zip|empty TITLE [--author A] [--genre G]\n"
     "                             [--chapter 'PATH|START|END[|TITLE]']...\n"
     "Stores a book of that kind, chapters numbered 1, 2, ... in the order given. START and END\n"
     "are seconds or h:mm:ss within the chapter's file: an mp3 book has one file per chapter\n"
     "(0 to its length), an m4b book one file for all, a zip book one member per chapter, its\n"
     "PATH written ARCHIVE:#zip(ENTRY). The files themselves are not read.\n",
     RunAdd});

const bool registered_state = Register(
    {"audiobooks state", "save where a book was left",
     "usage: qvtool audiobooks state ID LOCATION PERCENT\n"
     "Saves the reading state of book ID: LOCATION is a place in the book (seconds or h:mm:ss)\n"
     "or a location as stored (FILE:#loc(SECONDS)); PERCENT 0 to 100. The time of reading is "
     "now.\n",
     RunState});

const bool registered_bookmark_add = Register(
    {"audiobooks bookmark", "add, edit or remove bookmarks",
     "usage: qvtool audiobooks bookmark add ID POSITION [--title T] [--note N]\n"
     "       qvtool audiobooks bookmark edit BOOKMARK [--title T] [--note N]\n"
     "       qvtool audiobooks bookmark rm BOOKMARK\n"
     "POSITION is a place in book ID (seconds or h:mm:ss) or a location FILE:#loc(SECONDS).\n"
     "A bookmark's place can't change; edit changes its title and note. BOOKMARK is the ID\n"
     "that audiobooks show lists.\n",
     [](Args& args) {
         const std::string action = args.Next("add|edit|rm");
         if (action == "add") return RunBookmarkAdd(args);
         if (action == "edit") return RunBookmarkEdit(args);
         if (action == "rm") return RunBookmarkRemove(args);
         throw Failure(kUsage, "unknown bookmark action " + action + " (add, edit or rm)");
     }});

const bool registered_remove = Register(
    {"audiobooks rm", "remove a book from the library",
     "usage: qvtool audiobooks rm ID [--files]\n"
     "Removes book ID with its files' rows, chapters, state and bookmarks. Its audio files stay\n"
     "on the device unless --files is given.\n",
     RunRemove});

}  // namespace
}  // namespace qvtool
