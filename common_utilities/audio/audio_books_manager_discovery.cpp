// Discovery: audio files offered by an application become books. An M4B or M4A file is a book
// on its own; MP3 and OGG files, and the MP3 members of a zip archive, wait in groups until the
// batch is done.

#include <dirent.h>
#include <strings.h>

#include <algorithm>
#include <list>
#include <set>

#include "common_utilities/audio/audio_books_manager.h"
#include "common_utilities/old_zip/qv_zip_manager.h"
#include "common_utilities/services/iplayer.h"

namespace quorvel {
namespace audio {
namespace {

using utilities::IPlayer;
using utilities::MediaLibraryManager;
using Track = MediaLibraryManager::Track;

constexpr const char* kZipGroupMarker = ":#zip(...)";
// The length of ".mp3.zip", cut from every archive's name to title a book without album tags.
constexpr size_t kZipSuffixLength = 8;

// One engine for the whole process, made at the first call and never destroyed; the static
// keeps concurrent first calls from loading the plug-in twice.
IPlayer* SharedPlayer() {
    static IPlayer* player = utilities::createPlayer();
    return player;
}

Track ReadTrack(const std::string& path) {
    Track track(path.c_str(), "");
    MediaLibraryManager::getFileTags(track);
    return track;
}

// Loose files of one artist and album are one book, wherever they lie.
std::string GroupKey(const Track& track) {
    auto year = track.metadata.find("year");
    return track.artist + "\t" + track.album + "\t" +
           (year == track.metadata.end() ? std::string() : year->second);
}

bool HasTrack(const std::vector<Track>& group, const std::string& path) {
    return std::any_of(group.begin(), group.end(),
                       [&](const Track& track) { return track.path == path; });
}

bool EndsWithIgnoringCase(const std::string& text, const std::string& tail) {
    return text.size() > tail.size() &&
           ::strcasecmp(text.c_str() + text.size() - tail.size(), tail.c_str()) == 0;
}

// Keeps the tags' numbers when every track has its own number from 1; otherwise orders by path
// and numbers from 1.
void NumberTracks(std::vector<Track>& group) {
    std::set<int32_t> seen;
    size_t counted = 0;
    for (const Track& track : group) {
        if (track.track_no < 1 || !seen.insert(track.track_no).second) break;
        ++counted;
    }
    if (counted == group.size()) {
        std::stable_sort(group.begin(), group.end(), [](const Track& a, const Track& b) {
            return a.track_no < b.track_no;
        });
        return;
    }
    std::stable_sort(group.begin(), group.end(),
                     [](const Track& a, const Track& b) { return a.path < b.path; });
    int32_t number = 1;
    for (Track& track : group) track.track_no = number++;
}

// Album, artist and genre over all members of an archive, each distinct value once, joined
// with ", ".
std::map<std::string, std::string> GatherZipFields(const std::vector<Track>& group) {
    std::map<std::string, std::string> fields;
    std::map<std::string, std::set<std::string>> seen;
    auto gather = [&](const char* field, const std::string& value) {
        if (value.empty() || !seen[field].insert(value).second) return;
        std::string& entry = fields[field];
        if (!entry.empty()) entry += ", ";
        entry += value;
    };
    for (const Track& track : group) {
        gather("title", track.album);
        gather("author", track.artist);
        gather("genre", track.genre);
    }
    return fields;
}

std::string TitleFromArchive(const std::string& key) {
    std::string archive = key.substr(0, key.rfind(kZipGroupMarker));
    std::string name = archive.substr(archive.rfind('/') + 1);
    if (name.size() >= kZipSuffixLength) name.resize(name.size() - kZipSuffixLength);
    return name;
}

std::shared_ptr<AudioBook> MakeBook(const std::string& key, const std::vector<Track>& group) {
    if (key.rfind(kZipGroupMarker) == std::string::npos) {
        auto book = AudioBook::factory(AudioBook::Mp3Type);
        const Track& first = group.front();
        book->setTitle(first.album.empty() ? first.title : first.album);
        book->setAuthor(first.artist);
        book->setGenre(first.genre);
        return book;
    }
    auto book = AudioBook::factory(AudioBook::Mp3ZipType);
    auto fields = GatherZipFields(group);
    book->setAuthor(fields["author"]);
    book->setGenre(fields["genre"]);
    book->setTitle(fields["title"].empty() ? TitleFromArchive(key) : fields["title"]);
    return book;
}

}  // namespace

int AudioBooksManager::addAudioBookByPath(const std::string& filepath) {
    const std::string& path = filepath;
    QV_RETURN_IF(filepath.size() <= 4, QV_FAILED, "Too short file path [%s]", filepath.c_str());
    IPlayer* player = SharedPlayer();
    QV_RETURN_UNLESS(player, QV_FAILED, "Can't create player");
    std::string extension = path.substr(path.size() - 4);
    const char* ext = extension.c_str();
    if (::strcasecmp(ext, ".m4b") == 0 || ::strcasecmp(ext, ".m4a") == 0) {
        return AddContainerBook(*player, path);
    }
    if (::strcasecmp(ext, ".mp3") == 0 || ::strcasecmp(ext, ".ogg") == 0) {
        if (isFileAlreadyAdded(path)) return QV_OK;
        Track track = ReadTrack(path);
        std::string key = GroupKey(track);
        std::vector<Track>& group = pending_tracks_[key];
        if (HasTrack(group, path)) return QV_OK;
        group.push_back(std::move(track));
        scanDirectoryForOtherChapters(getFolderFromPath(path), key, extension);
        return QV_OK;
    }
    if (::strcasecmp(ext, ".zip") == 0) return AddZipMembers(path);
    return QV_FAILED;
}

int AudioBooksManager::AddContainerBook(IPlayer& player, const std::string& path) {
    if (isFileAlreadyAdded(path)) return QV_OK;
    if (player.openFile(path) != 0) return QV_FAILED;
    Track track = ReadTrack(path);
    auto book = AudioBook::factory(AudioBook::M4bType);
    book->setTitle(track.title);
    book->setAuthor(track.artist);
    book->setGenre(track.genre);
    book->setDuration(track.duration);
    std::vector<AudioBook::Chapter> chapters = player.getChapters();
    if (chapters.empty()) {
        AudioBook::Chapter whole;
        whole.no = 1;
        whole.path = path;
        whole.title = book->getTitle();
        whole.start_position = 0;
        whole.end_position = book->getDuration() * 1000;
        book->addChapter(whole);
    }
    for (AudioBook::Chapter& chapter : chapters) {
        chapter.path = path;
        book->addChapter(chapter);
    }
    book->setState(AudioBook::State());
    addAudioBook(book);
    return QV_OK;
}

int AudioBooksManager::AddZipMembers(const std::string& path) {
    QVZipManager zip;
    if (zip.Open(path, "") != QVZM_OK) return QV_FAILED;
    std::list<std::string> entries;
    zip.GetFilesList(entries);
    for (const std::string& entry : entries) {
        if (!EndsWithIgnoringCase(entry, ".mp3")) continue;
        std::string member = path + ":#zip(" + entry + ")";
        if (isFileAlreadyAdded(member)) continue;
        pending_tracks_[path + kZipGroupMarker].push_back(ReadTrack(member));
    }
    return QV_OK;
}

void AudioBooksManager::scanDirectoryForOtherChapters(const std::string& folder,
                                                      const std::string& key,
                                                      const std::string& extension) {
    DIR* dir = ::opendir(folder.c_str());
    if (!dir) return;
    while (const dirent* entry = ::readdir(dir)) {
        if ((entry->d_type & 4) != 0 || !EndsWithIgnoringCase(entry->d_name, extension)) continue;
        // Whole, however long: a path cut short would name another file.
        const std::string full = folder + "/" + entry->d_name;
        std::vector<Track>& group = pending_tracks_[key];
        if (HasTrack(group, full)) continue;
        Track track = ReadTrack(full);
        if (GroupKey(track) == key) group.push_back(std::move(track));
    }
    ::closedir(dir);
}

void AudioBooksManager::createMp3AudioBooks() {
    for (auto& [key, group] : pending_tracks_) {
        if (group.empty()) continue;
        NumberTracks(group);
        auto book = MakeBook(key, group);
        book->setDuration(0);
        for (const Track& track : group) {
            book->setDuration(book->getDuration() + track.duration);
            AudioBook::Chapter chapter;
            chapter.no = track.track_no;
            chapter.path = track.path;
            chapter.title = track.title;
            chapter.start_position = 0;
            chapter.end_position = track.duration * 1000;
            book->addChapter(chapter);
        }
        addAudioBook(book);
    }
    pending_tracks_.clear();
}

}  // namespace audio
}  // namespace quorvel
