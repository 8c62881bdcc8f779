// Books made on the spot, for tests, benchmarks and the demo: real files of each format that a
// shelf holds, each with a plain coloured cover (or first page) of a known size and a title.
//   PDF   written directly (one page, the cover's size in points, a filled box and the title)
//   EPUB  a zip with the package, a text page and the cover as PNG, named by the package
//   DjVu  the cover encoded by djvulibre's c44
//   PNG   written directly; JPEG through ImageMagick's convert
#pragma once

#include <string>

namespace qvhost {

enum class BookKind { kPdf, kEpub, kDjvu, kPng, kJpeg };

// The extension of a kind, without the dot ("pdf").
const char* BookExtension(BookKind kind);

// Writes a book of `kind` at `path` (its folders made), whose cover is `width` x `height` pixels
// in a colour picked by `seed`. False when it could not be written.
bool WriteSampleBook(BookKind kind, const std::string& path, const std::string& title, int width,
                     int height, unsigned seed);

// A PNG of one colour.
bool WriteSolidPng(const std::string& path, int width, int height, unsigned rgb);

}  // namespace qvhost
