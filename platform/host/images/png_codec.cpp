// PNG files through libpng's simplified interface, which reads every colour type and depth.

#include <png.h>

#include <atomic>
#include <cstring>

#include "grey_image.h"
#include "moorglass.h"

namespace qvhost {
namespace {

std::atomic<int> g_load_flags{0};

GreyImage ReadPng(const char* path) {
    CountDecode();
    GreyImage image;
    if (path == nullptr) return image;
    png_image png;
    std::memset(&png, 0, sizeof png);
    png.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&png, path)) return image;
    if (!WithinPixelBudget(png.width, png.height)) {
        png_image_free(&png);
        return image;
    }
    png.format = PNG_FORMAT_GRAY;
    std::vector<uint8_t> pixels(PNG_IMAGE_SIZE(png));
    png_color white{255, 255, 255};
    if (!png_image_finish_read(&png, &white, pixels.data(), 0, nullptr)) {
        png_image_free(&png);
        return image;
    }
    image.width = static_cast<int>(png.width);
    image.height = static_cast<int>(png.height);
    image.pixels = std::move(pixels);
    return image;
}

}  // namespace
}  // namespace qvhost

extern "C" {

ibitmap* LoadPNG(const char* path, int dither) {
    qvhost::GreyImage image = qvhost::ReadPng(path);
    if (dither) qvhost::DitherTo16(image);
    return qvhost::ToBitmap(image);
}

int SetLoadImageFlags(int flags) {
    return qvhost::g_load_flags.exchange(flags);
}

ibitmap* LoadPNGStretch(const char* path, int width, int height, int dither, int proportional) {
    qvhost::GreyImage image = qvhost::ReadPng(path);
    const bool may_enlarge = !(qvhost::g_load_flags.load() & LOAD_IMAGE_NO_ENLARGE);
    image = qvhost::FitToBox(std::move(image), width, height, proportional != 0, may_enlarge);
    if (dither) qvhost::DitherTo16(image);
    return qvhost::ToBitmap(image);
}

int SavePNG(const char* path, const ibitmap* bitmap) {
    if (path == nullptr || bitmap == nullptr) return 0;
    const qvhost::GreyImage image = qvhost::FromBitmap(*bitmap);
    if (image.empty()) return 0;
    png_image png;
    std::memset(&png, 0, sizeof png);
    png.version = PNG_IMAGE_VERSION;
    png.width = static_cast<png_uint_32>(image.width);
    png.height = static_cast<png_uint_32>(image.height);
    png.format = PNG_FORMAT_GRAY;
    return png_image_write_to_file(&png, path, 0, image.pixels.data(), 0, nullptr) ? 1 : 0;
}

}  // extern "C"
