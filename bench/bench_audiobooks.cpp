// The audiobook store's lists over 5,000 books of 20 chapters against the same statements run
// through the bare C API, reading the rows into the same records.

#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "common_utilities/audio/audio_books_manager.h"
#include "media_bench_data.h"
#include "ratio_reporter.h"

namespace {

using mediabench::Check;
using mediabench::ColumnText;
using mediabench::Die;
using mediabench::ExecRaw;
using mediabench::Expect;
using mediabench::OpenRaw;
using mediabench::SetUpLikeTheLibrary;
using quorvel::audio::AudioBook;
using quorvel::audio::AudioBooksManager;

constexpr const char* kPath = "/mnt/ext1/system/config/audiobooks/audiobooks.db";
constexpr int kBooks = 5000;
constexpr int kChapters = 20;

// The statements as the manager composes them.
const std::string kBooksByTitle =
    " SELECT b.id, b.type, b.title, b.artist, b.genre, b.duration, s.book_id, s.read_position, "
    "s.read_percents, s.last_read_ts  FROM audiobooks b LEFT OUTER JOIN book_state s ON "
    "s.book_id = b.id ORDER BY title ASC ";
const std::string kChaptersOfBook =
    " SELECT ch.no, ch.start_position, ch.end_position, ch.title, file.filename, folder.name  "
    "FROM chapters ch INNER JOIN files file ON ch.file_id = file.id INNER JOIN folders folder  "
    "ON folder.id = file.folder_id  WHERE ch.book_id = ? ORDER BY ch.no ASC ";

// ---- The library ----------------------------------------------------------------------------

void Fill(sqlite3* db) {
    ExecRaw(db, "BEGIN");
    unsigned seed = 777;
    for (int book = 1; book <= kBooks; ++book) {
        seed = seed * 1103515245u + 12345u;
        const std::string dir = "/mnt/ext1/Audiobooks/Author " + std::to_string(seed % 613) +
                                "/Book " + std::to_string(book);
        ExecRaw(db, "INSERT INTO audiobooks (id, type, title, artist, genre, duration) VALUES (" +
                        std::to_string(book) + ", 3, 'Title " + std::to_string(seed % 100003) +
                        "', 'Author " + std::to_string(seed % 613) + "', 'Novel', 36000)");
        ExecRaw(db, "INSERT INTO folders (storageid, name) VALUES (1, '" + dir + "')");
        if (book % 3 == 0) {
            ExecRaw(db,
                    "INSERT INTO book_state (book_id, read_position, read_percents, "
                    "last_read_ts) VALUES (" +
                        std::to_string(book) + ", '" + dir + "/01.mp3:#loc(12)', 40, " +
                        std::to_string(1700000000 + book) + ")");
        }
        for (int no = 1; no <= kChapters; ++no) {
            const std::string id = std::to_string((book - 1) * kChapters + no);
            ExecRaw(db, "INSERT INTO files (id, book_id, filename, folder_id) VALUES (" + id +
                            ", " + std::to_string(book) + ", '" + std::to_string(no) +
                            ".mp3', (SELECT id FROM folders WHERE name = '" + dir + "'))");
            ExecRaw(db, "INSERT INTO chapters VALUES (" + std::to_string(book) + ", " +
                            std::to_string(no) + ", " + id + ", 0, 1800000, 'Chapter " +
                            std::to_string(no) + "')");
        }
    }
    ExecRaw(db, "COMMIT");
}

AudioBooksManager& Store() {
    static std::unique_ptr<AudioBooksManager> store = [] {
        for (const char* suffix : {"", "-wal", "-shm"})
            ::unlink((std::string(kPath) + suffix).c_str());
        { AudioBooksManager create; }
        sqlite3* db = OpenRaw(kPath);
        Fill(db);
        sqlite3_close(db);
        return std::make_unique<AudioBooksManager>();
    }();
    return *store;
}

sqlite3* Raw() {
    static sqlite3* db = [] {
        Store();
        sqlite3* raw = OpenRaw(kPath);
        SetUpLikeTheLibrary(raw);
        return raw;
    }();
    return db;
}

std::vector<std::shared_ptr<AudioBook>> RawBooks() {
    std::vector<std::shared_ptr<AudioBook>> books;
    sqlite3_stmt* st = nullptr;
    Check(sqlite3_prepare_v2(Raw(), kBooksByTitle.c_str(), -1, &st, nullptr), SQLITE_OK, "prepare");
    while (sqlite3_step(st) == SQLITE_ROW) {
        auto book =
            AudioBook::factory(static_cast<AudioBook::AudioBookType>(sqlite3_column_int(st, 1)));
        if (!book) continue;
        book->setId(sqlite3_column_int(st, 0));
        book->setTitle(ColumnText(st, 2));
        book->setAuthor(ColumnText(st, 3));
        book->setGenre(ColumnText(st, 4));
        book->setDuration(sqlite3_column_int(st, 5));
        if (sqlite3_column_type(st, 6) != SQLITE_NULL) {
            AudioBook::State state;
            state.read_position = ColumnText(st, 7);
            state.read_percents = sqlite3_column_int(st, 8);
            state.last_read_ts = sqlite3_column_int(st, 9);
            book->setState(state);
        }
        books.push_back(std::move(book));
    }
    sqlite3_finalize(st);
    return books;
}

std::vector<AudioBook::Chapter> RawChapters(int64_t book) {
    std::vector<AudioBook::Chapter> chapters;
    sqlite3_stmt* st = nullptr;
    Check(sqlite3_prepare_v2(Raw(), kChaptersOfBook.c_str(), -1, &st, nullptr), SQLITE_OK,
          "prepare");
    sqlite3_bind_int64(st, 1, book);
    while (sqlite3_step(st) == SQLITE_ROW) {
        AudioBook::Chapter chapter;
        chapter.no = sqlite3_column_int(st, 0);
        chapter.start_position = sqlite3_column_int(st, 1);
        chapter.end_position = sqlite3_column_int(st, 2);
        chapter.title = ColumnText(st, 3);
        chapter.path = ColumnText(st, 5) + "/" + ColumnText(st, 4);
        chapters.push_back(std::move(chapter));
    }
    sqlite3_finalize(st);
    return chapters;
}

// ---- Benchmarks -----------------------------------------------------------------------------

void BooksLibrary(benchmark::State& state) {
    for (auto _ : state)
        Expect(Store().getAudioBooks(AudioBooksManager::OrderByTitle), kBooks, "getAudioBooks");
    state.SetItemsProcessed(state.iterations() * kBooks);
}

void BooksRaw(benchmark::State& state) {
    Raw();
    for (auto _ : state)
        Expect(RawBooks(), kBooks, "raw books");
    state.SetItemsProcessed(state.iterations() * kBooks);
}

// The chapters of every book, one call per book, as a shelf that opens each in turn.
void ChaptersLibrary(benchmark::State& state) {
    Store();
    for (auto _ : state) {
        for (int book = 1; book <= kBooks; ++book)
            Expect(Store().getBookChapters(book), kChapters, "getBookChapters");
    }
    state.SetItemsProcessed(state.iterations() * kBooks * kChapters);
}

void ChaptersRaw(benchmark::State& state) {
    Raw();
    for (auto _ : state) {
        for (int book = 1; book <= kBooks; ++book)
            Expect(RawChapters(book), kChapters, "raw chapters");
    }
    state.SetItemsProcessed(state.iterations() * kBooks * kChapters);
}

void Configure(benchmark::internal::Benchmark* benchmark) {
    qvbench::TimeInMilliseconds(benchmark, 7);
}

}  // namespace

BENCHMARK(BooksLibrary)->Name("getAudioBooks_5k/library")->Apply(Configure);
BENCHMARK(BooksRaw)->Name("getAudioBooks_5k/raw")->Apply(Configure);
BENCHMARK(ChaptersLibrary)->Name("getBookChapters_5kx20/library")->Apply(Configure);
BENCHMARK(ChaptersRaw)->Name("getBookChapters_5kx20/raw")->Apply(Configure);

int main(int argc, char** argv) {
    return qvbench::RunAndCompare(
        argc, argv,
        {{"library/raw getAudioBooks by title 5k", "getAudioBooks_5k/library",
          "getAudioBooks_5k/raw", 0.10},
         {"library/raw getBookChapters 5k books x 20", "getBookChapters_5kx20/library",
          "getBookChapters_5kx20/raw", 0.10}});
}
