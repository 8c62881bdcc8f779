// Our QuickLZ codec both ways. The input is taken as a frame, as a reader of packed screens
// meets it: decoded into exactly the room its header asks for and into one byte less, which
// must be refused. Then the input is taken as data: compressed and decoded again, it must come
// back byte for byte, and the compressor must never run past the room it was given.

#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "common_utilities/quicklz.h"
#include "fuzz_support.h"

namespace qlz = quorvel::utilities::quicklz;

namespace {

void DecodeAsFrame(const uint8_t* data, size_t size, qlz::DecompressState* state) {
    size_t frame_size = 0, data_size = 0;
    if (qlz::ReadHeader(data, size, &frame_size, &data_size) != qlz::Status::kOk) return;
    QVFUZZ_CHECK(frame_size <= size);
    std::vector<uint8_t> out(data_size);
    size_t produced = 0;
    if (qlz::Decompress(data, size, out.data(), out.size(), state, &produced) == qlz::Status::kOk)
        QVFUZZ_CHECK(produced == data_size);
    QVFUZZ_CHECK(qlz::Decompress(data, size, out.data(), data_size - 1, state, &produced) ==
                 qlz::Status::kNoRoom);
}

void RoundTrip(const uint8_t* data, size_t size, qlz::DecompressState* state) {
    if (size == 0) return;
    auto compress_state = std::make_unique<qlz::CompressState>();
    std::vector<uint8_t> frame(size + qlz::kCompressOverhead);
    const size_t frame_size =
        qlz::Compress(data, size, frame.data(), frame.size(), compress_state.get());
    QVFUZZ_CHECK(frame_size != 0 && frame_size <= frame.size());
    std::vector<uint8_t> back(size);
    size_t produced = 0;
    QVFUZZ_CHECK(qlz::Decompress(frame.data(), frame_size, back.data(), back.size(), state,
                                 &produced) == qlz::Status::kOk);
    QVFUZZ_CHECK(produced == size && std::memcmp(back.data(), data, size) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto state = std::make_unique<qlz::DecompressState>();
    DecodeAsFrame(data, size, state.get());
    RoundTrip(data, size, state.get());
    return 0;
}
