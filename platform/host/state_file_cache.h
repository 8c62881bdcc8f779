// A key=value file of the host state directory, read again only when it changed.
//
// Some platform calls are made before every request (QueryNetwork): reading the file each time
// would cost more than the request's own bookkeeping. A stat() tells whether the file is still
// the one read last: setters replace it by a rename (see host_state.h), so a change always shows
// as a new inode or a new modification time.
#pragma once

#include <sys/stat.h>

#include <mutex>
#include <string>

#include "host_state.h"

namespace qvhost {

class StateFileCache {
public:
    explicit StateFileCache(std::string name) : name_(std::move(name)) {}

    // The value of `key`, or `fallback` when the file or the key is missing.
    std::string Get(const std::string& key, const std::string& fallback);
    int GetInt(const std::string& key, int fallback);
    // Sets (or removes, for null) a key for every process.
    void Set(const std::string& key, const char* value);
    std::string Path() const { return StatePath(name_); }

private:
    struct Signature {
        bool exists = false;
        dev_t device = 0;
        ino_t inode = 0;
        off_t size = 0;
        timespec mtime{};
        bool operator==(const Signature& other) const;
    };
    static Signature SignatureOf(const std::string& path);

    std::string name_;
    std::mutex mutex_;
    bool loaded_ = false;
    std::string loaded_path_;
    Signature signature_;
    KeyValues values_;
};

}  // namespace qvhost
