// Our QuickLZ level-1 codec against the reference frames, on random data, and on damaged frames
// (the destination is always a block of exactly the data's size, so AddressSanitizer sees any
// write past it).

#include "common_utilities/quicklz.h"

#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

namespace qlz = quorvel::utilities::quicklz;
using Bytes = std::vector<uint8_t>;

Bytes ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

std::vector<std::string> VectorNames() {
    std::vector<std::string> names;
    DIR* dir = ::opendir(QV_QUICKLZ_VECTORS);
    while (dirent* entry = dir ? ::readdir(dir) : nullptr) {
        const std::string name = entry->d_name;
        if (name.size() > 3 && name.compare(name.size() - 3, 3, ".in") == 0)
            names.push_back(name.substr(0, name.size() - 3));
    }
    if (dir) ::closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

Bytes Compress(const Bytes& data) {
    Bytes frame(data.size() + qlz::kCompressOverhead);
    auto state = std::make_unique<qlz::CompressState>();
    frame.resize(qlz::Compress(data.data(), data.size(), frame.data(), frame.size(), state.get()));
    return frame;
}

// The data of a frame into a block of exactly `capacity` bytes.
qlz::Status Decompress(const Bytes& frame, size_t capacity, Bytes* data) {
    auto block = std::make_unique<uint8_t[]>(capacity);
    auto state = std::make_unique<qlz::DecompressState>();
    size_t size = 0;
    const qlz::Status status =
        qlz::Decompress(frame.data(), frame.size(), block.get(), capacity, state.get(), &size);
    if (status == qlz::Status::kOk) data->assign(block.get(), block.get() + size);
    return status;
}

TEST(QuickLz, ReproducesAndDecodesEveryReferenceFrame) {
    const auto names = VectorNames();
    ASSERT_EQ(41u, names.size());
    for (const auto& name : names) {
        const Bytes input = ReadFile(std::string(QV_QUICKLZ_VECTORS "/") + name + ".in");
        const Bytes reference = ReadFile(std::string(QV_QUICKLZ_VECTORS "/") + name + ".qlz");
        EXPECT_TRUE(Compress(input) == reference) << name;
        Bytes data;
        ASSERT_EQ(qlz::Status::kOk, Decompress(reference, input.size(), &data)) << name;
        EXPECT_TRUE(data == input) << name;
        size_t frame_size = 0, data_size = 0;
        ASSERT_EQ(qlz::Status::kOk,
                  qlz::ReadHeader(reference.data(), reference.size(), &frame_size, &data_size));
        EXPECT_EQ(reference.size(), frame_size) << name;
        EXPECT_EQ(input.size(), data_size) << name;
    }
    const std::string hello = "Hello Hello Hello!";
    const Bytes expected = {0x45, 0x13, 0x12, 0x40, 0x00, 0x00, 0x80, 0x48, 0x65, 0x6C,
                            0x6C, 0x6F, 0x20, 0xE6, 0x38, 0x6C, 0x6C, 0x6F, 0x21};
    EXPECT_TRUE(Compress(Bytes(hello.begin(), hello.end())) == expected)
        << "a match from position 0";
}

TEST(QuickLz, RoundTripsRandomAndRepetitiveDataOfEverySize) {
    std::mt19937 random(17);
    EXPECT_TRUE(Compress(Bytes()).empty()) << "nothing has no frame";
    auto check = [](const Bytes& input, const std::string& what) {
        const Bytes frame = Compress(input);
        ASSERT_GE(frame.size(), qlz::kMinFrameSize) << what;
        ASSERT_LE(frame.size(), input.size() + qlz::kCompressOverhead) << what;
        Bytes data;
        ASSERT_EQ(qlz::Status::kOk, Decompress(frame, input.size(), &data)) << what;
        ASSERT_TRUE(data == input) << what;
    };
    for (size_t size = 1; size <= 300; ++size) {
        Bytes noise(size), runs(size);
        for (auto& b : noise)
            b = static_cast<uint8_t>(random());
        // Few byte values in runs and repeats: matches of every length and the run rule.
        for (size_t i = 0; i < size; ++i)
            runs[i] = (random() % 5 == 0) ? static_cast<uint8_t>(random() % 3) : runs[i / 2];
        check(noise, "noise of " + std::to_string(size));
        check(runs, "runs of " + std::to_string(size));
    }
    Bytes large(3 << 20);
    for (size_t i = 0; i < large.size(); ++i)
        large[i] = (i / 4096) % 3 == 0 ? static_cast<uint8_t>(random()) : large[i % 7919];
    check(large, "3 MiB, mixed");
    check(Bytes(1 << 20, 0xFF), "1 MiB of 0xFF");
}

TEST(QuickLz, RefusesDamagedFramesWithoutReadingOrWritingOutside) {
    const Bytes input = ReadFile(QV_QUICKLZ_VECTORS "/text_prose.in");
    const Bytes frame = ReadFile(QV_QUICKLZ_VECTORS "/text_prose.qlz");
    const Bytes tiny = ReadFile(QV_QUICKLZ_VECTORS "/tiny_05.qlz");
    Bytes data;

    for (size_t cut = 0; cut < frame.size(); cut += 7)
        EXPECT_EQ(qlz::Status::kTruncated,
                  Decompress(Bytes(frame.begin(), frame.begin() + cut), input.size(), &data))
            << "cut at " << cut;
    EXPECT_EQ(qlz::Status::kNoRoom, Decompress(frame, input.size() - 1, &data));
    for (uint8_t other : {0x48, 0x4D, 0x55, 0x65, 0xC5, 0x05}) {
        Bytes changed = tiny;
        changed[0] = other;
        EXPECT_EQ(qlz::Status::kOtherSetting, Decompress(changed, 64, &data)) << int(other);
    }
    Bytes short_header = frame;
    short_header[0] = 0x45;  // a 3-byte header on a 4500-byte frame
    EXPECT_NE(qlz::Status::kOk, Decompress(short_header, input.size(), &data));
    Bytes stored = ReadFile(QV_QUICKLZ_VECTORS "/random_200.qlz");
    stored[2] = 150;  // the stored size no longer matches the frame
    EXPECT_EQ(qlz::Status::kDamaged, Decompress(stored, 300, &data));

    // Random damage anywhere past the header: any status, but no access outside the blocks.
    std::mt19937 random(5);
    int refused = 0;
    for (int round = 0; round < 3000; ++round) {
        Bytes damaged = frame;
        for (int k = 0; k <= round % 3; ++k)
            damaged[9 + random() % (damaged.size() - 9)] ^=
                static_cast<uint8_t>(1 + random() % 255);
        if (Decompress(damaged, input.size(), &data) != qlz::Status::kOk) ++refused;
    }
    EXPECT_GT(refused, 0) << "some damage must show";
    EXPECT_STREQ("the frame is truncated", qlz::StatusText(qlz::Status::kTruncated));
}

}  // namespace
