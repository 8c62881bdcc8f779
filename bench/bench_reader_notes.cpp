// Every query of ReaderDbManager over a notes database of 2,000 books and 100,000 notes, made by
// the reading application's side, against the same statements through the bare C API on a
// connection opened the same way, reading the rows into the same records. The text search also
// runs as the sqlite3 program would run it for a shell script.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "common_utilities/reader_db_manager.h"
#include "ratio_reporter.h"
#include "reader_books_db.h"

extern char** environ;

namespace {

using quorvel::utilities::Book;
using quorvel::utilities::Note;
using quorvel::utilities::ReaderDbManager;

constexpr int kBooks = 2000;
constexpr int kNotes = 100000;
constexpr uint32_t kSeed = 42;
constexpr int kLookups = 1000;  // single-row queries are timed a thousand at a time
constexpr const char* kSearchText = "river";
const std::string kPattern = std::string("%\"text\"%:%\"%") + kSearchText + "%";
const std::string kDb = readerapp::kBooksDbPath;

[[noreturn]] void Die(const std::string& what) {
    std::fprintf(stderr, "benchmark: %s\n", what.c_str());
    std::exit(1);
}

// ---- The statements, as the manager runs them ----------------------------------------------

const char* const kItemId = "SELECT OID from Items WHERE HashUUID = ?";
const char* const kNote =
    "SELECT t.ItemID, t.TagID, t.Val, t.TimeEdt, i.TimeAlt, i.ParentID, i.State  FROM Tags t "
    "INNER JOIN Items i ON t.ItemID = i.OID  WHERE i.HashUUID = ?";
const char* const kBookNotes =
    "SELECT HashUUID, TimeAlt From Items WHERE ParentID = ? AND State != 2";
const char* const kBookNotesByText =
    "SELECT items.HashUUID, items.TimeAlt  FROM Items items  INNER JOIN Tags tags ON items.OID = "
    "tags.ItemID  WHERE items.ParentID = ? AND items.State != 2 AND (tags.TagID = 105 OR "
    "tags.TagID = 104)  AND tags.Val LIKE ?  GROUP BY items.HashUUID";
const char* const kChanged = "SELECT HashUUID From Items WHERE TimeAlt > ? AND TypeID = 4";
const char* const kHashById = "SELECT HashUUID FROM Items WHERE OID = ? ";
const char* const kBookByHash =
    "SELECT book.OID, book.Title, book.Authors, items.HashUUID FROM  Books book INNER JOIN Items "
    "items ON book.OID=items.OID  WHERE items.HashUUID=? ";
const char* const kBooksWithNotes =
    "SELECT book.OID, book.Title, book.Authors, items.HashUUID FROM  Books book INNER JOIN Items "
    "items ON book.OID=items.ParentID  WHERE items.TypeID=0 OR items.TypeID=4 AND items.State != 2";
const char* const kCounts =
    "SELECT book.OID, book.Title, book.Authors, items.HashUUID, COUNT(items2.HashUUID) FROM Books "
    "book INNER JOIN Items items ON book.OID=items.OID  INNER JOIN Items items2 ON book.OID = "
    "items2.ParentID  INNER JOIN Tags tags ON items2.OID = tags.ItemID  WHERE items.TypeID=0 AND "
    "items2.TypeID=4 AND items.State != 2 AND items2.State != 2  AND tags.TagID = 102 AND "
    "tags.Val != 'bookmark'  GROUP BY book.OID ORDER BY items.TimeAlt DESC, book.OID ";
const std::string kCountsByText =
    "SELECT book.OID, book.Title, book.Authors, items.HashUUID, COUNT(DISTINCT items2.HashUUID) "
    "FROM Books book INNER JOIN Items items ON book.OID=items.OID  INNER JOIN Items items2 ON "
    "book.OID = items2.ParentID  INNER JOIN Tags tags ON items2.OID = tags.ItemID  INNER JOIN "
    "Tags tags2 ON tags.ItemID = tags2.ItemID  WHERE items.TypeID=0 AND items2.TypeID=4 AND "
    "items.State != 2 AND items2.State != 2  AND (tags.TagID = 105 OR tags.TagID = 104) AND "
    "tags2.TagID = 102 AND tags2.Val != 'bookmark' AND tags.Val LIKE ?  GROUP BY book.OID ORDER "
    "BY items.TimeAlt DESC, book.OID ";
const char* const kQuestions =
    "SELECT items.HashUUID, tags.Val FROM  Items items INNER JOIN Tags tags ON items.OID = "
    "tags.ItemID  WHERE items.TypeID=4 AND items.State != 2 AND (tags.TagID = 105 OR tags.TagID "
    "= 104) AND tags.Val LIKE '%\"text\":\"%?%' ";

// ---- The file and the two connections -------------------------------------------------------

ReaderDbManager& Library() {
    static ReaderDbManager* manager = [] {
        for (const char* suffix : {"", "-wal", "-shm"})
            ::unlink((kDb + suffix).c_str());
        readerapp::CreateBooksDatabase(kDb);
        readerapp::SampleOptions options;
        options.books = kBooks;
        options.notes = kNotes;
        options.seed = kSeed;
        readerapp::AddSampleLibrary(kDb, options);
        return new ReaderDbManager();
    }();
    return *manager;
}

// Opened as the library opens the file: existing only, serialized, the same busy handler.
sqlite3* Raw() {
    static sqlite3* db = [] {
        Library();
        sqlite3* raw = nullptr;
        if (sqlite3_open_v2(kDb.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_FULLMUTEX,
                            nullptr) != SQLITE_OK)
            Die("open");
        sqlite3_busy_handler(raw, busyHandler, nullptr);
        return raw;
    }();
    return db;
}

std::string Text(sqlite3_stmt* st, int column) {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(st, column));
    return text ? text : "";
}

// Prepares, binds through `bind`, hands every row to `row`, finalizes: what each query does.
void RawRows(const char* sql, const std::function<void(sqlite3_stmt*)>& bind,
             const std::function<void(sqlite3_stmt*)>& row) {
    sqlite3_stmt* st = nullptr;
    if (sqlite3_prepare_v2(Raw(), sql, -1, &st, nullptr) != SQLITE_OK) Die(sql);
    if (bind) bind(st);
    while (sqlite3_step(st) == SQLITE_ROW)
        row(st);
    sqlite3_finalize(st);
}

auto BindText(const std::string& text) {
    return
        [text](sqlite3_stmt* st) { sqlite3_bind_text(st, 1, text.c_str(), -1, SQLITE_TRANSIENT); };
}

auto BindInt(long long value) {
    return [value](sqlite3_stmt* st) { sqlite3_bind_int64(st, 1, value); };
}

long long RawItemId(const std::string& hash) {
    long long id = -1;
    bool first = true;
    RawRows(kItemId, BindText(hash), [&](sqlite3_stmt* st) {
        if (first) id = sqlite3_column_int64(st, 0);
        first = false;
    });
    return id;
}

std::string RawHashById(long long id) {
    std::string hash;
    bool first = true;
    RawRows(kHashById, BindInt(id), [&](sqlite3_stmt* st) {
        if (first) hash = Text(st, 0);
        first = false;
    });
    return hash;
}

Note RawNote(const std::string& hash) {
    Note note;
    bool first = true;
    RawRows(kNote, BindText(hash), [&](sqlite3_stmt* st) {
        if (first) {
            first = false;
            note.time = static_cast<time_t>(sqlite3_column_int64(st, 4));
            note.setTag(Note::NoteHash, hash, note.time);
            note.setTag(Note::BookHash, RawHashById(sqlite3_column_int64(st, 5)), note.time);
            note.removed = sqlite3_column_int(st, 6) == 2;
            note.id = sqlite3_column_int64(st, 0);
        }
        const auto tag = static_cast<Note::Tags>(sqlite3_column_int(st, 1));
        std::string value;
        if (Note::getTagType(tag) == Note::BinaryData) {
            const void* blob = sqlite3_column_blob(st, 2);
            const int size = sqlite3_column_bytes(st, 2);
            if (blob && size > 0) value.assign(static_cast<const char*>(blob), size);
        } else {
            value = Text(st, 2);
        }
        note.setTag(tag, value, static_cast<time_t>(sqlite3_column_int64(st, 3)));
    });
    return note;
}

ReaderDbManager::NoteTimes RawNoteTimes(const char* sql,
                                        const std::function<void(sqlite3_stmt*)>& bind) {
    ReaderDbManager::NoteTimes notes;
    RawRows(sql, bind, [&](sqlite3_stmt* st) {
        notes.emplace_back(Text(st, 0), static_cast<uint64_t>(sqlite3_column_int64(st, 1)));
    });
    return notes;
}

Book RawBook(sqlite3_stmt* st) {
    Book book;
    book.id = sqlite3_column_int64(st, 0);
    book.title = Text(st, 1);
    book.authors = Text(st, 2);
    book.hash = Text(st, 3);
    return book;
}

std::vector<Book> RawBooks(const char* sql, const std::function<void(sqlite3_stmt*)>& bind) {
    std::vector<Book> books;
    RawRows(sql, bind, [&](sqlite3_stmt* st) { books.push_back(RawBook(st)); });
    return books;
}

ReaderDbManager::BookCounts RawCounts(const char* sql,
                                      const std::function<void(sqlite3_stmt*)>& bind) {
    ReaderDbManager::BookCounts books;
    RawRows(sql, bind, [&](sqlite3_stmt* st) {
        books.emplace_back(RawBook(st), sqlite3_column_int64(st, 4));
    });
    return books;
}

// ---- What the queries ask for ----------------------------------------------------------------

// The busiest book: most notes of the sample go to its first ten books.
const std::string& BusyBook() {
    static const std::string hash = readerapp::SampleBookHash(kSeed, 3);
    return hash;
}

// About half the notes changed after this.
const time_t kSince = 1767225600 - 180 * 24 * 3600;

std::vector<std::string> NoteHashes() {
    std::vector<std::string> hashes;
    for (int i = 0; i < kLookups; ++i)
        hashes.push_back(readerapp::SampleNoteHash(kSeed, i * (kNotes / kLookups)));
    return hashes;
}

std::vector<std::string> BookHashes() {
    std::vector<std::string> hashes;
    for (int i = 0; i < kLookups; ++i)
        hashes.push_back(readerapp::SampleBookHash(kSeed, i * (kBooks / kLookups)));
    return hashes;
}

template <typename Result>
void Keep(const Result& result, size_t at_least, const char* what) {
    if (result.size() < at_least) Die(std::string(what) + " found too little");
    benchmark::DoNotOptimize(&result);
}

// ---- Benchmarks: the library and the bare API, side by side -----------------------------------

void Configure(benchmark::internal::Benchmark* benchmark) {
    qvbench::TimeInMilliseconds(benchmark, 5);
}

using Body = std::function<void()>;

// "<query>/library" and "<query>/raw", and their ratio.
void SideBySide(std::vector<qvbench::Ratio>& ratios, const std::string& query, Body library,
                Body raw) {
    for (auto& [side, body] : {std::pair<const char*, Body>{"/library", library}, {"/raw", raw}}) {
        benchmark::RegisterBenchmark((query + side).c_str(), [body =
                                                                  body](benchmark::State& state) {
            Raw();
            for (auto _ : state)
                body();
        })->Apply(Configure);
    }
    ratios.push_back({"library/raw " + query, query + "/library", query + "/raw", 0.10});
}

void RegisterQueries(std::vector<qvbench::Ratio>& ratios) {
    static const std::vector<std::string> notes = NoteHashes();
    static const std::vector<std::string> books = BookHashes();
    SideBySide(
        ratios, "getNote_x1000",
        [] {
            for (const auto& hash : notes) {
                auto note = Library().getNote(hash);
                benchmark::DoNotOptimize(&note);
            }
        },
        [] {
            for (const auto& hash : notes) {
                auto note = RawNote(hash);
                benchmark::DoNotOptimize(&note);
            }
        });
    SideBySide(
        ratios, "getBookNotes",
        [] { Keep(Library().getBookNotes(BusyBook()), 1000, "getBookNotes"); },
        [] {
            const long long id = RawItemId(BusyBook());
            Keep(RawNoteTimes(kBookNotes, BindInt(id)), 1000, "raw book notes");
        });
    SideBySide(
        ratios, "getBookNotesFilteredByText",
        [] { Keep(Library().getBookNotesFilteredByText(BusyBook(), kSearchText), 10, "filtered"); },
        [] {
            const long long id = RawItemId(BusyBook());
            Keep(RawNoteTimes(kBookNotesByText,
                              [id](sqlite3_stmt* st) {
                                  sqlite3_bind_int64(st, 1, id);
                                  sqlite3_bind_text(st, 2, kPattern.c_str(), -1, SQLITE_TRANSIENT);
                              }),
                 10, "raw filtered");
        });
    SideBySide(
        ratios, "getChangedNotes",
        [] { Keep(Library().getChangedNotes(kSince), 10000, "changed"); },
        [] {
            std::vector<std::string> hashes;
            RawRows(kChanged, BindInt(kSince),
                    [&](sqlite3_stmt* st) { hashes.push_back(Text(st, 0)); });
            Keep(hashes, 10000, "raw changed");
        });
    SideBySide(
        ratios, "getBookFastHashById_x1000",
        [] {
            for (int id = 1; id <= kLookups; ++id) {
                auto hash = Library().getBookFastHashById(id);
                benchmark::DoNotOptimize(&hash);
            }
        },
        [] {
            for (int id = 1; id <= kLookups; ++id) {
                auto hash = RawHashById(id);
                benchmark::DoNotOptimize(&hash);
            }
        });
    SideBySide(
        ratios, "getBookByFastHash_x1000",
        [] {
            for (const auto& hash : books)
                Keep(Library().getBookByFastHash(hash), 1, "book");
        },
        [] {
            for (const auto& hash : books)
                Keep(RawBooks(kBookByHash, BindText(hash)), 1, "raw book");
        });
    SideBySide(
        ratios, "getBooksWhichHaveNotes",
        [] { Keep(Library().getBooksWhichHaveNotes(), 50000, "books"); },
        [] { Keep(RawBooks(kBooksWithNotes, nullptr), 50000, "raw books"); });
    SideBySide(
        ratios, "getBooksWithNotesCount",
        [] { Keep(Library().getBooksWithNotesCount(), 100, "counts"); },
        [] { Keep(RawCounts(kCounts, nullptr), 100, "raw counts"); });
    SideBySide(
        ratios, "getBooksWithNotesCountFilteredByText",
        [] { Keep(Library().getBooksWithNotesCountFilteredByText(kSearchText), 10, "by text"); },
        [] { Keep(RawCounts(kCountsByText.c_str(), BindText(kPattern)), 10, "raw by text"); });
    SideBySide(
        ratios, "findNotesByText",
        [] {
            auto values = Library().findNotesByText(kSearchText);
            benchmark::DoNotOptimize(&values);
        },
        [] {
            std::set<std::string> values;
            RawRows(kQuestions, nullptr, [&](sqlite3_stmt* st) { values.insert(Text(st, 1)); });
            benchmark::DoNotOptimize(&values);
        });
}

// ---- The text search as a shell script would run it ---------------------------------------------

void RunSqliteProgram(const std::string& sql) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    std::vector<std::string> words = {"sqlite3", "-batch", kDb, sql};
    std::vector<char*> argv;
    for (auto& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawnp(&pid, "sqlite3", &actions, nullptr, argv.data(), environ) != 0)
        Die("sqlite3 could not be started");
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) Die("sqlite3 failed");
}

// The statement with its one parameter written in as a literal, the way a script has it.
std::string CountsByTextLiteral() {
    std::string sql = kCountsByText;
    sql.replace(sql.find('?'), 1, "'" + kPattern + "'");
    return sql;
}

void SearchSqliteProgram(benchmark::State& state) {
    Raw();
    const std::string sql = CountsByTextLiteral();
    for (auto _ : state)
        RunSqliteProgram(sql);
}
BENCHMARK(SearchSqliteProgram)
    ->Name("getBooksWithNotesCountFilteredByText/sqlite3_program")
    ->Apply(Configure);

}  // namespace

int main(int argc, char** argv) {
    std::vector<qvbench::Ratio> ratios;
    RegisterQueries(ratios);
    ratios.push_back({"library/sqlite3 program text search",
                      "getBooksWithNotesCountFilteredByText/library",
                      "getBooksWithNotesCountFilteredByText/sqlite3_program", 0.0});
    return qvbench::RunAndCompare(argc, argv, ratios);
}
