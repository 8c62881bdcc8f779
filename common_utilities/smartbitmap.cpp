#include "common_utilities/smartbitmap.h"

#include <sys/stat.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "moorglass.h"

// Bitmaps cross between the library, the platform and the applications: four 16-bit fields,
// then the pixels, on every architecture.
static_assert(offsetof(ibitmap_s, data) == 8 && sizeof(ibitmap_s) == 8, "bitmap header layout");

namespace quorvel {
namespace utilities {
namespace {

#include "smartbitmap_broken_image.inc"

constexpr int kBrokenSide = 48;
constexpr int kBrokenDepth = 4;
constexpr int kBrokenScanline = 24;

void FreeBitmap(const ibitmap_s* bitmap) {
    std::free(const_cast<ibitmap_s*>(bitmap));
}

ibitmap_s* MakeBrokenImage() {
    auto* bitmap =
        static_cast<ibitmap_s*>(std::malloc(sizeof(ibitmap_s) + sizeof kBrokenImagePixels));
    if (bitmap == nullptr) return nullptr;
    bitmap->width = kBrokenSide;
    bitmap->height = kBrokenSide;
    bitmap->depth = kBrokenDepth;
    bitmap->scanline = kBrokenScanline;
    std::memcpy(bitmap->data, kBrokenImagePixels, sizeof kBrokenImagePixels);
    return bitmap;
}

// Theme images by name, failed lookups included; never emptied.
std::map<std::string, SmartBitmap>& ThemeCache() {
    static std::map<std::string, SmartBitmap> cache;
    return cache;
}

bool g_screen_opened = false;

bool FileExists(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

std::string LowerAscii(std::string text) {
    for (auto& c : text)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return text;
}

}  // namespace

const SmartBitmap SmartBitmap::BrokenSmartBitmap = SmartBitmap::ToSmartBitmap(MakeBrokenImage());

SmartBitmap::SmartBitmap(int width, int height) {
    init(NewBitmap(width, height));
}

SmartBitmap::SmartBitmap(const std::string& path, bool flag) {
    Load(path, flag);
}

void SmartBitmap::init(const SmartBitmap& other) {
    bitmap_ = other.bitmap_;
}

void SmartBitmap::init(ibitmap_s* bitmap) {
    SetBitmapWithOwnership(bitmap);
}

void SmartBitmap::SetBitmapWithOwnership(const ibitmap_s* bitmap) {
    if (bitmap == nullptr)
        bitmap_.reset();
    else
        bitmap_.reset(bitmap, FreeBitmap);
}

SmartBitmap SmartBitmap::ToSmartBitmap(const ibitmap_s* bitmap) {
    SmartBitmap handle;
    handle.SetBitmapWithOwnership(bitmap);
    return handle;
}

void SmartBitmap::SetBitmap(const ibitmap_s* bitmap) {
    SetBitmapWithOwnership(CopyBitmap(bitmap));
}

std::string SmartBitmap::getExt(const std::string& path) {
    const size_t slash = path.rfind('/');
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    const size_t dot = name.rfind('.');
    return dot == std::string::npos ? std::string() : name.substr(dot + 1);
}

bool SmartBitmap::Load(const std::string& path, bool flag) {
    const std::string ext = LowerAscii(getExt(path));
    if (ext == "png") return LoadPNG(path, flag);
    if (ext == "jpeg" || ext == "jpg") return LoadJPEG(path, -1, -1, 95, 105, true);
    if (ext == "bmp") return LoadBMP(path);
    if (ext == "tiff" || ext == "tif") return LoadTIFF(path, -1, -1, 95, 105, true);
    if (ext.empty() && path.find('/') == std::string::npos) LoadFromTheme(path);
    return Loaded();
}

bool SmartBitmap::LoadPNG(const std::string& path, bool flag) {
    if (FileExists(path)) SetBitmapWithOwnership(::LoadPNG(path.c_str(), flag ? 1 : 0));
    return Loaded();
}

bool SmartBitmap::LoadJPEG(const std::string& path, int width, int height, int brightness,
                           int contrast, bool proportional) {
    SetBitmapWithOwnership(
        ::LoadJPEG(path.c_str(), width, height, brightness, contrast, proportional ? 1 : 0));
    return Loaded();
}

bool SmartBitmap::LoadTIFF(const std::string& path, int width, int height, int brightness,
                           int contrast, bool proportional) {
    SetBitmapWithOwnership(
        ::LoadTIFF(path.c_str(), width, height, brightness, contrast, proportional ? 1 : 0));
    return Loaded();
}

bool SmartBitmap::LoadBMP(const std::string& path) {
    SetBitmapWithOwnership(::LoadBitmap(path.c_str()));
    return Loaded();
}

SmartBitmap SmartBitmap::LoadFromThemeInternal(const std::string& name) {
    if (!g_screen_opened) {
        OpenScreen();
        g_screen_opened = true;
    }
    auto& cache = ThemeCache();
    const auto found = cache.find(name);
    if (found != cache.end()) return found->second;

    SmartBitmap result = BrokenSmartBitmap;
    if (ibitmap_s* resource = GetKeyResource(name.c_str(), nullptr)) {
        if (ibitmap_s* wide = CopyBitmapDepth4To8(resource)) {
            std::free(resource);
            resource = wide;
        }
        result = ToSmartBitmap(resource);
    }
    cache.emplace(name, result);
    return result;
}

void SmartBitmap::LoadFromTheme(const std::string& name) {
    *this = LoadFromThemeInternal(name);
}

void SmartBitmap::LoadFromTheme(const std::string& name, const SmartBitmap& fallback) {
    *this = LoadFromThemeInternal(name);
    if (isEmpty()) *this = fallback;
}

void SmartBitmap::FromScreen(int x, int y, int width, int height) {
    SetBitmapWithOwnership(BitmapFromScreen(x, y, width, height));
}

int SmartBitmap::SavePNG(const std::string& path) const {
    QV_RETURN_IF(!bitmap_, -1, "nothing to save as %s", path.c_str());
    return ::SavePNG(path.c_str(), bitmap_.get()) == 1 ? 0 : -1;
}

int SmartBitmap::SaveBMP(const std::string& path) const {
    QV_RETURN_IF(!bitmap_, -1, "nothing to save as %s", path.c_str());
    return ::SaveBitmap(path.c_str(), bitmap_.get()) == 1 ? 0 : -1;
}

void SmartBitmap::Release() {
    bitmap_.reset();
}

bool SmartBitmap::isEmpty() const {
    return !bitmap_ || bitmap_ == BrokenSmartBitmap.bitmap_;
}

SmartBitmap SmartBitmap::get8bppBitmap() const {
    if (!bitmap_) return SmartBitmap();
    if (bitmap_->depth == 8) return *this;
    if (bitmap_->depth == 4) return ToSmartBitmap(CopyBitmapDepth4To8(bitmap_.get()));
    return SmartBitmap();
}

int SmartBitmap::width() const {
    return bitmap_ ? bitmap_->width : 0;
}

int SmartBitmap::height() const {
    return bitmap_ ? bitmap_->height : 0;
}

int SmartBitmap::depth() const {
    return bitmap_ ? bitmap_->depth : 0;
}

std::pair<int, int> SmartBitmap::GetSize() const {
    return {width(), height()};
}

}  // namespace utilities
}  // namespace quorvel
