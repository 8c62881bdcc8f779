// Compressed screen frames as an application reads them back from a file or a pipe: the input
// is offered to fromCompressedStream and to fromStream. A frame that is accepted must decode the
// same on the vector unit and without it, and must write out and read back unchanged.

#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>

#include "common_utilities/compressed_bitmap.h"
#include "fuzz_support.h"
#include "moorglass.h"

using quorvel::utilities::CompressedBitmap;
using quorvel::utilities::CompressedBitmapImpl;
using quorvel::utilities::decompress_gs_scalar;

namespace {

// A white frame of any size packs into a few bytes per row, so a short stream may honestly
// describe gigabytes of pixels. Decoding is tried on frames up to 64 Kpx: every path of the
// decoders is reached by far smaller ones, and bigger ones would only spend the run's time.
constexpr size_t kMostPixelsDecoded = size_t{1} << 16;

bool SameBitmap(const ibitmap* a, const ibitmap* b) {
    if (a == nullptr || b == nullptr) return a == b;
    const size_t bytes = static_cast<size_t>(a->scanline) * a->height;
    return a->width == b->width && a->height == b->height && a->depth == b->depth &&
           a->scanline == b->scanline && std::memcmp(a->data, b->data, bytes) == 0;
}

void Check(const CompressedBitmap& frame) {
    const CompressedBitmapImpl& impl = *frame.Impl();
    if (static_cast<size_t>(impl.width) * impl.height <= kMostPixelsDecoded) {
        std::unique_ptr<ibitmap, decltype(&std::free)> vector(frame.toGrayscale8(), &std::free);
        // Both decoders start their bit readers over, so they may share the packed form.
        std::unique_ptr<ibitmap, decltype(&std::free)> scalar(
            decompress_gs_scalar(const_cast<CompressedBitmapImpl*>(&impl)), &std::free);
        QVFUZZ_CHECK(SameBitmap(vector.get(), scalar.get()));
    }
    std::stringstream first, second;
    QVFUZZ_CHECK(frame.toStream(first) == 0);
    std::unique_ptr<CompressedBitmap> reread(CompressedBitmap::fromStream(first));
    QVFUZZ_CHECK(reread && reread->toStream(second) == 0 && second.str() == first.str());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    std::istringstream packed(input);
    if (std::unique_ptr<CompressedBitmap> frame{CompressedBitmap::fromCompressedStream(packed)})
        Check(*frame);
    std::istringstream plain(input);
    if (std::unique_ptr<CompressedBitmap> frame{CompressedBitmap::fromStream(plain)}) Check(*frame);
    return 0;
}
