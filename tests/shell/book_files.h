// Helpers of the cover tests: books made at test time and the size of a PNG.
#pragma once

#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <utility>

#include <sys/stat.h>

#include "sample_books.h"

namespace qvtest {

// Width and height from a PNG's header; (0, 0) for anything else.
inline std::pair<int, int> PngSize(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    unsigned char header[24] = {};
    if (!in.read(reinterpret_cast<char*>(header), sizeof header) || header[1] != 'P' ||
        header[12] != 'I') {
        return {0, 0};
    }
    auto big = [&header](int at) {
        return (header[at] << 24) | (header[at + 1] << 16) | (header[at + 2] << 8) | header[at + 3];
    };
    return {big(16), big(20)};
}

inline bool Exists(const std::string& path) {
    struct stat info;
    return ::stat(path.c_str(), &info) == 0;
}

inline bool WaitForFile(const std::string& path, std::chrono::milliseconds timeout) {
    auto until = std::chrono::steady_clock::now() + timeout;
    while (!Exists(path)) {
        if (std::chrono::steady_clock::now() > until) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

}  // namespace qvtest
