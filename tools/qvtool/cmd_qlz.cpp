// qvtool qlz c | d: files through our QuickLZ level-1 codec, the format of packed frames.

#include <iostream>
#include <memory>
#include <string>

#include "cli.h"
#include "common_utilities/quicklz.h"
#include "image_io.h"

namespace qvtool {
namespace {

namespace qlz = quorvel::utilities::quicklz;

int RunCompress(const std::string& in, const std::string& out) {
    const std::string data = ReadFileOrFail(in);
    std::string frame;
    if (!data.empty()) {
        frame.resize(data.size() + qlz::kCompressOverhead);
        auto state = std::make_unique<qlz::CompressState>();
        frame.resize(
            qlz::Compress(data.data(), data.size(), frame.data(), frame.size(), state.get()));
        if (frame.empty()) throw Failure(kFailed, in + " is too large for one QuickLZ frame");
    }
    WriteFileOrFail(out, frame);
    std::cout << out << ": " << SizeText(data.size()) << " into " << SizeText(frame.size());
    if (data.empty())
        std::cout << " (empty data has no frame)";
    else if (!(static_cast<uint8_t>(frame[0]) & 1))
        std::cout << " (stored: it doesn't compress)";
    std::cout << '\n';
    return kOk;
}

int RunDecompress(const std::string& in, const std::string& out) {
    const std::string frame = ReadFileOrFail(in);
    std::string data;
    if (!frame.empty()) {
        size_t frame_size = 0, data_size = 0;
        qlz::Status status = qlz::ReadHeader(frame.data(), frame.size(), &frame_size, &data_size);
        if (status == qlz::Status::kOk) {
            data.resize(data_size);
            auto state = std::make_unique<qlz::DecompressState>();
            status = qlz::Decompress(frame.data(), frame.size(), data.data(), data.size(),
                                     state.get(), &data_size);
        }
        if (status != qlz::Status::kOk) throw Failure(kFailed, in + ": " + qlz::StatusText(status));
        if (frame_size != frame.size())
            std::cerr << "qvtool: qlz d: " << frame.size() - frame_size
                      << " bytes after the frame ignored\n";
    }
    WriteFileOrFail(out, data);
    std::cout << out << ": " << SizeText(frame.size()) << " into " << SizeText(data.size()) << '\n';
    return kOk;
}

int RunQlz(Args& args) {
    const std::string mode = args.Next("c|d");
    const std::string in = args.Next("IN");
    const std::string out = args.Next("OUT");
    args.Done();
    if (mode == "c") return RunCompress(in, out);
    if (mode == "d") return RunDecompress(in, out);
    throw Failure(kUsage, "the mode is c (compress) or d (decompress), not " + mode);
}

const bool registered = Register(
    {"qlz", "compress or decompress a file with QuickLZ level 1",
     "usage: qvtool qlz c|d IN OUT\n"
     "c writes IN as one QuickLZ level-1 frame (the format of packed screen frames; data that\n"
     "doesn't compress is stored), d writes the data of the frame in IN. An empty file gives an\n"
     "empty file either way. Exit code 3 when IN does not exist, 1 when d finds a damaged frame\n"
     "or one of another QuickLZ setting.\n",
     RunQlz});

}  // namespace
}  // namespace qvtool
