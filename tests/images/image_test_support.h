// Files made at test time for the image tests: pictures written by ImageMagick's convert, and
// reading back a bitmap's pixels.
#pragma once

#include <string>
#include <vector>

#include "moorglass.h"

namespace qvtest {

// Runs /usr/bin/convert with `args` (a shell word list); fails the test when it fails.
void Convert(const std::string& args);
// A 40 x 20 picture, black on the left half and white on the right, in /tmp/images/base.png.
std::string HalfBlackPicture();
// The grey level of pixel (x, y) of a depth-8 bitmap.
int Pixel(const ibitmap* bitmap, int x, int y);
// Truncates `path` to `size` bytes.
void Truncate(const std::string& path, long size);
long FileSize(const std::string& path);

}  // namespace qvtest
