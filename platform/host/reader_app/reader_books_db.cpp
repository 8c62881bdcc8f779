#include "reader_books_db.h"

#include <json/json.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <vector>

namespace readerapp {
namespace {

const char* const kSchema[] = {
    "PRAGMA journal_mode = WAL",
    "CREATE TABLE Items (OID INTEGER PRIMARY KEY, ParentID INTEGER, TypeID INTEGER NOT NULL, "
    "State INTEGER NOT NULL DEFAULT 0, TimeAlt INTEGER NOT NULL DEFAULT 0, HashUUID TEXT)",
    "CREATE UNIQUE INDEX Items_HashUUID ON Items (HashUUID)",
    "CREATE INDEX Items_ParentID ON Items (ParentID)",
    "CREATE INDEX Items_TimeAlt ON Items (TimeAlt)",
    "CREATE TABLE Books (OID INTEGER PRIMARY KEY REFERENCES Items (OID), Title TEXT, Authors "
    "TEXT, TimeAdd INTEGER)",
    "CREATE TABLE Tags (ItemID INTEGER NOT NULL REFERENCES Items (OID), TagID INTEGER NOT NULL, "
    "Val, TimeEdt INTEGER, PRIMARY KEY (ItemID, TagID))",
};

using Db = std::unique_ptr<sqlite3, int (*)(sqlite3*)>;
using Stmt = std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)>;

Db Open(const std::string& path, int flags) {
    sqlite3* raw = nullptr;
    int rc = sqlite3_open_v2(path.c_str(), &raw, flags, nullptr);
    Db db(raw, sqlite3_close);
    if (rc != SQLITE_OK) throw Error(path + ": " + sqlite3_errstr(rc));
    sqlite3_busy_timeout(raw, 5000);
    return db;
}

void Exec(sqlite3* db, const std::string& sql) {
    char* message = nullptr;
    if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
        std::string text = message ? message : "unknown error";
        sqlite3_free(message);
        throw Error(sql + ": " + text);
    }
}

Stmt Prepare(sqlite3* db, const char* sql) {
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &raw, nullptr) != SQLITE_OK)
        throw Error(std::string(sql) + ": " + sqlite3_errmsg(db));
    return Stmt(raw, sqlite3_finalize);
}

// Binds the values from parameter 1, runs the statement once and makes it ready for the next.
void Bind(sqlite3_stmt* st, int index, long long value) {
    sqlite3_bind_int64(st, index, value);
}
void Bind(sqlite3_stmt* st, int index, const std::string& value) {
    sqlite3_bind_text(st, index, value.data(), static_cast<int>(value.size()), SQLITE_TRANSIENT);
}
struct Blob {
    std::string bytes;
};
void Bind(sqlite3_stmt* st, int index, const Blob& value) {
    sqlite3_bind_blob(st, index, value.bytes.data(), static_cast<int>(value.bytes.size()),
                      SQLITE_TRANSIENT);
}

template <typename... Values>
void Run(sqlite3* db, sqlite3_stmt* st, const Values&... values) {
    int index = 0;
    (Bind(st, ++index, values), ...);
    int rc = sqlite3_step(st);
    sqlite3_reset(st);
    if (rc != SQLITE_DONE) throw Error(std::string("writing the sample: ") + sqlite3_errmsg(db));
}

// A small deterministic generator: the same seed gives the same library on every machine.
class Random {
public:
    explicit Random(uint32_t seed) : state_(seed * 2654435761u + 1) {}
    uint32_t Next() {
        state_ = state_ * 1103515245u + 12345u;
        return state_ >> 8;
    }
    int Below(int bound) { return static_cast<int>(Next() % static_cast<uint32_t>(bound)); }

private:
    uint32_t state_;
};

// 32 hexadecimal digits that look random and are the same for the same key.
std::string Hex(uint64_t key) {
    auto mix = [](uint64_t x) {
        x += 0x9E3779B97F4A7C15ull;
        x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
        x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
        return x ^ (x >> 31);
    };
    char text[40];
    std::snprintf(text, sizeof text, "%016llX%016llX", static_cast<unsigned long long>(mix(key)),
                  static_cast<unsigned long long>(mix(~key)));
    return text;
}

uint64_t Key(uint32_t seed, int index, uint64_t kind) {
    return (kind << 62) ^ (static_cast<uint64_t>(seed) << 32) ^ static_cast<uint32_t>(index);
}

const char* const kTitles[] = {
    "The Lighthouse Keeper", "Снег над Ладогой", "Der Apfelgarten",   "A Year of Salt",
    "Øresund Nights",        "Paper Moons",      "Ёлка и ветер",      "Winter Orchard",
    "Straße der Lieder",     "Harbour Lights",   "The Quartz Garden", "Cedar and Ember",
};
const char* const kAuthors[] = {
    "Ada Marlow",      "Иван Северин", "Greta Holm", "Søren Dahl",
    "Lucía Fernández", "Mirela Cosma", "Tom Reed",   "Анна Белова",
};
const char* const kWords[] = {
    "river",  "lantern", "morning", "glass", "Moon",  "harbour", "winter", "paper",
    "Äpfel",  "Straße",  "ёлка",    "ВИШНЯ", "salt",  "echo",    "dune",   "orchard",
    "silver", "willow",  "quartz",  "night", "ember", "cedar",   "100%",   "snake_case",
};
const char* const kColors[] = {"yellow", "green", "blue", "red"};

std::string Sentence(Random& random, int words) {
    std::string text;
    for (int i = 0; i < words; ++i) {
        if (i) text += ' ';
        text += kWords[random.Below(sizeof kWords / sizeof kWords[0])];
    }
    return text;
}

std::string Position(int page, int offset) {
    return "pbr:/page?page=" + std::to_string(page) + "&offs=" + std::to_string(offset);
}

// The styled form (tab indents, " : ", a final line break), letters beyond ASCII as they are.
std::string StyledObject(const Json::Value& object) {
    Json::StreamWriterBuilder builder;
    builder["emitUTF8"] = true;
    return Json::writeString(builder, object) + '\n';
}

struct Statements {
    Stmt book_item;
    Stmt book;
    Stmt note_item;
    Stmt tag;
};

void AddBook(sqlite3* db, Statements& st, const std::string& hash, int index, time_t time) {
    Run(db, st.book_item.get(), hash, static_cast<long long>(time));
    const long long oid = sqlite3_last_insert_rowid(db);
    const int titles = sizeof kTitles / sizeof kTitles[0];
    std::string title = kTitles[index % titles];
    if (index >= titles) title += ", part " + std::to_string(index / titles + 1);
    Run(db, st.book.get(), oid, title,
        std::string(kAuthors[index % (sizeof kAuthors / sizeof kAuthors[0])]),
        static_cast<long long>(time));
}

// One note of a kind the reader makes: highlights and comments on a quotation, bookmarks on a
// place, drawings with their strokes and a picture.
void AddNote(sqlite3* db, Statements& st, Random& random, long long book_oid,
             const std::string& hash, time_t time) {
    const bool deleted = random.Below(20) == 0;
    Run(db, st.note_item.get(), book_oid, deleted ? 2LL : 0LL, static_cast<long long>(time), hash);
    const long long oid = sqlite3_last_insert_rowid(db);
    const long long when = static_cast<long long>(time);
    auto tag = [&](int id, const auto& value) { Run(db, st.tag.get(), oid, id, value, when); };

    const int page = 1 + random.Below(400);
    const int kind = random.Below(10);
    if (kind < 2) {
        tag(101, StyledJson("anchor", Position(page, 0)));
        tag(102, std::string("bookmark"));
        return;
    }
    const int offset = random.Below(2000);
    Json::Value quotation(Json::objectValue);
    quotation["begin"] = Position(page, offset);
    quotation["end"] = Position(page, offset + 40);
    quotation["text"] = Sentence(random, 3 + random.Below(8));
    tag(101, StyledJson("anchor", Position(page, offset)));
    tag(104, StyledObject(quotation));
    if (kind == 9) {
        tag(102, std::string("draws"));
        tag(110, "stroke 12,40 80,44 130,52;width 3");
        tag(109, Blob{std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16)});
        return;
    }
    tag(102, std::string(kind < 6 ? "highlight" : "note"));
    tag(106, std::string(kColors[random.Below(4)]));
    if (kind >= 6) tag(105, StyledJson("text", Sentence(random, 4 + random.Below(10))));
}

}  // namespace

void CreateBooksDatabase(const std::string& path) {
    if (::access(path.c_str(), F_OK) == 0) throw Error(path + " exists already");
    Db db = Open(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    for (const char* sql : kSchema)
        Exec(db.get(), sql);
}

std::string StyledJson(const std::string& key, const std::string& value) {
    Json::Value object(Json::objectValue);
    object[key] = value;
    return StyledObject(object);
}

std::string SampleBookHash(uint32_t seed, int index) {
    return Hex(Key(seed, index, 1));
}

std::string SampleNoteHash(uint32_t seed, int index) {
    const std::string hex = Hex(Key(seed, index, 2));
    return hex.substr(0, 8) + "-" + hex.substr(8, 4) + "-" + hex.substr(12, 4) + "-" +
           hex.substr(16, 4) + "-" + hex.substr(20, 12);
}

void AddSampleLibrary(const std::string& path, const SampleOptions& options,
                      const std::function<void(uint64_t)>& progress) {
    if (options.books < 1 && options.notes > 0) throw Error("notes need at least one book");
    Db db = Open(path, SQLITE_OPEN_READWRITE);
    Statements st{
        Prepare(db.get(),
                "INSERT INTO Items (TypeID, State, HashUUID, TimeAlt) VALUES (0, 0, ?, ?)"),
        Prepare(db.get(), "INSERT INTO Books (OID, Title, Authors, TimeAdd) VALUES (?, ?, ?, ?)"),
        Prepare(db.get(),
                "INSERT INTO Items (ParentID, TypeID, State, TimeAlt, HashUUID) VALUES (?, 4, ?, "
                "?, ?)"),
        Prepare(db.get(),
                "INSERT OR REPLACE INTO Tags (ItemID, TagID, Val, TimeEdt) VALUES (?, ?, ?, ?)"),
    };
    Random random(options.seed);
    const time_t year = 365 * 24 * 3600;
    Exec(db.get(), "BEGIN");
    std::vector<long long> book_oids;
    for (int i = 0; i < options.books; ++i) {
        AddBook(db.get(), st, SampleBookHash(options.seed, i), i,
                options.newest - year + random.Below(30 * 24 * 3600));
        book_oids.push_back(sqlite3_last_insert_rowid(db.get()));
    }
    for (int i = 0; i < options.notes; ++i) {
        // Most notes go to a few books, as people read a few books closely.
        const int book = random.Below(4) == 0 ? random.Below(options.books)
                                              : random.Below(std::min(options.books, 10));
        const time_t time = options.newest - random.Below(static_cast<int>(year - 31 * 24 * 3600));
        AddNote(db.get(), st, random, book_oids[static_cast<size_t>(book)],
                SampleNoteHash(options.seed, i), time);
        if (progress && (i + 1) % 1000 == 0) progress(static_cast<uint64_t>(options.books + i + 1));
    }
    // A book counts as changed when one of its notes did: the shelf lists recent reading first.
    Exec(db.get(),
         "UPDATE Items SET TimeAlt = (SELECT MAX(n.TimeAlt) FROM Items n WHERE n.ParentID = "
         "Items.OID) WHERE TypeID = 0 AND OID IN (SELECT ParentID FROM Items WHERE TypeID = 4)");
    Exec(db.get(), "COMMIT");
    if (progress) progress(static_cast<uint64_t>(options.books + options.notes));
}

}  // namespace readerapp
