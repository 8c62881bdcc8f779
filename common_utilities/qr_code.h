// MakeQrCode: a text as a QR code bitmap ready for the display.
//
// The code is encoded with medium error correction by the qrcodegen library. Each module becomes
// a square of `max_size / n` pixels (n modules on a side; a quotient below 2 gives 1 pixel, so a
// box too small for a readable code gives a larger code, never a blurred one), dark modules 0 and
// light ones 255, in an 8-bit bitmap whose side is a whole multiple of n and so usually a little
// below `max_size`. There is no quiet zone round the code: the caller leaves the margin.
//
// A text too long for any QR code raises the library's exception (std::length_error,
// "Data too long"); nothing else is thrown.
#pragma once

#include <string>

#include "common_utilities/common_utilities.h"
#include "common_utilities/smartbitmap.h"

namespace quorvel {
namespace utilities {

QV_EXPORT SmartBitmap MakeQrCode(const std::string& text, int max_size);

}  // namespace utilities
}  // namespace quorvel
