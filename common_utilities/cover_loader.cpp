#include "common_utilities/cover_loader.h"

#include <sys/stat.h>

#include <cmath>
#include <cstdlib>

#include "boardprofile.h"
#include "common_utilities/adobe_scanner.h"
#include "common_utilities/serialization_utils.h"

namespace quorvel {
namespace utilities {

namespace {

enum Status { kLoaded = 0, kPending = 1, kNoCover = 2, kBadCall = 3 };

constexpr const char* kInternal = "/mnt/ext1";
constexpr const char* kCard = "/mnt/ext2";
constexpr size_t kPrefixLength = 9;
constexpr const char* kNoCachePath = ".png";
constexpr int kTypeBook = 1;
constexpr int kTypeImage = 2;

bool Exists(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0;
}

bool HasPrefix(const std::string& path, const char* prefix) {
    return path.size() >= kPrefixLength + 1 && path.compare(0, kPrefixLength, prefix) == 0;
}

bool BadArguments(int w, int h, const SmartBitmap* out) {
    return out == nullptr || !out->isEmpty() || w < 1 || h < 1;
}

std::string Extension(const std::string& path) {
    auto dot = path.rfind('.');
    return dot == std::string::npos ? "" : ToLower(path.substr(dot + 1));
}

bool ScannerMakes(const std::string& ext) {
    return ext == "pdf" || ext == "epub" || ext == "djvu" || ext == "djv";
}

}  // namespace

CoverLoader::CoverLoader()
    : image_width_(GetThemeInt("cover.cache.image_width", 165)),
      image_height_(GetThemeInt("cover.cache.image_height", 290)) {
    LoadTypesInfo();
}

std::string CoverLoader::GetImagePath(const std::string& book) {
    std::string path;
    if (HasPrefix(book, kInternal)) {
        path = cache_dir_ + "/1" + book.substr(kPrefixLength);
    } else if (HasPrefix(book, kCard)) {
        const char* serial = GetExternalCardSerialNumber();
        unsigned long number = serial ? std::strtoul(serial, nullptr, 16) : 0;
        path = cache_dir_ + "/" + std::to_string(number) + book.substr(kPrefixLength);
    }
    return path + ".png";
}

std::string CoverLoader::GetImagePathByHash(const std::string& hash, int size) {
    return cache_dir_ + "/hashed/" + std::to_string(size) + SerializationUtils::ToHex(hash) +
           ".png";
}

int CoverLoader::LoadCover(const std::string& book, int w, int h, int flags, SmartBitmap* out) {
    return LoadCoverEx(book, w, h, flags, out, false);
}

int CoverLoader::LoadCoverForceReload(const std::string& book, int w, int h, int flags,
                                      SmartBitmap* out) {
    return LoadCoverEx(book, w, h, flags, out, true);
}

int CoverLoader::LoadCoverFromCache(const std::string& book, int w, int h, int flags,
                                    SmartBitmap* out) {
    if (BadArguments(w, h, out)) return kBadCall;
    return LoadFromCacheFile(GetImagePath(book), w, h, flags, out);
}

int CoverLoader::LoadCoverByHash(const std::string& hash, int size, int w, int h, int flags,
                                 SmartBitmap* out) {
    return LoadCoverByHashFromCache(hash, size, w, h, flags, out);
}

int CoverLoader::LoadCoverByHashFromCache(const std::string& hash, int size, int w, int h,
                                          int flags, SmartBitmap* out) {
    if (BadArguments(w, h, out)) return kBadCall;
    return LoadFromCacheFile(GetImagePathByHash(hash, size), w, h, flags, out);
}

int CoverLoader::LoadFromCacheFile(const std::string& path, int w, int h, int flags,
                                   SmartBitmap* out) {
    if (path == kNoCachePath || !Exists(path)) return kNoCover;
    SetLoadImageFlags(flags);
    out->init(LoadPNGStretch(path.c_str(), w, h, 1, 1));
    return out->isEmpty() ? kNoCover : kLoaded;
}

int CoverLoader::LoadCoverEx(const std::string& book, int w, int h, int flags, SmartBitmap* out,
                             bool force) {
    if (BadArguments(w, h, out)) return kBadCall;
    std::string cache_path = GetImagePath(book);
    int status = kNoCover;
    if (force || !Exists(cache_path)) {
        SmartBitmap cover;
        status = LoadCoverInt(book, cache_path, &cover);
        if (cover.isEmpty()) return status;
        if (cache_path == kNoCachePath) {
            // Outside the storages there is no cache file: the cover is fitted from memory, so
            // that no stray ".png" lands in the working folder to pass for every such book's.
            out->init(
                BitmapStretchCopy(cover.GetBitmap(), 0, 0, cover.width(), cover.height(), w, h));
            return out->isEmpty() ? kNoCover : kLoaded;
        }
        mg_buildpath(cache_path.c_str());
        cover.SavePNG(cache_path);
    }
    SetLoadImageFlags(flags);
    out->init(LoadPNGStretch(cache_path.c_str(), w, h, 1, 1));
    return out->isEmpty() ? status : kLoaded;
}

int CoverLoader::LoadCoverInt(const std::string& book, const std::string& cache_path,
                              SmartBitmap* out) {
    if (out == nullptr || !out->isEmpty() || image_width_ < 1 || image_height_ < 1) return kBadCall;
    FileType type = GetFileTypeByFilename(book);
    SmartBitmap cover;
    if (type.type == kTypeImage) {
        cover = GetImageCover(type.extension, book);
        if (cover.isEmpty()) return kNoCover;
    } else {
        cover.init(GetBookCover(book.c_str(), -1, -1));
        if (cover.isEmpty() && type.type != kTypeBook) return kNoCover;
    }
    if (cover.isEmpty()) {
        if (pending_.count(book)) return kPending;
        // The scanner writes where it is told: without a cache file there is nowhere to write.
        if (!ScannerMakes(Extension(book)) || cache_path == kNoCachePath) return kNoCover;
        return EnqueueToAdobe(book, cache_path);
    }
    return CoverFromBitmap(cover.GetBitmap(), out);
}

int CoverLoader::CoverFromBitmap(const ibitmap_s* bitmap, SmartBitmap* out) {
    int width = bitmap->width;
    int height = bitmap->height;
    double ratio = std::max(static_cast<double>(width) / image_width_,
                            static_cast<double>(height) / image_height_);
    int new_width = std::max(1, static_cast<int>(std::lround(width / ratio)));
    int new_height = std::max(1, static_cast<int>(std::lround(height / ratio)));
    out->init(BitmapStretchCopy(bitmap, 0, 0, width, height, new_width, new_height));
    return out->isEmpty() ? kNoCover : kLoaded;
}

int CoverLoader::EnqueueToAdobe(const std::string& book, const std::string& cache_path) {
    if (RunAdobeScanner(book, cache_path, image_width_, image_height_, false) != 0) return kBadCall;
    pending_.insert(book);
    return kPending;
}

SmartBitmap CoverLoader::GetImageCover(const std::string& ext, const std::string& book) {
    SmartBitmap cover;
    if (ext == "bmp") {
        cover.LoadBMP(book);
    } else if (ext == "png") {
        cover.LoadPNG(book, false);
    } else if (ext == "jpg" || ext == "jpeg") {
        cover.LoadJPEG(book, -1, -1, 96, 105, true);
    } else if (ext == "tif" || ext == "tiff") {
        cover.LoadTIFF(book, -1, -1, 96, 105, true);
    }
    return cover;
}

}  // namespace utilities
}  // namespace quorvel
