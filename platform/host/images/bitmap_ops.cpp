// Bitmaps made, copied and scaled by the platform.

#include <cstdlib>
#include <cstring>

#include "grey_image.h"
#include "moorglass.h"

using qvhost::AllocateBitmap;

extern "C" {

ibitmap* NewBitmap(int width, int height) {
    return AllocateBitmap(width, height, 8);
}

ibitmap* CopyBitmap(const ibitmap* bitmap) {
    if (bitmap == nullptr) return nullptr;
    const size_t size = sizeof(ibitmap) + static_cast<size_t>(bitmap->scanline) * bitmap->height;
    auto* copy = static_cast<ibitmap*>(std::malloc(size));
    if (copy != nullptr) std::memcpy(copy, bitmap, size);
    return copy;
}

ibitmap* CopyBitmapDepth4To8(const ibitmap* bitmap) {
    if (bitmap == nullptr || bitmap->depth != 4) return nullptr;
    ibitmap* copy = AllocateBitmap(bitmap->width, bitmap->height, 8);
    if (copy == nullptr) return nullptr;
    for (int y = 0; y < bitmap->height; ++y) {
        const unsigned char* in = bitmap->data + static_cast<size_t>(y) * bitmap->scanline;
        unsigned char* out = copy->data + static_cast<size_t>(y) * copy->scanline;
        for (int x = 0; x < bitmap->width; ++x) {
            const int level = (x & 1) ? (in[x / 2] & 0x0F) : (in[x / 2] >> 4);
            out[x] = static_cast<unsigned char>(level * 17);
        }
    }
    return copy;
}

ibitmap* BitmapStretchCopy(const ibitmap* bitmap, int x, int y, int width, int height,
                           int new_width, int new_height) {
    if (bitmap == nullptr || x < 0 || y < 0 || width < 1 || height < 1 || new_width < 1 ||
        new_height < 1 || x + width > bitmap->width || y + height > bitmap->height)
        return nullptr;
    const qvhost::GreyImage whole = qvhost::FromBitmap(*bitmap);
    if (whole.empty()) return nullptr;
    qvhost::GreyImage part;
    part.width = width;
    part.height = height;
    part.pixels.resize(static_cast<size_t>(width) * height);
    for (int row = 0; row < height; ++row)
        std::memcpy(&part.pixels[static_cast<size_t>(row) * width],
                    &whole.pixels[static_cast<size_t>(y + row) * whole.width + x], width);
    return qvhost::ToBitmap(qvhost::Resize(part, new_width, new_height));
}

}  // extern "C"
