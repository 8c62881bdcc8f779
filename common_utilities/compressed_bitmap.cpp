#include "common_utilities/compressed_bitmap.h"

#include <cstdlib>
#include <cstring>
#include <vector>

#include "common_utilities/membuf.h"
#include "common_utilities/quicklz.h"
#include "moorglass.h"

namespace quorvel {
namespace utilities {
namespace {

// Room left in the block of toCompressedStream for the header and the row bits.
constexpr size_t kStreamSlack = 10240;
// Streams are read in pieces, so that a damaged size fails at the stream's end rather than by
// allocating what it claims.
constexpr size_t kReadPiece = 1 << 20;

void PutLe(std::ostream& out, uint32_t value, int bytes) {
    char buffer[4];
    for (int i = 0; i < bytes; ++i)
        buffer[i] = static_cast<char>(value >> (8 * i));
    out.write(buffer, bytes);
}

bool GetLe(std::istream& in, int bytes, uint32_t* value) {
    unsigned char buffer[4] = {0, 0, 0, 0};
    if (!in.read(reinterpret_cast<char*>(buffer), bytes)) return false;
    *value = buffer[0] | buffer[1] << 8 | static_cast<uint32_t>(buffer[2]) << 16 |
             static_cast<uint32_t>(buffer[3]) << 24;
    return true;
}

bool ReadBytes(std::istream& in, size_t size, std::vector<uint8_t>* bytes) {
    bytes->clear();
    while (bytes->size() < size) {
        const size_t piece = std::min(kReadPiece, size - bytes->size());
        const size_t at = bytes->size();
        bytes->resize(at + piece);
        if (!in.read(reinterpret_cast<char*>(bytes->data() + at),
                     static_cast<std::streamsize>(piece)))
            return false;
    }
    return true;
}

// A bit buffer as the stream gives it: its used size, then its words, no more than `capacity`.
std::unique_ptr<BitBuffer> ReadBits(std::istream& in, uint32_t capacity) {
    uint32_t used = 0;
    std::vector<uint8_t> bytes;
    if (!GetLe(in, 4, &used) || used % 4 != 0 || used > capacity || !ReadBytes(in, used, &bytes))
        return nullptr;
    auto bits = std::make_unique<BitBuffer>(used);
    if (used != 0) std::memcpy(bits->bytes.get(), bytes.data(), used);
    bits->used = used;
    return bits;
}

void WriteBits(std::ostream& out, const BitBuffer& bits) {
    PutLe(out, bits.used, 4);
    out.write(reinterpret_cast<const char*>(bits.bytes.get()), bits.used);
}

}  // namespace

BitBuffer::BitBuffer(uint32_t capacity_bytes)
    : capacity(capacity_bytes), bytes(new uint8_t[std::max<uint32_t>(capacity_bytes, 4)]) {}

void BitBuffer::Flush() {
    // The writers size their buffers for the most a frame can need; this guard only keeps a
    // mistake from writing past the block.
    if (used + 4 <= capacity) {
        const uint32_t w = word;
        const uint8_t le[4] = {static_cast<uint8_t>(w), static_cast<uint8_t>(w >> 8),
                               static_cast<uint8_t>(w >> 16), static_cast<uint8_t>(w >> 24)};
        std::memcpy(bytes.get() + used, le, 4);
        used += 4;
    }
    word = 0;
    mask = 1;
}

uint32_t BitBuffer::WordAt(uint32_t offset) const {
    if (offset + 4 > used || offset + 4 < offset) return 0;
    const uint8_t* p = bytes.get() + offset;
    return p[0] | p[1] << 8 | static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

ibitmap_s* NewBitmap8(int width, int height) {
    if (width < 1 || height < 1 || width > 65535 || height > 65535) return nullptr;
    const size_t pixels = static_cast<size_t>(width) * height;
    auto* bitmap = static_cast<ibitmap_s*>(std::malloc(pixels + 12));
    if (bitmap == nullptr) return nullptr;
    bitmap->width = static_cast<unsigned short>(width);
    bitmap->height = static_cast<unsigned short>(height);
    bitmap->depth = 8;
    bitmap->scanline = static_cast<unsigned short>(width);
    std::memset(bitmap->data, 0xFF, pixels);
    return bitmap;
}

CompressedBitmap::CompressedBitmap() = default;
CompressedBitmap::~CompressedBitmap() = default;
CompressedBitmap::CompressedBitmap(CompressedBitmapImpl* impl) : impl_(impl) {}

CompressedBitmap* CompressedBitmap::fromRGB565(const void* pixels, int width, int height,
                                               int stride) {
    mg_img_conv source;
    source.data = pixels;
    source.width = width;
    source.height = height;
    source.stride = stride;
    CompressedBitmapImpl* impl = compress_to_gs(&source);
    return impl == nullptr ? nullptr : new CompressedBitmap(impl);
}

ibitmap_s* CompressedBitmap::toGrayscale8() const {
    return decompress_gs(impl_.get());
}

int CompressedBitmap::toStream(std::ostream& out) const {
    QV_RETURN_IF(!impl_, -1);
    for (uint16_t field : {impl_->width, impl_->height, impl_->depth, impl_->row_bytes})
        PutLe(out, field, 2);
    PutLe(out, impl_->data_size, 4);
    out.write(reinterpret_cast<const char*>(impl_->data.get()), impl_->data_size);
    WriteBits(out, *impl_->row_bits);
    WriteBits(out, *impl_->group_bits);
    QV_RETURN_UNLESS(out.good(), -1);
    return 0;
}

CompressedBitmap* CompressedBitmap::fromStream(std::istream& in) {
    uint32_t width = 0, height = 0, depth = 0, row_bytes = 0, data_size = 0;
    const bool header = GetLe(in, 2, &width) && GetLe(in, 2, &height) && GetLe(in, 2, &depth) &&
                        GetLe(in, 2, &row_bytes) && GetLe(in, 4, &data_size);
    QV_RETURN_UNLESS(header, nullptr, "the stream ends inside the frame's header");
    const bool consistent = depth == 4 && row_bytes == (width + 1) / 2 &&
                            data_size <= row_bytes * height && data_size % 4 == 0;
    QV_RETURN_UNLESS(consistent, nullptr, "the frame's header is damaged");

    std::unique_ptr<CompressedBitmapImpl> impl(new CompressedBitmapImpl);
    impl->width = static_cast<uint16_t>(width);
    impl->height = static_cast<uint16_t>(height);
    impl->row_bytes = static_cast<uint16_t>(row_bytes);
    std::vector<uint8_t> data;
    QV_RETURN_UNLESS(ReadBytes(in, data_size, &data), nullptr, "the stream ends inside the data");
    impl->data.reset(new uint8_t[std::max<uint32_t>(data_size, 1)]);
    if (data_size != 0) std::memcpy(impl->data.get(), data.data(), data_size);
    impl->data_size = data_size;
    impl->row_bits = ReadBits(in, 4 + ((height + 7) >> 3));
    impl->group_bits = impl->row_bits ? ReadBits(in, ((row_bytes + 32) * height) >> 3) : nullptr;
    QV_RETURN_UNLESS(impl->group_bits, nullptr, "the frame's bit buffers are damaged");
    return new CompressedBitmap(impl.release());
}

int CompressedBitmap::toCompressedStream(std::ostream& out) const {
    QV_RETURN_IF(!impl_, -1);
    std::vector<char> block(impl_->data_size + impl_->group_bits->used + kStreamSlack);
    membuf buffer(block.data(), block.size());
    std::ostream serial(&buffer);
    QV_RETURN_UNLESS(toStream(serial) == 0, -1);
    const size_t size = buffer.written();

    std::vector<char> frame(size + quicklz::kCompressOverhead);
    auto state = std::make_unique<quicklz::CompressState>();
    const size_t frame_size =
        quicklz::Compress(block.data(), size, frame.data(), frame.size(), state.get());
    QV_RETURN_IF(frame_size == 0, -1);
    PutLe(out, static_cast<uint32_t>(size), 4);
    PutLe(out, static_cast<uint32_t>(frame_size), 4);
    out.write(frame.data(), static_cast<std::streamsize>(frame_size));
    QV_RETURN_UNLESS(out.good(), -1);
    return 0;
}

CompressedBitmap* CompressedBitmap::fromCompressedStream(std::istream& in) {
    uint32_t size = 0, frame_size = 0;
    QV_RETURN_UNLESS(GetLe(in, 4, &size) && GetLe(in, 4, &frame_size), nullptr,
                     "the stream ends inside its sizes");
    std::vector<uint8_t> frame;
    QV_RETURN_UNLESS(ReadBytes(in, frame_size, &frame), nullptr,
                     "the stream ends inside its frame");
    size_t claimed_frame = 0, claimed_size = 0;
    quicklz::Status status =
        quicklz::ReadHeader(frame.data(), frame.size(), &claimed_frame, &claimed_size);
    if (status == quicklz::Status::kOk && (claimed_frame != frame_size || claimed_size != size))
        status = quicklz::Status::kDamaged;
    QV_RETURN_UNLESS(status == quicklz::Status::kOk, nullptr, "%s", quicklz::StatusText(status));

    std::vector<char> block(size);
    auto state = std::make_unique<quicklz::DecompressState>();
    size_t produced = 0;
    status = quicklz::Decompress(frame.data(), frame.size(), block.data(), block.size(),
                                 state.get(), &produced);
    QV_RETURN_UNLESS(status == quicklz::Status::kOk, nullptr, "%s", quicklz::StatusText(status));
    membuf buffer(block.data(), produced);
    std::istream serial(&buffer);
    return fromStream(serial);
}

}  // namespace utilities
}  // namespace quorvel
