// Our QuickLZ codec, level 1: the frame format of the device's packed screen frames.
//
// Frames are byte for byte those of the 32-bit build of QuickLZ 1.5.0 at level 1 with no
// streaming buffer: a 3-byte header below 216 input bytes, else a 9-byte one; a compressed
// payload of control words and literal or match items, whose matches name slots of a 4096-entry
// hash table rather than offsets; or the input stored as it is when compression doesn't pay.
// Position 0 is a match candidate like any other (slots hold position + 1, 0 meaning empty).
//
// Unlike the original, the decoder trusts nothing: it reads only inside the frame it is given,
// writes only inside the destination, and refuses a frame of another setting, one that names an
// empty slot, runs a match past the end or stops short, with a status that says which. The
// states stay within the sizes the format fixes (36868 bytes to compress, 20484 to decompress)
// on every host, since slots hold 32-bit offsets, not pointers.
//
// No global state: any thread may call with states of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace utilities {
namespace quicklz {

constexpr size_t kHashSlots = 4096;
// Room a compressor's destination needs beyond the input size.
constexpr size_t kCompressOverhead = 400;
// The smallest frame there is (a 3-byte header and a 9-byte payload).
constexpr size_t kMinFrameSize = 12;

struct CompressState {
    uint32_t slots[kHashSlots];  // position + 1 of the latest entry, 0 when empty
};
struct DecompressState {
    uint32_t slots[kHashSlots];
};
static_assert(sizeof(CompressState) <= 36868, "the compressor's state is fixed by the format");
static_assert(sizeof(DecompressState) <= 20484, "the decompressor's state is fixed by the format");

enum class Status {
    kOk,
    kTruncated,     // the frame is shorter than it says, or than any frame
    kOtherSetting,  // the header is of another level or streaming setting
    kDamaged,       // inconsistent sizes, an empty slot, a match past the end
    kNoRoom,        // the destination is smaller than the frame's data
};
QV_EXPORT const char* StatusText(Status status);

// Frame size for `size` input bytes into `destination` of `capacity` bytes; 0 for an empty
// input (there is no frame of nothing), an input past 0xFFFFFFFF - 400 bytes, or a capacity
// below size + kCompressOverhead.
QV_EXPORT size_t Compress(const void* source, size_t size, void* destination, size_t capacity,
                          CompressState* state);

// What a frame's header says, checked against the bytes at hand: its total size and the size of
// its data.
QV_EXPORT Status ReadHeader(const void* frame, size_t available, size_t* frame_size,
                            size_t* data_size);

// Decodes the frame at `frame` (of which `available` bytes may be read) into `destination`.
// On success `*data_size` is the number of bytes written.
QV_EXPORT Status Decompress(const void* frame, size_t available, void* destination, size_t capacity,
                            DecompressState* state, size_t* data_size);

}  // namespace quicklz
}  // namespace utilities
}  // namespace quorvel
