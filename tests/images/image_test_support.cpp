#include "image_test_support.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

namespace qvtest {

void Convert(const std::string& args) {
    ::mkdir("/tmp/images", 0755);
    const std::string command = "/usr/bin/convert " + args;
    ASSERT_EQ(0, std::system(command.c_str())) << command;
}

std::string HalfBlackPicture() {
    const std::string path = "/tmp/images/base.png";
    Convert("-size 40x20 xc:white -fill black -draw 'rectangle 0,0 19,19' " + path);
    return path;
}

int Pixel(const ibitmap* bitmap, int x, int y) {
    return bitmap->data[static_cast<size_t>(y) * bitmap->scanline + x];
}

void Truncate(const std::string& path, long size) {
    ASSERT_EQ(0, ::truncate(path.c_str(), size)) << path;
}

long FileSize(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 ? static_cast<long>(info.st_size) : -1;
}

}  // namespace qvtest
