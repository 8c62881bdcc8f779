// Packing a 1072 x 1448 screen frame into grey groups and unpacking it, on the vector unit
// against the scalar path, for a page of text and for a photo; and the whole QuickLZ stream of
// the page (pack, serialise, compress) against zlib level 1 on the raw RGB565 frame.

#include <benchmark/benchmark.h>
#include <zlib.h>

#include <cstdlib>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "common_utilities/compressed_bitmap.h"
#include "moorglass.h"
#include "ratio_reporter.h"

namespace {

using namespace quorvel::utilities;

constexpr int kWidth = 1072, kHeight = 1448;

// Text: lines of black strokes with grey edges on white, margins, a blank band; photo: smooth
// shades with noise everywhere.
std::vector<uint16_t> MakeFrame(bool photo) {
    std::vector<uint16_t> pixels(static_cast<size_t>(kWidth) * kHeight, 0xFFFF);
    std::mt19937 random(photo ? 7 : 8);
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x) {
            uint16_t& p = pixels[static_cast<size_t>(y) * kWidth + x];
            if (photo) {
                p = static_cast<uint16_t>(((x + y) / 9 % 32) << 11 | (y / 23 % 64) << 5 |
                                          (random() & 31));
            } else if (x >= 60 && x < 1012 && y % 40 >= 10 && y % 40 < 32 && y < 1300) {
                const int phase = (x + y / 40 * 13) % 11;
                if (phase < 2)
                    p = 0;
                else if (phase == 2)
                    p = static_cast<uint16_t>(random());
            }
        }
    return pixels;
}

const std::vector<uint16_t>& Frame(bool photo) {
    static const std::vector<uint16_t> page = MakeFrame(false), picture = MakeFrame(true);
    return photo ? picture : page;
}

mg_img_conv Source(bool photo) {
    return mg_img_conv{Frame(photo).data(), kWidth, kHeight, kWidth * 2};
}

void Pack(benchmark::State& state, bool photo, bool vector) {
    const mg_img_conv source = Source(photo);
    for (auto _ : state) {
        std::unique_ptr<CompressedBitmapImpl> impl(vector ? compress_to_gs(&source)
                                                          : compress_to_gs_scalar(&source));
        benchmark::DoNotOptimize(impl->data_size);
    }
    state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}

void Unpack(benchmark::State& state, bool photo, bool vector) {
    const mg_img_conv source = Source(photo);
    std::unique_ptr<CompressedBitmapImpl> impl(compress_to_gs(&source));
    for (auto _ : state) {
        ibitmap* grey = vector ? decompress_gs(impl.get()) : decompress_gs_scalar(impl.get());
        benchmark::DoNotOptimize(grey->data[0]);
        std::free(grey);
    }
    state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}

void StreamQuickLz(benchmark::State& state) {
    const auto& pixels = Frame(false);
    size_t size = 0;
    for (auto _ : state) {
        std::unique_ptr<CompressedBitmap> frame(
            CompressedBitmap::fromRGB565(pixels.data(), kWidth, kHeight, kWidth * 2));
        std::ostringstream out;
        frame->toCompressedStream(out);
        size = out.str().size();
    }
    state.counters["bytes_out"] = static_cast<double>(size);
}

void StreamZlib(benchmark::State& state) {
    const auto& pixels = Frame(false);
    std::vector<Bytef> out(compressBound(pixels.size() * 2));
    uLongf size = 0;
    for (auto _ : state) {
        size = out.size();
        compress2(out.data(), &size, reinterpret_cast<const Bytef*>(pixels.data()),
                  pixels.size() * 2, 1);
    }
    state.counters["bytes_out"] = static_cast<double>(size);
}

void Configure(benchmark::internal::Benchmark* benchmark) {
    qvbench::TimeInMilliseconds(benchmark, 5);
}

}  // namespace

BENCHMARK_CAPTURE(Pack, page_vector, false, true)->Name("pack/page/vector")->Apply(Configure);
BENCHMARK_CAPTURE(Pack, page_scalar, false, false)->Name("pack/page/scalar")->Apply(Configure);
BENCHMARK_CAPTURE(Pack, photo_vector, true, true)->Name("pack/photo/vector")->Apply(Configure);
BENCHMARK_CAPTURE(Pack, photo_scalar, true, false)->Name("pack/photo/scalar")->Apply(Configure);
BENCHMARK_CAPTURE(Unpack, page_vector, false, true)->Name("unpack/page/vector")->Apply(Configure);
BENCHMARK_CAPTURE(Unpack, page_scalar, false, false)->Name("unpack/page/scalar")->Apply(Configure);
BENCHMARK_CAPTURE(Unpack, photo_vector, true, true)->Name("unpack/photo/vector")->Apply(Configure);
BENCHMARK_CAPTURE(Unpack, photo_scalar, true, false)->Name("unpack/photo/scalar")->Apply(Configure);
BENCHMARK(StreamQuickLz)->Name("stream/page/quicklz")->Apply(Configure);
BENCHMARK(StreamZlib)->Name("stream/page/zlib1_rgb565")->Apply(Configure);

int main(int argc, char** argv) {
    return qvbench::RunAndCompare(
        argc, argv,
        {
            {"vector/scalar pack, photo", "pack/photo/vector", "pack/photo/scalar",
             qvbench::AtLeastTimesFaster(3)},
            {"vector/scalar pack, page", "pack/page/vector", "pack/page/scalar", qvbench::kNoAim},
            {"vector/scalar unpack, photo", "unpack/photo/vector", "unpack/photo/scalar",
             qvbench::AtLeastTimesFaster(1.5)},
            {"vector/scalar unpack, page", "unpack/page/vector", "unpack/page/scalar",
             qvbench::kNoAim},
            {"QuickLZ stream/zlib level 1 on RGB565, page", "stream/page/quicklz",
             "stream/page/zlib1_rgb565", qvbench::AtLeastTimesFaster(2)},
        });
}
