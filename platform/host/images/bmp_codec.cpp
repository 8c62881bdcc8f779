// Windows bitmap files, read and written here: the format is small enough, and no Debian library
// reads it alone. Every field is checked against the file's size before it is used.

#include <cstdio>
#include <fstream>
#include <iterator>
#include <vector>

#include "grey_image.h"
#include "moorglass.h"

namespace qvhost {
namespace {

constexpr uint32_t kRgb = 0, kRle8 = 1, kRle4 = 2, kBitfields = 3;

uint32_t Le(const std::vector<uint8_t>& file, size_t at, int bytes) {
    uint32_t value = 0;
    for (int i = bytes - 1; i >= 0; --i)
        value = value << 8 | file[at + i];
    return value;
}

struct BmpLayout {
    int width = 0, height = 0, bits = 0;
    bool top_down = false;
    bool rle = false;
    size_t pixels = 0, stride = 0;
    std::vector<uint8_t> palette;  // grey of each entry
};

bool ReadLayout(const std::vector<uint8_t>& file, BmpLayout* out) {
    if (file.size() < 54 || file[0] != 'B' || file[1] != 'M') return false;
    const uint32_t header_size = Le(file, 14, 4);
    if (header_size < 40 || 14 + static_cast<size_t>(header_size) > file.size()) return false;
    const int32_t width = static_cast<int32_t>(Le(file, 18, 4));
    const int32_t height = static_cast<int32_t>(Le(file, 22, 4));
    const uint32_t bits = Le(file, 28, 2), compression = Le(file, 30, 4);
    if (!WithinPixelBudget(width < 0 ? 0 : width, height < 0 ? -int64_t{height} : height))
        return false;
    if (bits != 1 && bits != 4 && bits != 8 && bits != 24 && bits != 32) return false;
    const bool rle = (compression == kRle8 && bits == 8) || (compression == kRle4 && bits == 4);
    if (compression != kRgb && !rle && !(compression == kBitfields && bits == 32)) return false;
    if (rle && height < 0) return false;  // run-length bitmaps are stored bottom-up only
    out->width = width;
    out->height = height < 0 ? -height : height;
    out->top_down = height < 0;
    out->bits = static_cast<int>(bits);
    out->rle = rle;
    out->pixels = Le(file, 10, 4);
    out->stride = (static_cast<size_t>(width) * bits + 31) / 32 * 4;
    if (out->pixels > file.size()) return false;
    if (!rle && file.size() - out->pixels < out->stride * out->height) return false;  // truncated
    if (bits <= 8) {
        size_t colours = Le(file, 46, 4);
        if (colours == 0 || colours > (1u << bits)) colours = 1u << bits;
        const size_t table = 14 + header_size;
        if (table + colours * 4 > out->pixels) return false;
        out->palette.assign(1u << bits, 0);
        for (size_t i = 0; i < colours; ++i)
            out->palette[i] =
                Luminance(file[table + i * 4 + 2], file[table + i * 4 + 1], file[table + i * 4]);
    }
    return true;
}

uint8_t Pixel(const BmpLayout& layout, const uint8_t* row, int x) {
    switch (layout.bits) {
        case 1:
            return layout.palette[(row[x / 8] >> (7 - x % 8)) & 1];
        case 4:
            return layout.palette[(x & 1) ? (row[x / 2] & 15) : (row[x / 2] >> 4)];
        case 8:
            return layout.palette[row[x]];
        default: {
            const uint8_t* p = row + x * (layout.bits / 8);
            return Luminance(p[2], p[1], p[0]);
        }
    }
}

// Palette indices of a run-length bitmap, top row first; pixels the runs skip keep index 0.
// False when the runs leave the file or the picture: a damaged or truncated file.
bool DecodeRle(const std::vector<uint8_t>& file, const BmpLayout& layout,
               std::vector<uint8_t>* indices) {
    const int w = layout.width, h = layout.height;
    indices->assign(static_cast<size_t>(w) * h, 0);
    auto put = [&](int x, int y, uint8_t index) {
        if (x >= w || y >= h) return false;
        (*indices)[static_cast<size_t>(h - 1 - y) * w + x] = index;
        return true;
    };
    auto nibble = [&](uint8_t value, int k) -> uint8_t {
        return layout.bits == 4 ? ((k & 1) ? value & 15 : value >> 4) : value;
    };
    size_t at = layout.pixels;
    int x = 0, y = 0;
    while (at + 2 <= file.size()) {
        const int count = file[at], value = file[at + 1];
        at += 2;
        if (count > 0) {
            for (int k = 0; k < count; ++k)
                if (!put(x++, y, nibble(static_cast<uint8_t>(value), k))) return false;
        } else if (value == 0) {
            x = 0, ++y;
        } else if (value == 1) {
            return true;
        } else if (value == 2) {
            if (at + 2 > file.size()) return false;
            x += file[at], y += file[at + 1];
            at += 2;
        } else {
            const size_t bytes = layout.bits == 4 ? (value + 1) / 2 : value;
            if (at + bytes > file.size()) return false;
            for (int k = 0; k < value; ++k)
                if (!put(x++, y, nibble(file[at + (layout.bits == 4 ? k / 2 : k)], k)))
                    return false;
            at += (bytes + 1) & ~size_t{1};
        }
    }
    return false;  // no end-of-bitmap mark: truncated
}

void PutLe(std::vector<uint8_t>& out, uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i)
        out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

}  // namespace
}  // namespace qvhost

extern "C" {

ibitmap* LoadBitmap(const char* path) {
    qvhost::CountDecode();
    if (path == nullptr) return nullptr;
    std::ifstream in(path, std::ios::binary);
    if (!in) return nullptr;
    const std::vector<uint8_t> file((std::istreambuf_iterator<char>(in)),
                                    std::istreambuf_iterator<char>());
    qvhost::BmpLayout layout;
    if (!qvhost::ReadLayout(file, &layout)) return nullptr;
    qvhost::GreyImage image;
    image.width = layout.width;
    image.height = layout.height;
    image.pixels.resize(static_cast<size_t>(image.width) * image.height);
    if (layout.rle) {
        std::vector<uint8_t> indices;
        if (!qvhost::DecodeRle(file, layout, &indices)) return nullptr;
        for (size_t i = 0; i < indices.size(); ++i)
            image.pixels[i] = layout.palette[indices[i]];
        return qvhost::ToBitmap(image);
    }
    for (int y = 0; y < image.height; ++y) {
        const int stored = layout.top_down ? y : image.height - 1 - y;
        const uint8_t* row = &file[layout.pixels + layout.stride * stored];
        for (int x = 0; x < image.width; ++x)
            image.pixels[static_cast<size_t>(y) * image.width + x] = qvhost::Pixel(layout, row, x);
    }
    return qvhost::ToBitmap(image);
}

int SaveBitmap(const char* path, const ibitmap* bitmap) {
    if (path == nullptr || bitmap == nullptr) return 0;
    const qvhost::GreyImage image = qvhost::FromBitmap(*bitmap);
    if (image.empty()) return 0;
    const uint32_t stride = (static_cast<uint32_t>(image.width) + 3) / 4 * 4;
    const uint32_t offset = 14 + 40 + 256 * 4;
    std::vector<uint8_t> out;
    out.push_back('B');
    out.push_back('M');
    qvhost::PutLe(out, offset + stride * image.height, 4);
    qvhost::PutLe(out, 0, 4);
    qvhost::PutLe(out, offset, 4);
    for (uint32_t v :
         {40u, static_cast<uint32_t>(image.width), static_cast<uint32_t>(image.height)})
        qvhost::PutLe(out, v, 4);
    qvhost::PutLe(out, 1, 2);
    qvhost::PutLe(out, 8, 2);
    for (uint32_t v : {0u, stride * image.height, 2835u, 2835u, 256u, 0u})
        qvhost::PutLe(out, v, 4);
    for (uint32_t level = 0; level < 256; ++level)
        qvhost::PutLe(out, level * 0x010101u, 4);
    for (int y = image.height - 1; y >= 0; --y) {
        const uint8_t* row = &image.pixels[static_cast<size_t>(y) * image.width];
        out.insert(out.end(), row, row + image.width);
        out.insert(out.end(), stride - image.width, 0);
    }
    std::FILE* file = std::fopen(path, "wb");
    if (file == nullptr) return 0;
    const bool written = std::fwrite(out.data(), 1, out.size(), file) == out.size();
    return (std::fclose(file) == 0 && written) ? 1 : 0;
}

}  // extern "C"
