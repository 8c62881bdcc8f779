// An audiobook: one logical book over one or more audio files, with chapters, a reading state and
// the conversions a player needs between its two coordinates, the position in the whole book and
// (track, position in the track), and the text form of a saved place.
//
// Two path forms travel as plain text and are produced and parsed exactly:
//  - a file inside a zip archive: "<archive>:#zip(<entry>)";
//  - a saved place ("location"): "<file path>:#loc(<seconds>)", the file path possibly in the zip
//    form.
//
// Positions are whole seconds everywhere except in Chapter, whose positions are milliseconds;
// every conversion truncates. The kinds differ only in how a book position maps to a file:
// M4bBook (one file, chapters inside it), Mp3Book (one file per chapter), Mp3ZipBook (one file
// per chapter, all inside one archive) and EmptyBook (no content).
//
// Books are plain values behind shared pointers, used from one thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common_utilities/common_utilities.h"
#include "common_utilities/media_library_manager.h"

namespace quorvel {
namespace audio {

class QV_EXPORT AudioBook {
public:
    // Stored in the database as these numbers.
    enum AudioBookType : int {
        EmptyType = 1,
        M4bType = 2,
        Mp3Type = 3,
        Mp3ZipType = 4,
    };

    struct Chapter {
        int32_t no = -1;  // number within the book; -1 in the blank chapter
        std::string path;
        std::string title;
        int32_t start_position = 0;  // milliseconds from the start of the file
        int32_t end_position = 0;
    };

    struct State {
        std::string read_position;  // a location; empty if never read
        int32_t read_percents = 0;  // the application's, not interpreted here
        int64_t last_read_ts = 0;   // seconds since the epoch, as the caller gave it
    };

    struct PlayPosition {
        int32_t position = 0;  // seconds within the track
        int32_t track = 0;     // index of the track
    };

    using Track = utilities::MediaLibraryManager::Track;

    // A new, empty book of that kind; null for a number that is no kind.
    static std::shared_ptr<AudioBook> factory(AudioBookType type);

    virtual ~AudioBook();

    // The tracks a player plays, in order.
    virtual std::vector<Track> getBookPlaylist() const = 0;
    virtual int getChapterIndex(int track, int position) const = 0;
    virtual PlayPosition getChapterPlayInfo(unsigned index) const = 0;
    virtual std::string getBookPath() const = 0;
    // Deletes the book's files (never folders); true whatever the file system said.
    virtual bool removeBookFromDevice() = 0;
    virtual int getPositionInBook(int track, int position) const = 0;
    virtual PlayPosition getPositionInTrack(int position) const = 0;
    virtual std::string positionToLocation(int track, int position) const = 0;
    virtual PlayPosition locationToPosition(const std::string& location) const = 0;
    // Bytes on the device; files that can't be reached count 0.
    virtual int64_t getBookSize() const = 0;

    void setId(int64_t id) { id_ = id; }
    int64_t getId() const { return id_; }
    void setTitle(const std::string& title) { title_ = title; }
    std::string getTitle() const { return title_; }
    void setAuthor(const std::string& author) { author_ = author; }
    std::string getAuthor() const { return author_; }
    void setGenre(const std::string& genre) { genre_ = genre; }
    std::string getGenre() const { return genre_; }
    // Seconds, the whole book. Adding chapters does not change it.
    void setDuration(int32_t duration) { duration_ = duration; }
    int32_t getDuration() const { return duration_; }
    AudioBookType getType() const { return type_; }

    void addChapter(const Chapter& chapter) { chapters_.push_back(chapter); }
    void setChapters(std::vector<Chapter> chapters) { chapters_ = std::move(chapters); }
    std::vector<Chapter> getChapters() const { return chapters_; }
    // Out of range: the blank chapter, `no` -1.
    Chapter getChapter(unsigned index) const;
    // Seconds; 0 out of range.
    int getChapterDuration(unsigned index) const;

    void setState(const State& state) { state_ = state; }
    State getState() const { return state_; }

    // The share of the book before the place, between 0 and 1 (not a percentage). A book of
    // duration 0 gives what the division gives (infinity or NaN).
    float getBookPercents(int track, int position) const;

protected:
    explicit AudioBook(AudioBookType type) : type_(type) {}

    // "<path>:#loc(<position>)".
    static std::string MakeLocation(const std::string& path, int position);
    // Where the last ":#loc(" begins, or npos.
    static size_t FindLocationMarker(const std::string& location);
    static constexpr size_t kLocationMarkerLength = 6;
    // st_size of the file, 0 when it can't be reached.
    static int64_t FileSize(const std::string& path);

    bool IsTrackIndex(int track) const {
        return track >= 0 && static_cast<size_t>(track) < chapters_.size();
    }

    int64_t id_ = 0;
    std::string title_;
    std::string author_;
    std::string genre_;
    int32_t duration_ = 0;
    std::vector<Chapter> chapters_;
    State state_;
    AudioBookType type_;
};

}  // namespace audio
}  // namespace quorvel
