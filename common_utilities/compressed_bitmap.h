// CompressedBitmap: a full-screen RGB565 frame kept small, as 16 grey levels two pixels to a
// byte, where a white row costs one bit and a white or black group of 4 pixels one or two.
//
// The packed form (CompressedBitmapImpl):
// - `row_bits`: one bit per row, 0 for a row whose groups are all white (nothing else is stored
//   for it), 1 otherwise.
// - `group_bits`: for each row marked 1, one code per group of 4 pixels (0 white, 11 black, 10
//   grey), the row's codes starting on a fresh 32-bit word; the row's last word is always
//   written, even when the codes just filled the one before, and a reader skips it likewise.
// - `data`: 2 bytes per grey group, in order, the high nibble of each pixel's grey level. Grey
//   groups are converted in pairs (8 pixels at once on the vector unit), so with an odd number
//   of grey groups the last one is not stored; it decodes as white.
// Bit buffers fill from the least significant bit up and go out as little-endian 32-bit words.
//
// A row is read in groups while 8 bytes of both the row's stride and its pixels remain: the rest
// of a row (a width that isn't a multiple of 4) stays white.
//
// Stream forms, little-endian: toStream writes width, height, depth, row_bytes (2 bytes each),
// data_size (4), the grey bytes, then each bit buffer as its used size (4) and its words;
// toCompressedStream writes the uncompressed size (4), the frame size (4) and a QuickLZ level-1
// frame of that stream. The readers check every size against the frame's dimensions and refuse a
// damaged stream (nullptr, with a log line) instead of reading past what they were given.
//
// No shared state: any thread may use its own objects.
#pragma once

#include <cstdint>
#include <istream>
#include <memory>
#include <ostream>

#include "common_utilities/common_utilities.h"

struct ibitmap_s;

namespace quorvel {
namespace utilities {

// The source of a conversion: RGB565 pixels, `stride` bytes from one row to the next.
struct mg_img_conv {
    const void* data = nullptr;
    int width = 0;
    int height = 0;
    int stride = 0;
};

// A buffer of bits, written or read one at a time. `word` and `mask` are the word being filled
// or read and its current bit; `read_pos` is the offset of the word being read.
struct QV_EXPORT BitBuffer {
    explicit BitBuffer(uint32_t capacity_bytes);

    uint32_t capacity = 0;
    uint32_t used = 0;
    uint32_t word = 0;
    uint32_t mask = 1;
    std::unique_ptr<uint8_t[]> bytes;
    uint32_t read_pos = 0;

    void PutBit(bool bit) {
        if (bit) word |= mask;
        mask <<= 1;
        if (mask == 0) Flush();
    }
    // Writes the current word out, whatever it holds, and starts a fresh one.
    void Flush();
    void StartReading() {
        read_pos = 0;
        word = WordAt(0);
        mask = 1;
    }
    bool GetBit() {
        const bool bit = (word & mask) != 0;
        mask <<= 1;
        if (mask == 0) SkipToNextWord();
        return bit;
    }
    // The next 16 bits without taking them, when the current word still holds that many.
    bool Peek16(uint32_t* bits) const {
        if (mask > (1u << 16)) return false;
        *bits = (word / mask) & 0xFFFF;
        return true;
    }
    void Skip16() {
        mask <<= 16;
        if (mask == 0) SkipToNextWord();
    }
    void SkipToNextWord() {
        read_pos += 4;
        word = WordAt(read_pos);
        mask = 1;
    }

private:
    // Past what was written, a reader sees zero bits.
    uint32_t WordAt(uint32_t offset) const;
};

struct QV_EXPORT CompressedBitmapImpl {
    uint16_t width = 0;
    uint16_t height = 0;
    uint16_t depth = 4;
    uint16_t row_bytes = 0;
    std::unique_ptr<uint8_t[]> data;
    uint32_t data_size = 0;
    std::unique_ptr<BitBuffer> row_bits;
    std::unique_ptr<BitBuffer> group_bits;
};

// The packed form of a frame; nullptr for a size out of range (width or height negative or past
// 65535, a negative stride, no pixels with rows to read). The caller owns it.
QV_EXPORT CompressedBitmapImpl* compress_to_gs(const mg_img_conv* source);
// A new depth-8 bitmap (malloc, the caller's); nullptr for a width or height of 0.
QV_EXPORT ibitmap_s* decompress_gs(CompressedBitmapImpl* impl);
// The same work without the vector unit, kept to check it against and to measure it by.
QV_EXPORT CompressedBitmapImpl* compress_to_gs_scalar(const mg_img_conv* source);
QV_EXPORT ibitmap_s* decompress_gs_scalar(CompressedBitmapImpl* impl);

// A white 8-bit bitmap with scanline = width in a block of width * height + 12 bytes; nullptr
// when either side is below 1 (or past 65535).
QV_EXPORT ibitmap_s* NewBitmap8(int width, int height);

class QV_EXPORT CompressedBitmap {
public:
    CompressedBitmap();  // without a packed frame
    ~CompressedBitmap();
    CompressedBitmap(const CompressedBitmap&) = delete;
    CompressedBitmap& operator=(const CompressedBitmap&) = delete;

    // A new object the caller owns; nullptr when compress_to_gs refuses the sizes.
    static CompressedBitmap* fromRGB565(const void* pixels, int width, int height, int stride);
    static CompressedBitmap* fromStream(std::istream& in);
    static CompressedBitmap* fromCompressedStream(std::istream& in);

    // decompress_gs of the packed frame; nullptr without one.
    ibitmap_s* toGrayscale8() const;
    // 0 when written; -1 without a packed frame or when the stream fails.
    int toStream(std::ostream& out) const;
    int toCompressedStream(std::ostream& out) const;

    const CompressedBitmapImpl* Impl() const { return impl_.get(); }

private:
    explicit CompressedBitmap(CompressedBitmapImpl* impl);

    std::unique_ptr<CompressedBitmapImpl> impl_;
};

}  // namespace utilities
}  // namespace quorvel
