// Image files as covers and pictures reach the loader: SmartBitmap::Load of a file whose suffix
// picks the decoder (PNG, JPEG, BMP, TIFF, in either case), then the 8-bit form the display
// takes. A picture that loads must have the size its bitmap says and pixels to cover it.

#include <cstdlib>
#include <string>

#include "common_utilities/smartbitmap.h"
#include "fuzz_support.h"
#include "moorglass.h"

using quorvel::utilities::SmartBitmap;

namespace {
const char* const kSuffixes[] = {"png", "jpg", "jpeg", "bmp", "tif", "tiff", "PNG", "BMP"};
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const std::string path = std::string("/tmp/fuzz-image.") +
                             kSuffixes[data[0] % (sizeof kSuffixes / sizeof *kSuffixes)];
    qvfuzz::WriteFile(path, data + 1, size - 1);

    SmartBitmap picture;
    if (!picture.Load(path, (data[0] & 0x80) != 0)) return 0;
    const ibitmap* raw = picture.GetBitmap();
    QVFUZZ_CHECK(picture.width() >= 1 && picture.height() >= 1 &&
                 raw->scanline * 8 >= raw->width * raw->depth);
    const SmartBitmap grey = picture.get8bppBitmap();
    if (!grey.isEmpty()) {
        const ibitmap* g = grey.GetBitmap();
        // Touch the last pixel: a block shorter than its header claims shows here.
        volatile uint8_t last =
            g->data[static_cast<size_t>(g->scanline) * (g->height - 1) + g->width - 1];
        (void)last;
    }
    return 0;
}
