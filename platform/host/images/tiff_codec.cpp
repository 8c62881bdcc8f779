// TIFF files through libtiff's RGBA reader, which takes every photometric kind and depth.

#include <tiffio.h>

#include <memory>
#include <vector>

#include "grey_image.h"
#include "moorglass.h"

namespace qvhost {
namespace {

GreyImage ReadTiff(const char* path) {
    GreyImage image;
    // libtiff's warnings and errors would go to the standard error stream of the application.
    TIFFSetErrorHandler(nullptr);
    TIFFSetWarningHandler(nullptr);
    std::unique_ptr<TIFF, void (*)(TIFF*)> tiff(TIFFOpen(path, "r"), TIFFClose);
    if (!tiff) return image;
    uint32_t width = 0, height = 0;
    TIFFGetField(tiff.get(), TIFFTAG_IMAGEWIDTH, &width);
    TIFFGetField(tiff.get(), TIFFTAG_IMAGELENGTH, &height);
    if (!WithinPixelBudget(width, height)) return image;
    // libtiff sizes its own buffers by the strip or tile the file describes, which a few bytes of
    // header can make gigabytes whatever the picture's size.
    const uint64_t chunk =
        TIFFIsTiled(tiff.get()) ? TIFFTileSize64(tiff.get()) : TIFFStripSize64(tiff.get());
    if (chunk == 0 || chunk > 8 * kMaxDecodedPixels) return image;
    std::vector<uint32_t> raster(static_cast<size_t>(width) * height);
    if (!TIFFReadRGBAImageOriented(tiff.get(), width, height, raster.data(), ORIENTATION_TOPLEFT,
                                   1))
        return image;
    image.width = static_cast<int>(width);
    image.height = static_cast<int>(height);
    image.pixels.resize(raster.size());
    for (size_t i = 0; i < raster.size(); ++i) {
        const uint32_t p = raster[i];
        image.pixels[i] = OverWhite(Luminance(TIFFGetR(p), TIFFGetG(p), TIFFGetB(p)), TIFFGetA(p));
    }
    return image;
}

}  // namespace
}  // namespace qvhost

extern "C" ibitmap* LoadTIFF(const char* path, int width, int height, int brightness, int contrast,
                             int proportional) {
    qvhost::CountDecode();
    if (path == nullptr) return nullptr;
    return qvhost::PhotoBitmap(qvhost::ReadTiff(path), width, height, brightness, contrast,
                               proportional);
}
