// A disk cache of small book covers for shelves. Each book's cover is a PNG under
// "/mnt/ext1/system/cover_chache" (so spelled on disk) at a path made from the book's own path, so
// nothing needs looking up: internal storage under "1/", a card under its serial number (so that
// a card's covers survive its removal and don't mix with another card's). Covers only the scanner
// application can make (PDF, EPUB, DjVu) are handed to it in the background; the caller asks
// again later.
//
// Status numbers of the loading calls:
//   0  `out` holds the cover
//   1  the scanner is making it, ask again later
//   2  no cover can be had
//   3  bad arguments (a null or non-empty `out`, a size below 1), or the scanner didn't start
//
// A cache file, once written, stays until LoadCoverForceReload makes it again. A book handed to
// the scanner stays pending for the object's life. For one thread at a time.
#pragma once

#include <set>
#include <string>

#include "common_utilities/file_type.h"
#include "common_utilities/smartbitmap.h"

namespace quorvel {
namespace utilities {

class QV_EXPORT CoverLoader : public FileTypeManager {
public:
    // Loads the file type tables, and the cache's cover size from the theme.
    CoverLoader();

    // The cache file of `book`; ".png" alone for a book outside the storages, which has none.
    std::string GetImagePath(const std::string& book);
    // The cache file of an item known by a hash, at one of its sizes.
    std::string GetImagePathByHash(const std::string& hash, int size);

    // The cover fitted into `w` x `h` (`flags` as SetLoadImageFlags takes them): from the cache,
    // else made and cached.
    int LoadCover(const std::string& book, int w, int h, int flags, SmartBitmap* out);
    // Made afresh, the cache file replaced.
    int LoadCoverForceReload(const std::string& book, int w, int h, int flags, SmartBitmap* out);
    // From the cache only.
    int LoadCoverFromCache(const std::string& book, int w, int h, int flags, SmartBitmap* out);
    int LoadCoverEx(const std::string& book, int w, int h, int flags, SmartBitmap* out, bool force);
    // The cover of `book` at the cache's size, made from the book itself.
    int LoadCoverInt(const std::string& book, const std::string& cache_path, SmartBitmap* out);
    int LoadCoverByHash(const std::string& hash, int size, int w, int h, int flags,
                        SmartBitmap* out);
    int LoadCoverByHashFromCache(const std::string& hash, int size, int w, int h, int flags,
                                 SmartBitmap* out);
    // Hands `book` to the scanner: 1, or 3 when it could not be started.
    int EnqueueToAdobe(const std::string& book, const std::string& cache_path);
    // A picture file as its own cover, by its lower-case extension; empty for other extensions.
    SmartBitmap GetImageCover(const std::string& ext, const std::string& book);

    int ImageWidth() const { return image_width_; }
    int ImageHeight() const { return image_height_; }

private:
    int LoadFromCacheFile(const std::string& path, int w, int h, int flags, SmartBitmap* out);
    int CoverFromBitmap(const ibitmap_s* bitmap, SmartBitmap* out);

    std::string cache_dir_ = "/mnt/ext1/system/cover_chache";
    int image_width_;
    int image_height_;
    std::set<std::string> pending_;
};

}  // namespace utilities
}  // namespace quorvel
