// Files of the image commands (image, qr, frame, qlz): reading pictures through the library,
// writing results, and sizes as people read them.
#pragma once

#include <string>

#include "common_utilities/smartbitmap.h"

namespace qvtool {

// The picture at `path`, loaded by its extension as applications load it (a bare name without
// "/" or extension is a theme image). kNotFound when the file isn't there, kFailed when it can't
// be decoded.
quorvel::utilities::SmartBitmap LoadPictureOrFail(const std::string& path);
// Writes `bytes` to `path`, replacing it; kFailed when that fails.
void WriteFileOrFail(const std::string& path, const std::string& bytes);
// "1 234 567 bytes (1.2 MB)".
std::string SizeText(size_t bytes);

}  // namespace qvtool
