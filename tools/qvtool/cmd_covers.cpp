// qvtool cover, covers, filetype, host books: the cover cache of shelves and the file type table.

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <thread>
#include <vector>

#include "cli.h"
#include "common_utilities/cover_loader.h"
#include "moorglass.h"
#include "progress.h"
#include "sample_books.h"

namespace qvtool {
namespace {

using quorvel::utilities::CoverLoader;
using quorvel::utilities::SmartBitmap;

constexpr auto kPollInterval = std::chrono::milliseconds(50);
constexpr auto kScannerPatience = std::chrono::seconds(120);

const char* StateName(int state) {
    switch (state) {
        case 0:
            return "loaded";
        case 1:
            return "being made by the scanner";
        case 2:
            return "no cover";
        default:
            return "bad request or the scanner did not start";
    }
}

// "WxH" of --size, 165x290 when absent (the cache's own size).
std::pair<int, int> BoxOption(Args& args) {
    auto size = args.Option("--size");
    if (!size) return {165, 290};
    auto x = size->find('x');
    if (x == std::string::npos) throw Failure(kUsage, "--size is WIDTHxHEIGHT: " + *size);
    int w = static_cast<int>(ParseInteger(size->substr(0, x), "--size"));
    int h = static_cast<int>(ParseInteger(size->substr(x + 1), "--size"));
    if (w < 1 || h < 1) throw Failure(kUsage, "--size must be at least 1x1");
    return {w, h};
}

std::string Absolute(const std::string& path) {
    std::error_code ignored;
    auto absolute = std::filesystem::absolute(path, ignored);
    return absolute.empty() ? path : absolute.lexically_normal().string();
}

int RunCover(Args& args) {
    bool wait = args.Flag("--wait");
    auto box = BoxOption(args);
    std::string book = Absolute(args.Next("BOOK"));
    args.Done();
    struct stat info;
    if (::stat(book.c_str(), &info) != 0) throw Failure(kNotFound, "no such book: " + book);
    CoverLoader loader;
    SmartBitmap cover;
    int state = loader.LoadCover(book, box.first, box.second, 0, &cover);
    auto until = std::chrono::steady_clock::now() + kScannerPatience;
    while (wait && state == 1 && std::chrono::steady_clock::now() < until) {
        std::this_thread::sleep_for(kPollInterval);
        state = loader.LoadCoverFromCache(book, box.first, box.second, 0, &cover);
        if (state == 2) state = 1;  // not there yet
    }
    std::cout << "state " << state << " (" << StateName(state) << ")\n";
    std::cout << "cache " << loader.GetImagePath(book) << "\n";
    if (state == 0) std::cout << "size " << cover.width() << "x" << cover.height() << "\n";
    if (state == 3) return kUnavailable;
    return state == 2 ? kFailed : kOk;
}

// The books of a folder and its subfolders that have a cover to show, in name order.
std::vector<std::string> ShelfBooks(const std::string& dir, const CoverLoader& loader) {
    std::vector<std::string> books;
    std::error_code error;
    for (auto it = std::filesystem::recursive_directory_iterator(dir, error);
         !error && it != std::filesystem::recursive_directory_iterator(); it.increment(error)) {
        if (!it->is_regular_file()) continue;
        int type = loader.GetFileTypeByFilename(it->path().string()).type;
        if (type == 1 || type == 2) books.push_back(it->path().string());
    }
    if (error) throw Failure(kNotFound, "cannot read " + dir + ": " + error.message());
    std::sort(books.begin(), books.end());
    return books;
}

// Copies `cover` (depth 8) into `sheet` at (x, y).
void Paste(ibitmap* sheet, const SmartBitmap& cover, int x, int y) {
    SmartBitmap grey = cover.get8bppBitmap();
    const ibitmap* source = grey.GetBitmap();
    if (source == nullptr) return;
    for (int row = 0; row < source->height && y + row < sheet->height; ++row) {
        int width = std::min<int>(source->width, sheet->width - x);
        std::memcpy(sheet->data + static_cast<size_t>(y + row) * sheet->scanline + x,
                    source->data + static_cast<size_t>(row) * source->scanline, width);
    }
}

void WriteSheet(const std::string& path, const std::vector<SmartBitmap>& covers,
                std::pair<int, int> box) {
    constexpr int kColumns = 8, kGap = 8;
    int rows = (static_cast<int>(covers.size()) + kColumns - 1) / kColumns;
    int columns = std::min<int>(kColumns, static_cast<int>(covers.size()));
    SmartBitmap sheet(columns * (box.first + kGap) + kGap, rows * (box.second + kGap) + kGap);
    ibitmap* pixels = const_cast<ibitmap*>(sheet.GetBitmap());
    for (size_t i = 0; i < covers.size(); ++i) {
        int column = static_cast<int>(i) % kColumns, row = static_cast<int>(i) / kColumns;
        const SmartBitmap& cover = covers[i];
        // Centred in its cell, as a shelf shows it.
        int x = kGap + column * (box.first + kGap) + (box.first - cover.width()) / 2;
        int y = kGap + row * (box.second + kGap) + (box.second - cover.height()) / 2;
        Paste(pixels, cover, x, y);
    }
    if (sheet.SavePNG(path) != 0) throw Failure(kFailed, "cannot write " + path);
}

int RunCovers(Args& args) {
    auto box = BoxOption(args);
    auto sheet_path = args.Option("--sheet");
    std::string dir = Absolute(args.Next("DIR"));
    args.Done();
    CoverLoader loader;
    std::vector<std::string> books = ShelfBooks(dir, loader);
    std::vector<SmartBitmap> covers(books.size());
    std::vector<int> states(books.size(), 1);
    Progress progress("covers", books.size());
    size_t done = 0, scanned = 0;
    auto until = std::chrono::steady_clock::now() + kScannerPatience;
    // First every book once, then the scanner's books again until their cache files are there.
    for (bool first = true; done < books.size() && std::chrono::steady_clock::now() < until;
         first = false) {
        for (size_t i = 0; i < books.size(); ++i) {
            if (states[i] != 1) continue;
            SmartBitmap cover;
            states[i] = first
                            ? loader.LoadCover(books[i], box.first, box.second, 0, &cover)
                            : loader.LoadCoverFromCache(books[i], box.first, box.second, 0, &cover);
            if (!first && states[i] == 2) states[i] = 1;
            if (first && states[i] == 1) ++scanned;
            if (states[i] != 1) {
                covers[i] = cover;
                progress.Update(++done);
            }
        }
        if (done < books.size()) std::this_thread::sleep_for(kPollInterval);
    }
    progress.Finish();
    size_t made = std::count(states.begin(), states.end(), 0);
    std::cout << made << " covers of " << books.size() << " books (" << scanned
              << " made by the scanner, " << books.size() - made << " without)\n";
    if (sheet_path) {
        std::vector<SmartBitmap> shown;
        for (size_t i = 0; i < books.size(); ++i)
            if (states[i] == 0) shown.push_back(covers[i]);
        if (!shown.empty()) WriteSheet(*sheet_path, shown, box);
        std::cout << "sheet " << *sheet_path << "\n";
    }
    return made == books.size() ? kOk : kFailed;
}

int RunFiletype(Args& args) {
    bool list = args.Flag("--list");
    auto name = list ? std::nullopt : std::optional<std::string>(args.Next("NAME"));
    args.Done();
    quorvel::utilities::FileTypeManager types;
    types.LoadTypesInfo();
    auto show = [](const quorvel::utilities::FileType& t) {
        std::string description = t.description;
        while (!description.empty() && (description.back() == '\n' || description.back() == '\r'))
            description.pop_back();
        std::cout << t.extension << "\ttype " << t.type << "\t" << t.program << "\t" << t.icon
                  << "\t" << description << "\n";
    };
    if (list) {
        for (const std::string& ext : types.GetExtensions())
            show(types.GetFileTypeByExt(ext));
        return kOk;
    }
    auto type =
        types.GetFileTypeByFilename(name->find('.') == std::string::npos ? "." + *name : *name);
    if (type.extension.empty()) throw Failure(kNotFound, "no file type for " + *name);
    show(type);
    return kOk;
}

int RunHostBooks(Args& args) {
    auto count_text = args.Option("--count");
    long long count = count_text ? ParseInteger(*count_text, "--count") : 24;
    std::string dir = args.Next("DIR");
    args.Done();
    if (count < 1 || count > 100000) throw Failure(kUsage, "--count is 1 to 100000");
    const qvhost::BookKind kinds[] = {qvhost::BookKind::kPdf, qvhost::BookKind::kEpub,
                                      qvhost::BookKind::kDjvu, qvhost::BookKind::kPng,
                                      qvhost::BookKind::kJpeg};
    Progress progress("books", static_cast<uint64_t>(count));
    for (long long i = 0; i < count; ++i) {
        auto kind = kinds[i % 5];
        std::string name =
            dir + "/book" + std::to_string(i + 1) + "." + qvhost::BookExtension(kind);
        // Covers of several shapes: tall, square-ish and wide.
        int width = 120 + static_cast<int>(i * 37 % 200),
            height = 160 + static_cast<int>(i * 53 % 160);
        if (!qvhost::WriteSampleBook(kind, name, "Book " + std::to_string(i + 1), width, height,
                                     static_cast<unsigned>(i)))
            throw Failure(kFailed, "cannot write " + name);
        progress.Update(static_cast<uint64_t>(i + 1));
    }
    progress.Finish();
    std::cout << count << " books in " << dir << "\n";
    return kOk;
}

const bool registered_cover = Register(
    {"cover", "the cached cover of a book: its state and cache file",
     "usage: qvtool cover [--wait] [--size WxH] BOOK\n"
     "Asks the cover loader once (or, with --wait, until the scanner has made it) and prints\n"
     "the state (0 loaded, 1 being made by the scanner, 2 no cover, 3 the scanner did not\n"
     "start), the cache file's path and the cover's size in the box (default 165x290).\n"
     "Exits 3 for a missing book, 1 for a book without a cover, 4 when the scanner can't start.\n",
     RunCover});

const bool registered_covers = Register(
    {"covers", "make the covers of a whole shelf",
     "usage: qvtool covers [--size WxH] [--sheet FILE.png] DIR\n"
     "Makes (or finds in the cache) the cover of every book and picture below DIR, waiting for\n"
     "the scanner's, with a progress bar; --sheet writes them all as one contact sheet.\n"
     "Exits 1 when some book has no cover.\n",
     RunCovers});

const bool registered_filetype = Register(
    {"filetype", "what the device knows of a file type",
     "usage: qvtool filetype NAME | qvtool filetype --list\n"
     "NAME is a file name or a bare extension. Prints extension, type (1 book, 2 picture,\n"
     "3 audio), program, icon and description; the user's extensions.cfg overrides the\n"
     "system's. Exits 3 for an unknown type.\n",
     RunFiletype});

const bool registered_host_books = Register(
    {"host books", "write sample books of every kind (host only)",
     "usage: qvtool host books [--count N] DIR\n"
     "Writes N books (default 24) in turn PDF, EPUB, DjVu, PNG and JPEG, each with a plain\n"
     "coloured cover of its own size and a title.\n",
     RunHostBooks});

}  // namespace
}  // namespace qvtool
