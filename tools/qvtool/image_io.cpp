#include "image_io.h"

#include <sys/stat.h>

#include <cstdio>
#include <fstream>

#include "cli.h"

namespace qvtool {

using quorvel::utilities::SmartBitmap;

SmartBitmap LoadPictureOrFail(const std::string& path) {
    struct stat info {};
    const bool theme = path.find('/') == std::string::npos && SmartBitmap::getExt(path).empty();
    if (!theme && ::stat(path.c_str(), &info) != 0) throw Failure(kNotFound, "no file " + path);
    SmartBitmap picture;
    if (!picture.Load(path, false)) {
        if (theme) throw Failure(kNotFound, "the theme has no image " + path);
        throw Failure(kFailed, path +
                                   " can't be read as a picture (PNG, JPEG, BMP or TIFF, "
                                   "by its extension), or is damaged");
    }
    return picture;
}

void WriteFileOrFail(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.close();
    if (!out) throw Failure(kFailed, "can't write " + path);
}

std::string SizeText(size_t bytes) {
    char text[64];
    if (bytes < 10000)
        std::snprintf(text, sizeof text, "%zu bytes", bytes);
    else if (bytes < 10000000)
        std::snprintf(text, sizeof text, "%zu bytes (%.1f KB)", bytes, bytes / 1024.0);
    else
        std::snprintf(text, sizeof text, "%zu bytes (%.1f MB)", bytes, bytes / 1048576.0);
    return text;
}

}  // namespace qvtool
