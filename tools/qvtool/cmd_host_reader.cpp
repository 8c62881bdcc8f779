// qvtool host reader-db: a notes database as the reading application would have left it, with
// sample books and notes, for trying qvtool notes and the library on a desktop.

#include <unistd.h>

#include <iostream>
#include <string>

#include "cli.h"
#include "progress.h"
#include "reader_books_db.h"

namespace qvtool {
namespace {

constexpr long long kMaxItems = 10000000;

int Count(Args& args, const std::string& name, int fallback) {
    std::optional<std::string> text = args.Option(name);
    if (!text) return fallback;
    long long value = ParseInteger(*text, name);
    if (value < 0 || value > kMaxItems)
        throw Failure(kUsage, name + " must be between 0 and " + std::to_string(kMaxItems));
    return static_cast<int>(value);
}

int RunReaderDb(Args& args) {
    readerapp::SampleOptions options;
    options.books = Count(args, "--books", options.books);
    options.notes = Count(args, "--notes", options.notes);
    options.seed = static_cast<uint32_t>(Count(args, "--seed", static_cast<int>(options.seed)));
    const bool replace = args.Flag("--replace");
    args.Done();
    if (options.notes > 0 && options.books == 0) throw Failure(kUsage, "notes need a book");

    const std::string path = readerapp::kBooksDbPath;
    if (::access(path.c_str(), F_OK) == 0) {
        if (!replace) throw Failure(kFailed, path + " exists (--replace makes it anew)");
        for (const char* suffix : {"", "-wal", "-shm", "-journal"})
            ::unlink((path + suffix).c_str());
    }
    try {
        readerapp::CreateBooksDatabase(path);
        Progress progress("writing", static_cast<uint64_t>(options.books + options.notes));
        readerapp::AddSampleLibrary(path, options, [&](uint64_t done) { progress.Update(done); });
        progress.Finish();
    } catch (const readerapp::Error& e) {
        throw Failure(kFailed, e.what());
    }
    std::cout << path << ": " << options.books << " books, " << options.notes << " notes\n"
              << "first book: " << readerapp::SampleBookHash(options.seed, 0) << '\n';
    return kOk;
}

const bool registered = Register(
    {"host reader-db", "make a sample notes database of the reading application",
     "usage: qvtool host reader-db [--books N] [--notes M] [--seed S] [--replace]\n"
     "Makes /mnt/ext1/system/config/books.db as the reading application would: its schema,\n"
     "N books (default 20) and M notes (default 200: highlights, comments, bookmarks and\n"
     "drawings, a few deleted), JSON bodies in the styled form. The same seed gives the same\n"
     "file. An existing file is kept unless --replace.\n",
     RunReaderDb});

}  // namespace
}  // namespace qvtool
