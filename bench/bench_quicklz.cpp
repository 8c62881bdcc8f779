// Our QuickLZ level-1 codec against LZ4 and zlib at level 1, compressing and decompressing the
// grey page (bitmap_600k) and the mixed megabyte (mixed_1m) of the reference vectors, in one
// run. Throughput is in the table (bytes_per_second), the compressed size as a share of the
// input in the "ratio" column.

#include <benchmark/benchmark.h>
#include <lz4.h>
#include <zlib.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "common_utilities/quicklz.h"
#include "ratio_reporter.h"

namespace {

namespace qlz = quorvel::utilities::quicklz;
using Bytes = std::vector<char>;

[[noreturn]] void Die(const std::string& what) {
    std::fprintf(stderr, "benchmark: %s\n", what.c_str());
    std::exit(1);
}

Bytes Input(const std::string& name) {
    std::ifstream in(std::string(QV_QUICKLZ_VECTORS "/") + name + ".in", std::ios::binary);
    Bytes bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (bytes.empty()) Die("no input " + name);
    return bytes;
}

// One codec: compress `in` into `out` (sized by the codec), decompress back into `back`.
struct Codec {
    std::string name;
    std::function<size_t(const Bytes& in, Bytes& out)> compress;
    std::function<size_t(const Bytes& frame, size_t frame_size, Bytes& back)> decompress;
};

std::vector<Codec> Codecs() {
    return {
        {"quicklz",
         [](const Bytes& in, Bytes& out) {
             static auto state = std::make_unique<qlz::CompressState>();
             out.resize(in.size() + qlz::kCompressOverhead);
             return qlz::Compress(in.data(), in.size(), out.data(), out.size(), state.get());
         },
         [](const Bytes& frame, size_t frame_size, Bytes& back) {
             static auto state = std::make_unique<qlz::DecompressState>();
             size_t size = 0;
             if (qlz::Decompress(frame.data(), frame_size, back.data(), back.size(), state.get(),
                                 &size) != qlz::Status::kOk)
                 return size_t{0};
             return size;
         }},
        {"lz4",
         [](const Bytes& in, Bytes& out) {
             out.resize(LZ4_compressBound(static_cast<int>(in.size())));
             return static_cast<size_t>(LZ4_compress_default(
                 in.data(), out.data(), static_cast<int>(in.size()), static_cast<int>(out.size())));
         },
         [](const Bytes& frame, size_t frame_size, Bytes& back) {
             const int got =
                 LZ4_decompress_safe(frame.data(), back.data(), static_cast<int>(frame_size),
                                     static_cast<int>(back.size()));
             return got < 0 ? size_t{0} : static_cast<size_t>(got);
         }},
        {"zlib1",
         [](const Bytes& in, Bytes& out) {
             uLongf size = compressBound(in.size());
             out.resize(size);
             if (compress2(reinterpret_cast<Bytef*>(out.data()), &size,
                           reinterpret_cast<const Bytef*>(in.data()), in.size(), 1) != Z_OK)
                 return size_t{0};
             return static_cast<size_t>(size);
         },
         [](const Bytes& frame, size_t frame_size, Bytes& back) {
             uLongf size = back.size();
             if (uncompress(reinterpret_cast<Bytef*>(back.data()), &size,
                            reinterpret_cast<const Bytef*>(frame.data()), frame_size) != Z_OK)
                 return size_t{0};
             return static_cast<size_t>(size);
         }},
    };
}

void Register(const std::string& input_name, const Codec& codec) {
    const auto input = std::make_shared<Bytes>(Input(input_name));
    benchmark::RegisterBenchmark(("compress/" + input_name + "/" + codec.name).c_str(),
                                 [input, codec](benchmark::State& state) {
                                     Bytes out;
                                     size_t size = 0;
                                     for (auto _ : state) {
                                         size = codec.compress(*input, out);
                                         benchmark::DoNotOptimize(out.data());
                                     }
                                     if (size == 0) Die(codec.name + " failed to compress");
                                     state.SetBytesProcessed(state.iterations() * input->size());
                                     state.counters["ratio"] =
                                         static_cast<double>(size) / input->size();
                                 })
        ->Apply([](benchmark::internal::Benchmark* b) { qvbench::TimeInMilliseconds(b, 5); });
    benchmark::RegisterBenchmark(
        ("decompress/" + input_name + "/" + codec.name).c_str(),
        [input, codec](benchmark::State& state) {
            Bytes frame, back(input->size());
            const size_t frame_size = codec.compress(*input, frame);
            for (auto _ : state) {
                if (codec.decompress(frame, frame_size, back) != input->size())
                    Die(codec.name + " failed to decompress");
                benchmark::DoNotOptimize(back.data());
            }
            if (back != *input) Die(codec.name + " did not give the input back");
            state.SetBytesProcessed(state.iterations() * input->size());
        })
        ->Apply([](benchmark::internal::Benchmark* b) { qvbench::TimeInMilliseconds(b, 5); });
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<qvbench::Ratio> ratios;
    for (const std::string input : {"bitmap_600k", "mixed_1m"}) {
        for (const auto& codec : Codecs())
            Register(input, codec);
        // Time ratios: at least 0.6x LZ4's compression throughput means at most 1/0.6 of its
        // time, at least 0.3x its decompression throughput at most 1/0.3.
        const bool aimed = input == "bitmap_600k";
        for (const std::string op : {"compress", "decompress"}) {
            const double tolerance = !aimed             ? qvbench::kNoAim
                                     : op == "compress" ? 1 / 0.6 - 1
                                                        : 1 / 0.3 - 1;
            ratios.push_back({"quicklz/lz4 time, " + op + " " + input,
                              op + "/" + input + "/quicklz", op + "/" + input + "/lz4", tolerance});
            ratios.push_back({"quicklz/zlib1 time, " + op + " " + input,
                              op + "/" + input + "/quicklz", op + "/" + input + "/zlib1",
                              qvbench::kNoAim});
        }
    }
    return qvbench::RunAndCompare(argc, argv, ratios);
}
