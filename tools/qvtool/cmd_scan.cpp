// qvtool scan: what a player application does with the storages. Every audio file goes into the
// media library with the tags read from it; books are offered to the audiobook library, which
// groups them, and are made in one batch at the end.

#include <dirent.h>
#include <signal.h>
#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <iostream>
#include <set>
#include <string>
#include <vector>

#include "cli.h"
#include "common_utilities/audio/audio_books_manager.h"
#include "common_utilities/media_library_manager.h"
#include "interrupt_guard.h"
#include "progress.h"

namespace qvtool {
namespace {

using quorvel::audio::AudioBooksManager;
using quorvel::utilities::MediaLibraryManager;
using Track = MediaLibraryManager::Track;

// What the tag reader understands.
const std::set<std::string> kAudio = {".mp3", ".ogg", ".oga", ".opus", ".flac", ".m4a", ".m4b",
                                      ".mp4", ".wav", ".aif", ".aiff", ".wma", ".ape", ".wv"};
// Books by their nature, wherever they lie.
const std::set<std::string> kAlwaysBooks = {".m4b", ".zip"};
// Books when they lie in a folder given with --books.
const std::set<std::string> kBookParts = {".mp3", ".ogg", ".m4a"};

std::string Extension(const std::string& path) {
    size_t dot = path.rfind('.');
    if (dot == std::string::npos || path.find('/', dot) != std::string::npos) return "";
    std::string ext = path.substr(dot);
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return ext;
}

bool IsUnder(const std::string& path, const std::string& folder) {
    return path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 &&
           (folder.back() == '/' || path[folder.size()] == '/');
}

std::string WithoutTrailingSlash(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

// An audio file found by the walk, with the size its stat gave: one stat per file is enough.
struct Found {
    std::string path;
    int32_t size;
};

// Files below `folder` in name order, hidden names and the system folder left out.
void Walk(const std::string& folder, std::vector<Found>& files) {
    if (::strncasecmp(folder.c_str(), "/mnt/ext1/system", 16) == 0) return;
    DIR* dir = ::opendir(folder.c_str());
    if (!dir) return;
    std::vector<std::string> names;
    while (const dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
    }
    ::closedir(dir);
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
        std::string path = folder + "/" + name;
        struct stat st {};
        if (::stat(path.c_str(), &st) != 0) continue;
        if (S_ISDIR(st.st_mode)) {
            Walk(path, files);
        } else if (S_ISREG(st.st_mode)) {
            std::string ext = Extension(path);
            if (kAudio.count(ext) || kAlwaysBooks.count(ext))
                files.push_back({std::move(path), static_cast<int32_t>(st.st_size)});
        }
    }
}

struct Counts {
    size_t added = 0;
    size_t present = 0;
    size_t unreadable = 0;
    size_t offered = 0;
    size_t refused = 0;
};

class Scanner {
public:
    Scanner(std::vector<std::string> book_folders, bool with_books)
        : book_folders_(std::move(book_folders)), with_books_(with_books) {
        for (auto& track : library_.getTracks(MediaLibraryManager::ByFilename,
                                              MediaLibraryManager::GroupNone, "", false))
            stored_.insert(std::move(track.path));
        if (with_books_) books_before_ = books().getAudioBooks(AudioBooksManager::OrderByTitle).size();
    }

    void Scan(const Found& file) {
        std::string ext = Extension(file.path);
        if (kAudio.count(ext)) AddToLibrary(file);
        if (with_books_ && IsBook(file.path, ext)) OfferBook(file.path);
    }

    // The waiting albums become books; the count of books the scan made.
    size_t FinishBooks() {
        if (!with_books_) return 0;
        books().createMp3AudioBooks();
        return books().getAudioBooks(AudioBooksManager::OrderByTitle).size() - books_before_;
    }

    const Counts& counts() const { return counts_; }

private:
    bool IsBook(const std::string& path, const std::string& ext) const {
        if (kAlwaysBooks.count(ext)) return true;
        if (!kBookParts.count(ext)) return false;
        return std::any_of(book_folders_.begin(), book_folders_.end(),
                           [&](const std::string& folder) { return IsUnder(path, folder); });
    }

    void AddToLibrary(const Found& file) {
        const std::string& path = file.path;
        if (stored_.count(path)) {
            ++counts_.present;
            return;
        }
        Track track(path.c_str(), "");
        MediaLibraryManager::getFileTags(track);
        if (!track.tags_read) {
            ++counts_.unreadable;
            std::cerr << "\nqvtool: scan: " << path << ": tags could not be read; skipped\n";
            return;
        }
        track.size = file.size;
        if (library_.addTrack(track) != QV_OK) {
            ++counts_.unreadable;
            std::cerr << "\nqvtool: scan: " << path << ": could not be stored (see --verbose)\n";
            return;
        }
        stored_.insert(path);
        ++counts_.added;
    }

    void OfferBook(const std::string& path) {
        ++counts_.offered;
        if (books().addAudioBookByPath(path) == QV_OK) return;
        ++counts_.refused;
        std::cerr << "\nqvtool: scan: " << path << ": not taken as an audiobook"
                  << (Extension(path) == ".m4b" || Extension(path) == ".m4a"
                          ? " (the audio engine could not open it)\n"
                          : "\n");
    }

    // Opened only when books are wanted: a scan of music alone leaves that library alone.
    AudioBooksManager& books() {
        if (!books_) books_ = std::make_unique<AudioBooksManager>();
        return *books_;
    }

    MediaLibraryManager library_;
    std::unique_ptr<AudioBooksManager> books_;
    std::set<std::string> stored_;
    std::vector<std::string> book_folders_;
    bool with_books_;
    size_t books_before_ = 0;
    Counts counts_;
};

int RunScan(Args& args) {
    std::vector<std::string> book_folders;
    for (const std::string& folder : args.Options("--books"))
        book_folders.push_back(WithoutTrailingSlash(folder));
    bool with_books = !args.Flag("--no-books");
    std::vector<std::string> roots = args.Rest();
    if (roots.empty()) throw Failure(kUsage, "no DIR given");
    std::vector<Found> files;
    for (std::string root : roots) {
        root = WithoutTrailingSlash(root);
        struct stat st {};
        if (::stat(root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
            throw Failure(kNotFound, root + ": no such directory");
        Walk(root, files);
    }

    Scanner scanner(book_folders, with_books);
    InterruptGuard guard;
    Progress progress("scanning", files.size());
    size_t done = 0;
    for (const Found& file : files) {
        if (InterruptGuard::Interrupted()) break;
        scanner.Scan(file);
        progress.Update(++done);
    }
    progress.Finish();
    size_t made = InterruptGuard::Interrupted() ? 0 : scanner.FinishBooks();

    const Counts& counts = scanner.counts();
    std::cout << "scanned " << done << " of " << files.size() << " files: " << counts.added
              << " added to the media library, " << counts.present << " there already, "
              << counts.unreadable << " unreadable\n";
    if (with_books) {
        std::cout << "audiobooks: " << counts.offered << " files offered, " << counts.refused
                  << " refused, " << made << " new books\n";
    }
    if (InterruptGuard::Interrupted()) throw Failure(kInterrupted, "interrupted; no books were made");
    return counts.unreadable + counts.refused > 0 ? kFailed : kOk;
}

const bool registered_scan = Register(
    {"scan", "bring the audio files of folders into the media and audiobook libraries",
     "usage: qvtool scan [--books DIR]... [--no-books] DIR...\n"
     "Walks each DIR and everything below it (names beginning with \".\" and the system folder\n"
     "left out) as the player does: every audio file (.mp3, .ogg, .flac, .m4a, .m4b, ...) is\n"
     "read for its tags and stored in the media library, unless it is there already. .m4b\n"
     "files and .zip archives anywhere, and .mp3, .ogg and .m4a files below a folder given with\n"
     "--books, are offered to the audiobook library: an .m4b is a book with the chapters the\n"
     "audio engine reports, the files of one artist and album become one book, an archive one\n"
     "book of its .mp3 members. --no-books leaves the audiobook library alone.\n"
     "A progress line shows on the standard error stream, with a line for each file that could\n"
     "not be read; the scan goes on and ends with a summary. Exit code 1 when some file could not\n"
     "be read or taken, 3 when a DIR does not exist, 130 when interrupted (tracks stored so far\n"
     "stay; no books are made).\n",
     RunScan});

}  // namespace
}  // namespace qvtool
