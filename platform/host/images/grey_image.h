// The host's decoders and writers work on plain 8-bit grey pictures; these helpers turn them into
// the platform's bitmaps and back, and do the scaling, tone and dithering the loaders offer.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "moorglass.h"

namespace qvhost {

// The most pixels a decoder takes on. A file's header names its size before any pixel data, so a
// file of a few bytes could otherwise make the decoder allocate gigabytes (and throw out of a C
// entry point). 32 Mpx is more than ten device screens, and a larger photo than covers come as.
constexpr uint64_t kMaxDecodedPixels = uint64_t{1} << 25;
inline bool WithinPixelBudget(uint64_t width, uint64_t height) {
    return width >= 1 && height >= 1 && width <= 65535 && height <= 65535 &&
           width * height <= kMaxDecodedPixels;
}

struct GreyImage {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> pixels;  // width * height, row after row

    bool empty() const { return width < 1 || height < 1; }
};

// A malloc'd bitmap of `depth` with white (all bits set) pixels; NULL for sizes out of range.
ibitmap* AllocateBitmap(int width, int height, int depth);
// A depth-8 bitmap of the picture; NULL for an empty one.
ibitmap* ToBitmap(const GreyImage& image);
// The picture of a bitmap of any depth, levels spread over 0..255.
GreyImage FromBitmap(const ibitmap& bitmap);

// Grey from colour, by the usual luminance weights, and laid over white by `alpha`.
inline uint8_t Luminance(unsigned r, unsigned g, unsigned b) {
    return static_cast<uint8_t>((299 * r + 587 * g + 114 * b + 500) / 1000);
}
inline uint8_t OverWhite(unsigned grey, unsigned alpha) {
    return static_cast<uint8_t>((grey * alpha + 255 * (255 - alpha) + 127) / 255);
}

// Area-averaging shrink, bilinear enlargement; `to_width`, `to_height` at least 1.
GreyImage Resize(const GreyImage& image, int to_width, int to_height);
// The size a picture takes in a box: the box itself, or with `proportional` the largest size
// that fits and keeps the proportions; -1 for a side of the box keeps the picture's.
void TargetSize(int width, int height, int box_width, int box_height, bool proportional,
                bool may_enlarge, int* out_width, int* out_height);
// Resize to the box of a loader (no change when the box keeps the picture's size).
GreyImage FitToBox(GreyImage image, int box_width, int box_height, bool proportional,
                   bool may_enlarge);
// Contrast and brightness in percent (100 = unchanged).
void AdjustTone(GreyImage& image, int brightness, int contrast);
// What the photo decoders (JPEG, TIFF) hand out: the picture fitted to its box (always allowed
// to grow), toned, as a bitmap; NULL for an empty picture.
ibitmap* PhotoBitmap(GreyImage image, int box_width, int box_height, int brightness, int contrast,
                     int proportional);
// Ordered dither to 16 levels (n * 17).
void DitherTo16(GreyImage& image);

// Every decoder counts its file here (qvhost_image_decodes).
void CountDecode();

}  // namespace qvhost
