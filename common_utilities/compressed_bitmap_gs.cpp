// Packing RGB565 frames into grey groups and back. The grey arithmetic is fixed by the stored
// format: g = min(255, 5 * (p >> 12) + 5 * ((p >> 6) & 31) + (p & 31)), of which the high nibble
// is kept. The vector path converts 8 pixels in one sequence and expands runs of 8 grey groups
// 16 bytes at a time, with SSE2 on the host and NEON on the device (the compiler's generic
// vectors elsewhere); the scalar path does the same one pixel at a time and is kept to check
// the vector one against.

#include <algorithm>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#elif defined(__ARM_NEON)
#include <arm_neon.h>
#endif

#include "common_utilities/compressed_bitmap.h"
#include "moorglass.h"

namespace quorvel {
namespace utilities {
namespace {

constexpr uint32_t kWhiteWord = 0xFFFFFFFFu;
constexpr int kGroupBytes = 8;  // 4 pixels of RGB565
constexpr int kGroupPixels = 4;

// Codes of 8 groups in a row, first group in the lowest bits: all grey (1, 0 each), all black.
constexpr uint32_t kEightGrey = 0x5555, kEightBlack = 0xFFFF, kEightWhite = 0;

inline uint32_t Load32(const uint8_t* p) {
    uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// Two grey groups (4 pixels each, as they lie in memory) to 4 bytes of two levels each.
struct VectorGrey {
    void operator()(uint64_t first, uint64_t second, uint8_t* out) const {
#if defined(__SSE2__)
        const __m128i p =
            _mm_set_epi64x(static_cast<long long>(second), static_cast<long long>(first));
        const __m128i five_times = _mm_add_epi16(
            _mm_srli_epi16(p, 12), _mm_and_si128(_mm_srli_epi16(p, 6), _mm_set1_epi16(31)));
        __m128i g = _mm_add_epi16(_mm_mullo_epi16(five_times, _mm_set1_epi16(5)),
                                  _mm_and_si128(p, _mm_set1_epi16(31)));
        g = _mm_min_epi16(g, _mm_set1_epi16(255));  // at most 261: the signed minimum serves
        // Each 32-bit lane holds a pixel pair: the left level's high nibble, the right one's.
        __m128i bytes = _mm_or_si128(_mm_and_si128(g, _mm_set1_epi32(0xF0)),
                                     _mm_and_si128(_mm_srli_epi32(g, 20), _mm_set1_epi32(0x0F)));
        bytes = _mm_packs_epi32(bytes, bytes);
        bytes = _mm_packus_epi16(bytes, bytes);
        const uint32_t four = static_cast<uint32_t>(_mm_cvtsi128_si32(bytes));
        std::memcpy(out, &four, 4);
#elif defined(__ARM_NEON)
        const uint16x8_t p = vcombine_u16(vcreate_u16(first), vcreate_u16(second));
        const uint16x8_t five_times =
            vaddq_u16(vshrq_n_u16(p, 12), vandq_u16(vshrq_n_u16(p, 6), vdupq_n_u16(31)));
        const uint16x8_t g =
            vminq_u16(vmlaq_n_u16(vandq_u16(p, vdupq_n_u16(31)), five_times, 5), vdupq_n_u16(255));
        const uint8x8x2_t halves = vuzp_u8(vmovn_u16(g), vmovn_u16(g));
        const uint8x8_t bytes =
            vorr_u8(vand_u8(halves.val[0], vdup_n_u8(0xF0)), vshr_n_u8(halves.val[1], 4));
        const uint32_t four = vget_lane_u32(vreinterpret_u32_u8(bytes), 0);
        std::memcpy(out, &four, 4);
#else
        typedef uint16_t U16x8 __attribute__((vector_size(16)));
        typedef uint32_t U32x4 __attribute__((vector_size(16)));
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
#endif
    }
};

// 16 grey bytes (8 groups) to 32 pixels, each level n becoming n * 17.
inline void ExpandSixteen(const uint8_t* in, uint8_t* out) {
#if defined(__SSE2__)
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
    const __m128i high = _mm_and_si128(v, _mm_set1_epi8(static_cast<char>(0xF0)));
    const __m128i low = _mm_and_si128(v, _mm_set1_epi8(0x0F));
    const __m128i left = _mm_or_si128(high, _mm_srli_epi16(high, 4));
    const __m128i right = _mm_or_si128(low, _mm_slli_epi16(low, 4));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_unpacklo_epi8(left, right));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 16), _mm_unpackhi_epi8(left, right));
#elif defined(__ARM_NEON)
    const uint8x16_t v = vld1q_u8(in);
    const uint8x16_t left = vorrq_u8(vandq_u8(v, vdupq_n_u8(0xF0)), vshrq_n_u8(v, 4));
    const uint8x16_t right = vorrq_u8(vandq_u8(v, vdupq_n_u8(0x0F)), vshlq_n_u8(v, 4));
    vst2q_u8(out, uint8x16x2_t{{left, right}});
#else
    for (int k = 0; k < 16; ++k) {
        out[2 * k] = static_cast<uint8_t>((in[k] & 0xF0) | (in[k] >> 4));
        out[2 * k + 1] = static_cast<uint8_t>((in[k] & 0x0F) | (in[k] << 4));
    }
#endif
}

// The reference paths stay one pixel at a time: the compiler must not vectorise them behind
// our back, or they would neither check nor measure the vector path.
#if defined(__GNUC__) && !defined(__clang__)
#define QV_NO_AUTO_VECTOR __attribute__((optimize("no-tree-vectorize")))
#else
#define QV_NO_AUTO_VECTOR
#endif

struct ScalarGrey {
    static unsigned Level(unsigned p) {
        return std::min(255u, 5 * (p >> 12) + 5 * ((p >> 6) & 31) + (p & 31));
    }
    QV_NO_AUTO_VECTOR void operator()(uint64_t first, uint64_t second, uint8_t* out) const {
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
    QV_NO_AUTO_VECTOR void operator()(const uint8_t* in, uint8_t* out) const {
        for (int k = 0; k < 2; ++k) {
            const uint8_t b = in[k];
            out[2 * k] = static_cast<uint8_t>((b & 0xF0) | (b >> 4));
            out[2 * k + 1] = static_cast<uint8_t>((b & 0x0F) | (b << 4));
        }
    }
};

// Runs of 8 grey or black groups, or 16 white ones, whose codes lie in one word, are taken at
// once on the vector path.
bool TakeRun(BitBuffer& groups, const CompressedBitmapImpl& impl, uint8_t* pixels, int pixels_left,
             int groups_left, uint32_t* taken, int* done) {
    uint32_t bits = 0;
    if (groups_left < 8 || pixels_left < 32 || !groups.Peek16(&bits)) return false;
    if (bits == kEightWhite && groups_left >= 16) {
        *done = 16;  // the bitmap starts white
    } else if (bits == kEightBlack) {
        std::memset(pixels, 0, 32);
        *done = 8;
    } else if (bits == kEightGrey && impl.data_size >= 16 && *taken <= impl.data_size - 16) {
        ExpandSixteen(impl.data.get() + *taken, pixels);
        *taken += 16;
        *done = 8;
    } else {
        return false;
    }
    groups.Skip16();
    return true;
}

template <bool kRuns, typename Expand>
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
        for (int group = 0; group < groups_per_row;) {
            const int x = group * kGroupPixels;
            int done = 0;
            if (kRuns &&
                TakeRun(groups, *impl, row + x, width - x, groups_per_row - group, &taken, &done)) {
                group += done;
                continue;
            }
            ++group;
            if (!groups.GetBit()) continue;
            uint8_t pixels[kGroupPixels] = {0, 0, 0, 0};
            if (!groups.GetBit()) {
                // The unpaired last grey group has no bytes: it stays white.
                const bool stored = impl->data_size >= 2 && taken <= impl->data_size - 2;
                expand(stored ? impl->data.get() + taken : kWhite, pixels);
                taken += 2;
            }
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
    return Decompress<true>(impl, table);
}

ibitmap_s* decompress_gs_scalar(CompressedBitmapImpl* impl) {
    return Decompress<false>(impl, ScalarExpand{});
}

}  // namespace utilities
}  // namespace quorvel
