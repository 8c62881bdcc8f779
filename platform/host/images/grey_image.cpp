#include "grey_image.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace qvhost {
namespace {

std::atomic<int> g_decodes{0};

int Scanline(int width, int depth) {
    return (width * depth + 7) / 8;
}

uint8_t Clamp(double value) {
    return static_cast<uint8_t>(std::lround(std::min(255.0, std::max(0.0, value))));
}

// One line of samples resized: area average when shrinking, linear when enlarging.
void ResampleLine(const float* in, int in_size, int in_step, float* out, int out_size,
                  int out_step) {
    const double scale = static_cast<double>(in_size) / out_size;
    for (int i = 0; i < out_size; ++i) {
        double value;
        if (scale > 1.0) {
            const double from = i * scale, to = from + scale;
            double sum = 0;
            for (int k = static_cast<int>(from); k < in_size && k < to; ++k) {
                const double weight = std::min<double>(k + 1, to) - std::max<double>(k, from);
                sum += weight * in[k * in_step];
            }
            value = sum / scale;
        } else {
            const double at = std::max(0.0, (i + 0.5) * scale - 0.5);
            const int k = std::min(static_cast<int>(at), in_size - 1);
            const int next = std::min(k + 1, in_size - 1);
            const double t = at - k;
            value = in[k * in_step] * (1 - t) + in[next * in_step] * t;
        }
        out[i * out_step] = static_cast<float>(value);
    }
}

}  // namespace

void CountDecode() {
    ++g_decodes;
}

ibitmap* AllocateBitmap(int width, int height, int depth) {
    if (width < 1 || height < 1 || width > 65535 || height > 65535) return nullptr;
    const size_t scanline = static_cast<size_t>(Scanline(width, depth));
    auto* bitmap = static_cast<ibitmap*>(std::malloc(sizeof(ibitmap) + scanline * height));
    if (bitmap == nullptr) return nullptr;
    bitmap->width = static_cast<unsigned short>(width);
    bitmap->height = static_cast<unsigned short>(height);
    bitmap->depth = static_cast<unsigned short>(depth);
    bitmap->scanline = static_cast<unsigned short>(scanline);
    std::memset(bitmap->data, 0xFF, scanline * height);
    return bitmap;
}

ibitmap* ToBitmap(const GreyImage& image) {
    if (image.empty()) return nullptr;
    ibitmap* bitmap = AllocateBitmap(image.width, image.height, 8);
    if (bitmap != nullptr) std::memcpy(bitmap->data, image.pixels.data(), image.pixels.size());
    return bitmap;
}

GreyImage FromBitmap(const ibitmap& bitmap) {
    GreyImage image;
    image.width = bitmap.width;
    image.height = bitmap.height;
    image.pixels.resize(static_cast<size_t>(image.width) * image.height);
    const int depth = bitmap.depth;
    if (depth != 1 && depth != 2 && depth != 4 && depth != 8) return GreyImage{};
    const int max_level = (1 << depth) - 1;
    const int per_byte = 8 / depth;
    for (int y = 0; y < image.height; ++y) {
        const uint8_t* row = bitmap.data + static_cast<size_t>(y) * bitmap.scanline;
        for (int x = 0; x < image.width; ++x) {
            const int shift = 8 - depth * (x % per_byte + 1);
            const int level = (row[x / per_byte] >> shift) & max_level;
            image.pixels[static_cast<size_t>(y) * image.width + x] =
                static_cast<uint8_t>(level * 255 / max_level);
        }
    }
    return image;
}

GreyImage Resize(const GreyImage& image, int to_width, int to_height) {
    if (image.empty() || (to_width == image.width && to_height == image.height)) return image;
    // Rows first into a float buffer, then columns, so that nothing is rounded twice.
    std::vector<float> source(image.pixels.begin(), image.pixels.end());
    std::vector<float> wide(static_cast<size_t>(to_width) * image.height);
    for (int y = 0; y < image.height; ++y)
        ResampleLine(&source[static_cast<size_t>(y) * image.width], image.width, 1,
                     &wide[static_cast<size_t>(y) * to_width], to_width, 1);
    std::vector<float> result(static_cast<size_t>(to_width) * to_height);
    for (int x = 0; x < to_width; ++x)
        ResampleLine(&wide[x], image.height, to_width, &result[x], to_height, to_width);
    GreyImage out;
    out.width = to_width;
    out.height = to_height;
    out.pixels.resize(result.size());
    std::transform(result.begin(), result.end(), out.pixels.begin(),
                   [](float v) { return Clamp(v); });
    return out;
}

void TargetSize(int width, int height, int box_width, int box_height, bool proportional,
                bool may_enlarge, int* out_width, int* out_height) {
    if (box_width < 1) box_width = width;
    if (box_height < 1) box_height = height;
    double sx = static_cast<double>(box_width) / width;
    double sy = static_cast<double>(box_height) / height;
    if (proportional) sx = sy = std::min(sx, sy);
    if (!may_enlarge) sx = std::min(sx, 1.0), sy = std::min(sy, 1.0);
    *out_width = std::max(1, static_cast<int>(std::lround(width * sx)));
    *out_height = std::max(1, static_cast<int>(std::lround(height * sy)));
}

GreyImage FitToBox(GreyImage image, int box_width, int box_height, bool proportional,
                   bool may_enlarge) {
    if (image.empty()) return image;
    int w = 0, h = 0;
    TargetSize(image.width, image.height, box_width, box_height, proportional, may_enlarge, &w, &h);
    return Resize(image, w, h);
}

void AdjustTone(GreyImage& image, int brightness, int contrast) {
    if (brightness == 100 && contrast == 100) return;
    uint8_t table[256];
    for (int level = 0; level < 256; ++level)
        table[level] = Clamp(((level - 128) * contrast / 100.0 + 128) * brightness / 100.0);
    for (auto& p : image.pixels)
        p = table[p];
}

void DitherTo16(GreyImage& image) {
    static const int kBayer[4][4] = {{0, 8, 2, 10}, {12, 4, 14, 6}, {3, 11, 1, 9}, {15, 7, 13, 5}};
    for (int y = 0; y < image.height; ++y)
        for (int x = 0; x < image.width; ++x) {
            uint8_t& p = image.pixels[static_cast<size_t>(y) * image.width + x];
            // The threshold spreads over one step of 17 levels.
            const double shifted = p + (kBayer[y & 3][x & 3] - 7.5) * 17.0 / 16.0;
            p = static_cast<uint8_t>(17 * std::min(15L, std::max(0L, std::lround(shifted / 17.0))));
        }
}

}  // namespace qvhost

extern "C" int qvhost_image_decodes(void) {
    return qvhost::g_decodes.load();
}
