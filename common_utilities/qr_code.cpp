#include "common_utilities/qr_code.h"

#include <qrcodegen/qrcodegen.hpp>

#include <cstring>
#include <vector>

#include "common_utilities/compressed_bitmap.h"
#include "moorglass.h"

namespace quorvel {
namespace utilities {

SmartBitmap MakeQrCode(const std::string& text, int max_size) {
    const qrcodegen::QrCode code =
        qrcodegen::QrCode::encodeText(text.c_str(), qrcodegen::QrCode::Ecc::MEDIUM);
    const int modules = code.getSize();
    int scale = max_size / modules;
    if (scale < 2) scale = 1;
    const int side = scale * modules;
    if (side < 1) return SmartBitmap();
    ibitmap_s* bitmap = NewBitmap8(side, side);
    if (bitmap == nullptr) return SmartBitmap();

    // One pixel row per row of modules, made of whole runs, then copied down the module.
    std::vector<unsigned char> row(side);
    for (int y = 0; y < modules; ++y) {
        for (int x = 0; x < modules; ++x)
            std::memset(&row[static_cast<size_t>(x) * scale], code.getModule(x, y) ? 0 : 255,
                        scale);
        for (int line = 0; line < scale; ++line)
            std::memcpy(bitmap->data + static_cast<size_t>(y * scale + line) * bitmap->scanline,
                        row.data(), side);
    }
    return SmartBitmap::ToSmartBitmap(bitmap);
}

}  // namespace utilities
}  // namespace quorvel
