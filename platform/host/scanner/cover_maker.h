// The scanner's work on one book: a cover PNG that fits in a box, made with the programs a
// desktop has for each format (poppler's pdftoppm, djvulibre's ddjvu, ImageMagick's convert),
// and, when asked, the book's metadata beside it.
#pragma once

#include <string>
#include <vector>

namespace qvscanner {

struct ScanJob {
    std::string book;
    std::string cache_path;
    int width = 0;
    int height = 0;
    bool metadata = false;
};

// The job of a parameter list: book, cache path, width, height, then "-metadata" or nothing.
// False for a list that isn't one.
bool ParseScanJob(const std::vector<std::string>& words, ScanJob* job);

// Writes the cover at the job's cache path (folders made, the file replaced whole or not at all)
// and the metadata at the cache path's ".metadata" twin: "title=", "author=", "pages=" lines.
// False when no cover could be made; nothing is left behind then.
bool MakeCover(const ScanJob& job);

// Runs a program from an argument vector, without a shell and with its output discarded; true
// when it exited with 0.
bool RunQuietly(const std::vector<std::string>& argv);

}  // namespace qvscanner
