// The text of a configuration file and its safe reading and writing between processes.
//
// Form: UTF-8 lines "key=value". The key is the text before the first "=", without surrounding
// blanks; the value is everything after it, verbatim (a trailing CR of a CRLF file excepted).
// Lines without "=" (comments, blanks) are kept as they are when the file is rewritten, and so is
// the order of the entries. When a key stands twice, the last one counts.
//
// Values that a line can't hold verbatim (line breaks) are written as "$qvx$" and the hex of
// their bytes; secrets as "$qvs$" and the hex of their bytes masked with a fixed pattern. The
// mask only keeps secrets out of plain sight in the file: the host has no secure element, and
// this is no encryption.
//
// Saving. Readers of another process must never see half a file, and watchers of the file
// (inotify IN_MODIFY on its inode) must hear of every save, so the file is rewritten in place,
// not replaced by a rename. To make that safe:
//  1. the saver holds an exclusive flock on the file for the whole save, and readers a shared
//     one while they read, so a live save is never read half-done;
//  2. before touching the file, the saver writes the complete new text to a journal,
//     "<file>.saving", through a temporary file and a rename, so the journal exists only whole;
//  3. it then truncates and rewrites the file, syncs it, and removes the journal.
// A save killed at step 3 leaves the journal: readers take the journal's text instead of the
// file's, and the next save finishes the job. So a reader sees the old text or the new, whole.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace qvhost {

enum class ValueKind { kPlain, kSecret };

struct ConfigValue {
    std::string text;  // decoded
    ValueKind kind = ValueKind::kPlain;
};

class ConfigDocument {
public:
    static ConfigDocument Parse(const std::string& text);
    std::string Render() const;

    // Calls `visit` for every entry in file order. Of a key that stands twice only the last
    // occurrence counts, and only it is kept when the document is rendered again.
    void ForEach(
        const std::function<void(const std::string& key, const ConfigValue&)>& visit) const;
    void Set(const std::string& key, const ConfigValue& value);
    void Remove(const std::string& key);

private:
    struct Line {
        std::string key;  // empty for a line that holds no entry
        std::string raw;  // the value as written, or the whole line when there is no entry
        bool removed = false;
    };
    void Add(Line line);

    std::vector<Line> lines_;
    std::unordered_map<std::string, size_t> index_;  // key -> its live line
};

// A key a file can hold: not empty, no "=", no line break, no blank at either end.
bool IsValidKey(const std::string& key);

// Reads the file's current text under a shared lock; a missing or unreadable file is empty.
std::string LoadConfigText(const std::string& path);

// Re-reads the file under an exclusive lock, lets `edit` change it, and writes it back as told
// above when the text changed. Gives the text now in the file, or nothing when it couldn't be
// written.
std::optional<std::string> SaveConfigText(const std::string& path,
                                          const std::function<void(ConfigDocument&)>& edit);

}  // namespace qvhost
