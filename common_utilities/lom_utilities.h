// LomUtilities: hash helpers for applications, and a reversible scrambling of text.
//
// Digests are lower-case hexadecimal (40 digits for SHA-1, 32 for MD5), computed by libcrypto.
// Functions over files read them in pieces, so memory does not grow with the file, and give an
// empty text when the file can't be opened or read to its end.
//
// Partial MD5, a fast fingerprint of a book: the MD5 of the file's first 64 KiB followed by its
// last 64 KiB (of the whole file when it is 128 KiB or smaller). The head alone is not enough:
// books of one format begin alike (every EPUB opens with the same "mimetype" member, PDFs with
// the same header), while the tail holds what tells them apart and what an edit changes (the zip
// directory with every member's CRC, the PDF cross-reference table that an incremental save
// appends). For a file past 128 KiB the result equals
// `{ head -c 65536 F; tail -c 65536 F; } | md5sum`, for a smaller one `md5sum F`.
//
// Scrambling keeps text out of plain sight; it is not encryption, and anyone who has the library
// can undo it. The table is the 94 printable ASCII characters '!' (33) to '~' (126) in a fixed
// shuffled order, kScrambleTable in lom_utilities.cpp. A byte at position i of the text (counting
// every byte from 0) that is in the table moves forward in it by (i * 7 + 13) mod 94 places,
// wrapping at the end; every other byte (blanks, control characters, the bytes of non-ASCII UTF-8
// characters) stays as it is. So the length is kept, UTF-8 stays valid, equal characters at
// different places come out different, and Unscramble, moving back by the same amounts, restores
// the text exactly.
//
// No state: any thread may call.
#pragma once

#include <string>

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace utilities {

class QV_EXPORT LomUtilities {
public:
    LomUtilities() = delete;

    // Bytes of the file hashed by GetPartialFileMd5 from each end.
    static constexpr long kMd5PartSize = 64 * 1024;

    static std::string GetSha1(const std::string& text);
    static std::string GetFileSha1(const std::string& path);
    static std::string GetPartialFileMd5(const std::string& path);

    static std::string Scramble(const std::string& text);
    static std::string Unscramble(const std::string& text);
};

}  // namespace utilities
}  // namespace quorvel
