#include "common_utilities/quicklz.h"

#include <algorithm>
#include <cstring>

namespace quorvel {
namespace utilities {
namespace quicklz {
namespace {

constexpr size_t kLongHeaderFrom = 216;
constexpr size_t kMaxInput = 0xFFFFFFFFu - 400;
constexpr size_t kMinPayload = 9;
constexpr int kGroupItems = 31;
constexpr size_t kMaxMatch = 255;
constexpr size_t kShortMatchMax = 17;
// The main phase stops where fewer than 11 bytes remain: the last of them are always literals.
constexpr size_t kTailBytes = 10;
constexpr uint8_t kHeaderBase = 0x44;  // level 1, no streaming buffer
constexpr uint8_t kCompressedBit = 0x01, kLongHeaderBit = 0x02;
constexpr uint32_t kSentinel = 0x80000000u;

inline uint32_t Hash(const uint8_t* p) {
    const uint32_t v = p[0] | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16;
    return (v ^ (v >> 12)) & 0xFFF;
}

inline void Put32(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
    p[2] = static_cast<uint8_t>(v >> 16);
    p[3] = static_cast<uint8_t>(v >> 24);
}

inline uint32_t Get32(const uint8_t* p) {
    return p[0] | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}

inline uint64_t Load64(const uint8_t* p) {
    uint64_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

size_t HeaderSize(size_t size) {
    return size < kLongHeaderFrom ? 3 : 9;
}

void WriteHeader(uint8_t* out, bool compressed, size_t frame_size, size_t size) {
    const bool long_header = HeaderSize(size) == 9;
    out[0] = kHeaderBase | (compressed ? kCompressedBit : 0) | (long_header ? kLongHeaderBit : 0);
    if (long_header) {
        Put32(out + 1, static_cast<uint32_t>(frame_size));
        Put32(out + 5, static_cast<uint32_t>(size));
    } else {
        out[1] = static_cast<uint8_t>(frame_size);
        out[2] = static_cast<uint8_t>(size);
    }
}

size_t Store(const uint8_t* in, size_t size, uint8_t* out) {
    const size_t header = HeaderSize(size);
    WriteHeader(out, false, header + size, size);
    std::memcpy(out + header, in, size);
    return header + size;
}

// Length of the match of `in + i` against `in + c` (c < i, 3 bytes known equal) that ends before
// the last 4 bytes and is at most 255 long; the limit counts only from the sixth byte on. The
// first 8 bytes can always be read: i <= size - 11.
size_t MatchLength(const uint8_t* in, size_t c, size_t i, size_t size) {
    const size_t limit = std::min(kMaxMatch, size - 4 - i);
    const uint64_t head = Load64(in + c) ^ Load64(in + i);
    if (head != 0) {
        const size_t equal = static_cast<size_t>(__builtin_ctzll(head)) / 8;
        return equal < 6 ? equal : std::min(equal, limit);
    }
    size_t length = 8;
    if (length >= limit) return limit;
    while (length + 8 <= limit) {
        const uint64_t diff = Load64(in + c + length) ^ Load64(in + i + length);
        if (diff != 0) return length + static_cast<size_t>(__builtin_ctzll(diff)) / 8;
        length += 8;
    }
    while (length < limit && in[c + length] == in[i + length])
        ++length;
    return length;
}

// Taken when the candidate holds the same 3 bytes at least 3 back, or just 1 back inside a run
// of one byte value that began at least 3 literals ago.
bool IsMatch(const uint8_t* in, size_t c, size_t i, size_t literals) {
    if (in[c] != in[i] || in[c + 1] != in[i + 1] || in[c + 2] != in[i + 2]) return false;
    if (i - c >= 3) return true;
    if (i - c != 1 || literals < 3 || i < 4) return false;
    for (size_t k = i - 3; k <= i + 3; ++k)
        if (in[k] != in[i]) return false;
    return true;
}

// Appends `length` bytes copied forward from `from` at `at` (`from` < `at`, overlap allowed).
// Far enough from the end, whole 16-byte chunks are copied (the bytes past the match that the
// last one writes are overwritten by what follows). A source closer than 16 bytes repeats with
// its distance as period, so the chunks read a whole number of periods back instead, once that
// much of the match is there.
inline void CopyMatch(uint8_t* out, size_t from, size_t at, size_t length, size_t size) {
    const size_t distance = at - from;
    if (size - at < length + 16) {
        for (size_t k = 0; k < length; ++k)
            out[at + k] = out[from + k];
        return;
    }
    const size_t step = distance >= 16 ? distance : distance * ((15 + distance) / distance);
    size_t k = 0;
    for (; k < step - distance && k < length; ++k)
        out[at + k] = out[from + k];
    for (; k < length; k += 16)
        std::memcpy(out + at + k, out + at + k - step, 16);
}

class Encoder {
public:
    Encoder(uint8_t* out) : out_(out) {}

    size_t length() const { return length_; }
    int items() const { return items_; }
    void Literal(uint8_t byte) {
        out_[length_++] = byte;
        ++items_;
    }
    void Match(uint32_t hash, size_t length) {
        flags_ |= 1u << items_++;
        if (length <= kShortMatchMax) {
            const uint32_t w = hash << 4 | static_cast<uint32_t>(length - 2);
            out_[length_++] = static_cast<uint8_t>(w);
            out_[length_++] = static_cast<uint8_t>(w >> 8);
        } else {
            const uint32_t w = hash << 4;
            out_[length_++] = static_cast<uint8_t>(w);
            out_[length_++] = static_cast<uint8_t>(w >> 8);
            out_[length_++] = static_cast<uint8_t>(length);
        }
    }
    // Closes the group in its reserved place and reserves the next one's control word.
    void NextGroup() {
        Finish();
        control_ = length_;
        length_ += 4;
        flags_ = 0;
        items_ = 0;
    }
    void Finish() { Put32(out_ + control_, flags_ | kSentinel); }
    void Pad() {
        while (length_ < kMinPayload)
            out_[length_++] = 0;
    }

private:
    uint8_t* out_;
    size_t length_ = 4;  // the first control word is reserved
    size_t control_ = 0;
    uint32_t flags_ = 0;
    int items_ = 0;
};

}  // namespace

const char* StatusText(Status status) {
    switch (status) {
        case Status::kOk:
            return "ok";
        case Status::kTruncated:
            return "the frame is truncated";
        case Status::kOtherSetting:
            return "the frame is of another QuickLZ setting (not level 1)";
        case Status::kDamaged:
            return "the frame is damaged";
        case Status::kNoRoom:
            return "the frame's data does not fit the destination";
    }
    return "unknown status";
}

size_t Compress(const void* source, size_t size, void* destination, size_t capacity,
                CompressState* state) {
    if (size == 0 || size > kMaxInput || capacity < size + kCompressOverhead) return 0;
    const auto* in = static_cast<const uint8_t*>(source);
    auto* out = static_cast<uint8_t*>(destination);
    const size_t header = HeaderSize(size);
    std::memset(state->slots, 0, sizeof state->slots);
    Encoder encoder(out + header);
    size_t i = 0, literals = 0;

    for (; size > kTailBytes && i <= size - kTailBytes - 1;) {
        if (encoder.items() == kGroupItems) {
            // Past the half-way point, a group that didn't shrink the data by 1/32 gives up.
            if (i > size / 2 && encoder.length() > i - i / 32) return Store(in, size, out);
            encoder.NextGroup();
        }
        const uint32_t hash = Hash(in + i);
        const uint32_t slot = state->slots[hash];
        state->slots[hash] = static_cast<uint32_t>(i + 1);
        if (slot != 0 && IsMatch(in, slot - 1, i, literals)) {
            const size_t length = MatchLength(in, slot - 1, i, size);
            encoder.Match(hash, length);
            i += length;
            literals = 0;
        } else {
            encoder.Literal(in[i++]);
            ++literals;
        }
    }
    for (; i < size; ++i) {
        if (encoder.items() == kGroupItems) encoder.NextGroup();
        encoder.Literal(in[i]);
    }
    encoder.Finish();
    encoder.Pad();
    const size_t frame_size = header + encoder.length();
    WriteHeader(out, true, frame_size, size);
    return frame_size;
}

Status ReadHeader(const void* frame, size_t available, size_t* frame_size, size_t* data_size) {
    const auto* in = static_cast<const uint8_t*>(frame);
    if (available < 3) return Status::kTruncated;
    if ((in[0] & 0xFC) != kHeaderBase) return Status::kOtherSetting;
    const bool long_header = (in[0] & kLongHeaderBit) != 0;
    const size_t header = long_header ? 9 : 3;
    if (available < header) return Status::kTruncated;
    const size_t total = long_header ? Get32(in + 1) : in[1];
    const size_t size = long_header ? Get32(in + 5) : in[2];
    // The header's length follows from the size alone, and a frame is never below 12 bytes.
    if (size == 0 || HeaderSize(size) != header || total < kMinFrameSize) return Status::kDamaged;
    const bool compressed = (in[0] & kCompressedBit) != 0;
    if (!compressed && total != header + size) return Status::kDamaged;
    // No item yields more than 85 bytes per byte it takes (a 3-byte match of 255).
    if (compressed && size / 85 > total) return Status::kDamaged;
    if (total > available) return Status::kTruncated;
    *frame_size = total;
    *data_size = size;
    return Status::kOk;
}

Status Decompress(const void* frame, size_t available, void* destination, size_t capacity,
                  DecompressState* state, size_t* data_size) {
    size_t total = 0, size = 0;
    const Status header_status = ReadHeader(frame, available, &total, &size);
    if (header_status != Status::kOk) return header_status;
    if (size > capacity) return Status::kNoRoom;
    const auto* in = static_cast<const uint8_t*>(frame);
    auto* out = static_cast<uint8_t*>(destination);
    const size_t header = (in[0] & kLongHeaderBit) ? 9 : 3;
    if (!(in[0] & kCompressedBit)) {
        std::memcpy(out, in + header, size);
        *data_size = size;
        return Status::kOk;
    }

    std::memset(state->slots, 0, sizeof state->slots);
    const uint8_t* p = in + header;
    const uint8_t* const end = in + total;
    size_t produced = 0, next = 0;
    uint32_t control = 1;
    while (produced < size) {
        if (control == 1) {
            if (end - p < 4) return Status::kTruncated;
            control = Get32(p);
            p += 4;
            if (!(control & kSentinel)) return Status::kDamaged;
        }
        const bool match = control & 1;
        control >>= 1;
        if (!match) {
            if (p >= end) return Status::kTruncated;
            out[produced++] = *p++;
            continue;
        }
        if (end - p < 2) return Status::kTruncated;
        const uint32_t hash = (p[0] >> 4) | static_cast<uint32_t>(p[1]) << 4;
        size_t length = p[0] & 0x0F;
        p += 2;
        if (length != 0) {
            length += 2;
        } else {
            if (p >= end) return Status::kTruncated;
            length = *p++;
            if (length <= kShortMatchMax) return Status::kDamaged;
        }
        // Every position with three known bytes before the match is entered first; the match's
        // own first two positions and its start only after the copy.
        const size_t at = produced;
        for (; next + 3 <= at; ++next)
            state->slots[Hash(out + next)] = static_cast<uint32_t>(next + 1);
        const uint32_t slot = state->slots[hash];
        if (slot == 0 || length > size - at) return Status::kDamaged;
        CopyMatch(out, slot - 1, at, length, size);
        produced = at + length;
        for (; next < at; ++next)
            state->slots[Hash(out + next)] = static_cast<uint32_t>(next + 1);
        // The match starts with the three bytes the item's hash was made of.
        state->slots[hash] = static_cast<uint32_t>(at + 1);
        next = produced;
    }
    *data_size = size;
    return Status::kOk;
}

}  // namespace quicklz
}  // namespace utilities
}  // namespace quorvel
