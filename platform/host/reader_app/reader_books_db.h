// The reading application's side of its notes database, for the host: on the device the reading
// application creates "/mnt/ext1/system/config/books.db" and writes books and notes into it; here
// tests, qvtool and the demo do it through these functions. They talk to SQLite directly, as that
// application does, never through libcommon_utilities.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <stdexcept>
#include <string>

namespace readerapp {

constexpr const char* kBooksDbPath = "/mnt/ext1/system/config/books.db";

// Thrown when a file can't be made or written; the message says which and why.
class Error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Creates the file with the application's schema (books, items, values of notes, and the
// indexes it looks things up by), in WAL mode. Throws when the file exists already.
void CreateBooksDatabase(const std::string& path = kBooksDbPath);

// A JSON object of one member in the styled multi-line form the application stores, ending in a
// line break: {"text" : "..."}.
std::string StyledJson(const std::string& key, const std::string& value);

struct SampleOptions {
    int books = 20;
    int notes = 200;  // spread over the books, a few deleted, some of them bookmarks
    uint32_t seed = 1;
    time_t newest = 1767225600;  // the most recent change; older ones reach back about a year
};

// Adds books and notes as the application would have stored them while the user read, in one
// transaction; the same options give the same file. `progress` hears the number of items
// written so far, now and then.
void AddSampleLibrary(const std::string& path, const SampleOptions& options,
                      const std::function<void(uint64_t)>& progress = {});

// The hashes the sample uses for book `index` and note `index`, so that callers can name them.
std::string SampleBookHash(uint32_t seed, int index);
std::string SampleNoteHash(uint32_t seed, int index);

}  // namespace readerapp
