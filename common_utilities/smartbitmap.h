// SmartBitmap: a shared handle to a platform bitmap (ibitmap_s), with a loader that picks the
// decoder by the file's extension, a cache of theme images, and a built-in picture that stands
// for a failed load.
//
// Copies share the pixels; the block goes back to the platform's allocator (free) with the last
// handle. The reference count is atomic, so handles may be copied and dropped on any thread; the
// theme cache has no lock and is for the UI thread only. The cache lives until the library is
// unloaded and remembers failed lookups too, so no theme image is decoded twice and a missing one
// is asked for only once.
//
// The broken image (48 x 48, depth 4) marks a failure: a handle holding it reports isEmpty(),
// yet it can be drawn, and it is what LoadFromTheme leaves when the theme has no such image.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>

#include "common_utilities/common_utilities.h"

struct ibitmap_s;

namespace quorvel {
namespace utilities {

class QV_EXPORT SmartBitmap {
public:
    SmartBitmap() = default;
    // A new white bitmap of the platform (NewBitmap).
    SmartBitmap(int width, int height);
    // Load(path, flag).
    SmartBitmap(const std::string& path, bool flag);
    SmartBitmap(const SmartBitmap&) = default;
    SmartBitmap& operator=(const SmartBitmap&) = default;
    ~SmartBitmap() = default;

    // Share `other`'s pixels.
    void init(const SmartBitmap& other);
    // Take ownership of a block from malloc (NULL empties the handle).
    void init(ibitmap_s* bitmap);
    void SetBitmapWithOwnership(const ibitmap_s* bitmap);
    static SmartBitmap ToSmartBitmap(const ibitmap_s* bitmap);
    // Keep a private copy (CopyBitmap); the argument stays the caller's.
    void SetBitmap(const ibitmap_s* bitmap);

    // Loaders report whether the handle now holds a real picture (neither null nor broken). A
    // failed decoder leaves the handle empty.
    // By extension, ignoring case: png, jpeg/jpg, bmp, tiff/tif; a bare name without "/" is a
    // theme image; anything else leaves the handle as it was. `flag` reaches only PNG.
    bool Load(const std::string& path, bool flag);
    // Only when the file exists; `flag` is the platform's dither switch.
    bool LoadPNG(const std::string& path, bool flag);
    bool LoadJPEG(const std::string& path, int width, int height, int brightness, int contrast,
                  bool proportional);
    bool LoadTIFF(const std::string& path, int width, int height, int brightness, int contrast,
                  bool proportional);
    bool LoadBMP(const std::string& path);
    // The theme image `name` (at depth 8 when the platform can widen it), or the broken image.
    void LoadFromTheme(const std::string& name);
    // The same, with `fallback` standing in for a missing image.
    void LoadFromTheme(const std::string& name, const SmartBitmap& fallback);
    // A copy of a part of the screen.
    void FromScreen(int x, int y, int width, int height);

    // What follows the last "." of the last path element; "" when it has no dot.
    static std::string getExt(const std::string& path);

    // 0 when written, -1 otherwise (a null handle is logged).
    int SavePNG(const std::string& path) const;
    int SaveBMP(const std::string& path) const;

    void Release();
    // Null or the broken image.
    bool isEmpty() const;
    // Still owned by the handle.
    const ibitmap_s* GetBitmap() const { return bitmap_.get(); }
    // Depth 8: these pixels; depth 4: a widened copy; anything else: empty.
    SmartBitmap get8bppBitmap() const;
    int width() const;
    int height() const;
    int depth() const;
    std::pair<int, int> GetSize() const;

    // The built-in picture of a failed load; compares equal by pointer.
    static const SmartBitmap BrokenSmartBitmap;

    bool operator==(const SmartBitmap& other) const { return bitmap_ == other.bitmap_; }
    bool operator!=(const SmartBitmap& other) const { return bitmap_ != other.bitmap_; }

private:
    static SmartBitmap LoadFromThemeInternal(const std::string& name);
    bool Loaded() const { return !isEmpty(); }

    std::shared_ptr<const ibitmap_s> bitmap_;
};

}  // namespace utilities
}  // namespace quorvel
