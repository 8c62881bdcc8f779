// Packing RGB565 frames into grey groups and back. The grey arithmetic is fixed by the stored
// format: g = min(255, 5 * (p >> 12) + 5 * ((p >> 6) & 31) + (p & 31)), of which the high nibble
// is kept. The vector path does 8 pixels in one sequence with the compiler's generic vectors
// (SSE2 on the host, NEON on the device); the scalar path does the same one pixel at a time.

#include <algorithm>
#include <cstring>

#include "common_utilities/compressed_bitmap.h"
#include "moorglass.h"

namespace quorvel {
namespace utilities {
namespace {

constexpr uint32_t kWhiteWord = 0xFFFFFFFFu;
constexpr int kGroupBytes = 8;  // 4 pixels of RGB565
constexpr int kGroupPixels = 4;

typedef uint16_t U16x8 __attribute__((vector_size(16)));
typedef uint32_t U32x4 __attribute__((vector_size(16)));

inline uint32_t Load32(const uint8_t* p) {
    uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// Two grey groups (4 pixels each, as they lie in memory) to 4 bytes of two levels each.
struct VectorGrey {
    void operator()(uint64_t first, uint64_t second, uint8_t* out) const {
        U16x8 p;
        std::memcpy(&p, &first, 8);
        std::memcpy(reinterpret_cast<char*>(&p) + 8, &second, 8);
        U16x8 g = (p >> 12) * 5 + ((p >> 6) & 31) * 5 + (p & 31);
        g = g > 255 ? U16x8{} + 255 : g;
        U32x4 pairs;
        std::memcpy(&pairs, &g, sizeof pairs);
        const U32x4 bytes = (pairs & 0xF0) | ((pairs >> 20) & 0x0F);
        for (int k = 0; k < 4; ++k)
            out[k] = static_cast<uint8_t>(bytes[k]);
    }
};

struct ScalarGrey {
    static unsigned Level(unsigned p) {
        return std::min(255u, 5 * (p >> 12) + 5 * ((p >> 6) & 31) + (p & 31));
    }
    void operator()(uint64_t first, uint64_t second, uint8_t* out) const {
        uint16_t pixels[8];
        std::memcpy(pixels, &first, 8);
        std::memcpy(pixels + 4, &second, 8);
        for (int k = 0; k < 4; ++k)
            out[k] = static_cast<uint8_t>((Level(pixels[2 * k]) & 0xF0) |
                                          (Level(pixels[2 * k + 1]) >> 4));
    }
};

bool ValidSource(const mg_img_conv* source) {
    if (source == nullptr || source->width < 0 || source->height < 0 || source->width > 65535 ||
        source->height > 65535 || source->stride < 0)
        return false;
    return source->data != nullptr || source->width == 0 || source->height == 0;
}

CompressedBitmapImpl* NewImpl(int width, int height) {
    auto* impl = new CompressedBitmapImpl;
    impl->width = static_cast<uint16_t>(width);
    impl->height = static_cast<uint16_t>(height);
    impl->row_bytes = static_cast<uint16_t>((width + 1) / 2);
    const uint32_t data_capacity = static_cast<uint32_t>(impl->row_bytes) * impl->height;
    impl->data.reset(new uint8_t[std::max<uint32_t>(data_capacity, 1)]);
    impl->row_bits = std::make_unique<BitBuffer>(4 + ((impl->height + 7) >> 3));
    impl->group_bits = std::make_unique<BitBuffer>(((impl->row_bytes + 32u) * impl->height) >> 3);
    return impl;
}

template <typename Grey>
CompressedBitmapImpl* Compress(const mg_img_conv* source, Grey grey) {
    if (!ValidSource(source)) return nullptr;
    CompressedBitmapImpl* impl = NewImpl(source->width, source->height);
    BitBuffer& rows = *impl->row_bits;
    BitBuffer& groups = *impl->group_bits;
    uint8_t* data = impl->data.get();
    uint32_t data_size = 0;
    // Groups lie inside both the stride and the row's own pixels, so that padding past the
    // pixels never becomes a group that a reader would not expect.
    const int group_end = std::min(source->stride, 2 * source->width) - (kGroupBytes - 1);
    uint64_t held = 0;
    bool holding = false;
    for (int y = 0; y < source->height; ++y) {
        const auto* row =
            static_cast<const uint8_t*>(source->data) + static_cast<size_t>(y) * source->stride;
        const uint32_t row_start = groups.used;
        bool all_white = true;
        for (int offset = 0; offset < group_end; offset += kGroupBytes) {
            const uint32_t low = Load32(row + offset), high = Load32(row + offset + 4);
            if ((low & high) == kWhiteWord) {
                groups.PutBit(false);
                continue;
            }
            all_white = false;
            groups.PutBit(true);
            if ((low | high) == 0) {
                groups.PutBit(true);
                continue;
            }
            groups.PutBit(false);
            const uint64_t group = low | static_cast<uint64_t>(high) << 32;
            if (holding) {
                grey(held, group, data + data_size);
                data_size += 4;
            } else {
                held = group;
            }
            holding = !holding;
        }
        groups.Flush();
        if (all_white) groups.used = row_start;
        rows.PutBit(!all_white);
    }
    rows.Flush();
    impl->data_size = data_size;
    return impl;
}

// Four pixels from 2 grey bytes, each level n becoming n * 17.
struct TableExpand {
    uint16_t pairs[256];
    TableExpand() {
        for (int b = 0; b < 256; ++b) {
            const uint8_t left = static_cast<uint8_t>((b & 0xF0) | (b >> 4));
            const uint8_t right = static_cast<uint8_t>((b & 0x0F) | (b << 4));
            const uint8_t both[2] = {left, right};
            std::memcpy(&pairs[b], both, 2);
        }
    }
    void operator()(const uint8_t* in, uint8_t* out) const {
        std::memcpy(out, &pairs[in[0]], 2);
        std::memcpy(out + 2, &pairs[in[1]], 2);
    }
};

struct ScalarExpand {
    void operator()(const uint8_t* in, uint8_t* out) const {
        for (int k = 0; k < 2; ++k) {
            const uint8_t b = in[k];
            out[2 * k] = static_cast<uint8_t>((b & 0xF0) | (b >> 4));
            out[2 * k + 1] = static_cast<uint8_t>((b & 0x0F) | (b << 4));
        }
    }
};

template <typename Expand>
ibitmap_s* Decompress(CompressedBitmapImpl* impl, const Expand& expand) {
    if (impl == nullptr || !impl->row_bits || !impl->group_bits) return nullptr;
    const int width = impl->width, height = impl->height;
    ibitmap_s* bitmap = NewBitmap8(width, height);
    if (bitmap == nullptr) return nullptr;
    BitBuffer& rows = *impl->row_bits;
    BitBuffer& groups = *impl->group_bits;
    rows.StartReading();
    groups.StartReading();
    static const uint8_t kWhite[2] = {0xFF, 0xFF};
    const int groups_per_row = impl->row_bytes / 2;
    uint32_t taken = 0;
    for (int y = 0; y < height; ++y) {
        if (!rows.GetBit()) continue;  // the bitmap starts white
        uint8_t* row = bitmap->data + static_cast<size_t>(y) * width;
        for (int group = 0; group < groups_per_row; ++group) {
            if (!groups.GetBit()) continue;
            uint8_t pixels[kGroupPixels] = {0, 0, 0, 0};
            if (!groups.GetBit()) {
                // The unpaired last grey group has no bytes: it stays white.
                const bool stored = impl->data_size >= 2 && taken <= impl->data_size - 2;
                expand(stored ? impl->data.get() + taken : kWhite, pixels);
                taken += 2;
            }
            const int x = group * kGroupPixels;
            std::memcpy(row + x, pixels, std::min(kGroupPixels, width - x));
        }
        groups.SkipToNextWord();
    }
    return bitmap;
}

}  // namespace

CompressedBitmapImpl* compress_to_gs(const mg_img_conv* source) {
    return Compress(source, VectorGrey{});
}

CompressedBitmapImpl* compress_to_gs_scalar(const mg_img_conv* source) {
    return Compress(source, ScalarGrey{});
}

ibitmap_s* decompress_gs(CompressedBitmapImpl* impl) {
    static const TableExpand table;
    return Decompress(impl, table);
}

ibitmap_s* decompress_gs_scalar(CompressedBitmapImpl* impl) {
    return Decompress(impl, ScalarExpand{});
}

}  // namespace utilities
}  // namespace quorvel
