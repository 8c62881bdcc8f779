// Compressed frames: the vector path against the scalar one and against a plain model of the
// format, the format's corner cases, and the stream forms with and without QuickLZ.

#include "common_utilities/compressed_bitmap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "moorglass.h"

namespace {

using namespace quorvel::utilities;

struct Frame {
    std::string name;
    int width, height, stride;     // stride in bytes
    std::vector<uint16_t> pixels;  // stride / 2 per row (stride is even here)

    Frame(std::string n, int w, int h, int s)
        : name(std::move(n)), width(w), height(h), stride(s), pixels(s / 2 * h + 4, 0xFFFF) {}
    uint16_t& at(int x, int y) { return pixels[y * (stride / 2) + x]; }
    mg_img_conv Source() const { return mg_img_conv{pixels.data(), width, height, stride}; }
};

struct FreeBitmap {
    void operator()(ibitmap* b) const { std::free(b); }
};
using Bitmap = std::unique_ptr<ibitmap, FreeBitmap>;
using Impl = std::unique_ptr<CompressedBitmapImpl>;

std::vector<uint8_t> Pixels(const ibitmap* b) {
    return b ? std::vector<uint8_t>(b->data, b->data + b->width * b->height)
             : std::vector<uint8_t>();
}

// What a frame must decode to, worked out pixel by pixel from the format's rules.
std::vector<uint8_t> Model(const Frame& f) {
    std::vector<uint8_t> out(static_cast<size_t>(f.width) * f.height, 255);
    std::vector<std::pair<int, int>> greys;  // first pixel of each grey group
    const int end = std::min(f.stride, 2 * f.width) - 7;
    Frame& frame = const_cast<Frame&>(f);
    for (int y = 0; y < f.height; ++y)
        for (int x = 0; 2 * x < end; x += 4) {
            bool white = true, black = true;
            for (int k = 0; k < 4; ++k)
                white &= frame.at(x + k, y) == 0xFFFF, black &= frame.at(x + k, y) == 0;
            if (black)
                std::fill_n(&out[y * f.width + x], 4, 0);
            else if (!white)
                greys.emplace_back(x, y);
        }
    if (greys.size() % 2) greys.pop_back();  // stays white
    for (auto [x, y] : greys)
        for (int k = 0; k < 4; ++k) {
            const unsigned p = frame.at(x + k, y);
            const unsigned g = std::min(255u, 5 * (p >> 12) + 5 * ((p >> 6) & 31) + (p & 31));
            out[y * f.width + x + k] = static_cast<uint8_t>((g >> 4) * 17);
        }
    return out;
}

std::vector<Frame> Frames() {
    std::mt19937 random(3);
    std::vector<Frame> frames;
    // A page of text: black strokes with grey edges on white, blank lines between.
    Frame text("text page", 1072, 300, 2144);
    for (int line = 0; line < 10; ++line)
        for (int x = 40; x < 1000; x += 9)
            if (random() % 6)
                for (int y = line * 30 + 5; y < line * 30 + 20; ++y) {
                    text.at(x, y) = text.at(x + 1, y) = text.at(x + 2, y) = 0;
                    text.at(x + 3, y) = static_cast<uint16_t>(random());
                }
    frames.push_back(text);
    Frame photo("photo", 600, 200, 1200);
    for (int y = 0; y < 200; ++y)
        for (int x = 0; x < 600; ++x)
            photo.at(x, y) = static_cast<uint16_t>((x * 53 + y * 2111) ^ (random() & 0x0841));
    frames.push_back(photo);
    frames.emplace_back("all white", 64, 40, 128);
    Frame black("all black", 64, 33, 128);
    std::fill(black.pixels.begin(), black.pixels.end(), 0);
    frames.push_back(black);
    for (auto [w, s] : {std::pair{601, 1202}, {7, 14}, {5, 10}, {3, 6}, {10, 32}, {13, 26}}) {
        Frame odd("width " + std::to_string(w) + " stride " + std::to_string(s), w, 9, s);
        for (auto& p : odd.pixels)
            p = random() % 3 ? static_cast<uint16_t>(random()) : 0xFFFF;
        frames.push_back(odd);
    }
    Frame one_grey("one grey group", 16, 2, 32);
    one_grey.at(5, 1) = 0x1234;
    frames.push_back(one_grey);
    return frames;
}

void ExpectSameImpl(const CompressedBitmapImpl& a, const CompressedBitmapImpl& b,
                    const std::string& what) {
    EXPECT_EQ(a.data_size, b.data_size) << what;
    EXPECT_EQ(0, std::memcmp(a.data.get(), b.data.get(), a.data_size)) << what;
    for (auto bits : {&CompressedBitmapImpl::row_bits, &CompressedBitmapImpl::group_bits}) {
        ASSERT_EQ((a.*bits)->used, (b.*bits)->used) << what;
        EXPECT_EQ(0, std::memcmp((a.*bits)->bytes.get(), (b.*bits)->bytes.get(), (a.*bits)->used))
            << what;
    }
}

TEST(CompressedBitmap, VectorAndScalarPathsAgreeWithTheModel) {
    for (const Frame& frame : Frames()) {
        const mg_img_conv source = frame.Source();
        Impl vector(compress_to_gs(&source)), scalar(compress_to_gs_scalar(&source));
        ASSERT_TRUE(vector && scalar) << frame.name;
        ExpectSameImpl(*vector, *scalar, frame.name);
        const auto expected = Model(frame);
        Bitmap fast(decompress_gs(vector.get())), plain(decompress_gs_scalar(scalar.get()));
        ASSERT_TRUE(fast && plain) << frame.name;
        EXPECT_EQ(8, fast->depth);
        EXPECT_EQ(frame.width, fast->scanline);
        EXPECT_TRUE(Pixels(fast.get()) == expected) << frame.name;
        EXPECT_TRUE(Pixels(plain.get()) == expected) << frame.name;

        std::unique_ptr<CompressedBitmap> packed(CompressedBitmap::fromRGB565(
            frame.pixels.data(), frame.width, frame.height, frame.stride));
        for (bool quicklz : {false, true}) {
            std::stringstream stream;
            ASSERT_EQ(0, quicklz ? packed->toCompressedStream(stream) : packed->toStream(stream));
            std::unique_ptr<CompressedBitmap> back(
                quicklz ? CompressedBitmap::fromCompressedStream(stream)
                        : CompressedBitmap::fromStream(stream));
            ASSERT_TRUE(back) << frame.name << (quicklz ? " with QuickLZ" : "");
            ExpectSameImpl(*packed->Impl(), *back->Impl(), frame.name);
            Bitmap grey(back->toGrayscale8());
            EXPECT_TRUE(Pixels(grey.get()) == expected) << frame.name;
        }
    }
}

TEST(CompressedBitmap, CornersOfTheFormat) {
    Frame white("white", 40, 70, 80);
    mg_img_conv source = white.Source();
    Impl impl(compress_to_gs(&source));
    EXPECT_EQ(0u, impl->data_size);
    EXPECT_EQ(0u, impl->group_bits->used);
    EXPECT_EQ(12u, impl->row_bits->used) << "70 zero bits in three words";
    for (uint32_t i = 0; i < impl->row_bits->used; ++i)
        EXPECT_EQ(0, impl->row_bits->bytes[i]);

    // Row 0: a black group, a 0xFFFE group and a level-0x87 group; row 1 white.
    Frame mixed("mixed", 12, 2, 24);
    std::fill_n(&mixed.at(0, 0), 4, 0);
    mixed.at(4, 0) = 0xFFFE;
    mixed.at(8, 0) = 0x06C0;  // 5 * 27 = 135 = 0x87
    source = mixed.Source();
    impl.reset(compress_to_gs(&source));
    EXPECT_EQ(4u, impl->data_size) << "one pair of grey groups";
    EXPECT_EQ(0x01u, impl->row_bits->bytes[0]) << "row 0 marked, row 1 white";
    // Codes 11, 10, 10 from the lowest bit up: 1,1, 1,0, 1,0.
    EXPECT_EQ(0x17u, impl->group_bits->bytes[0]);
    EXPECT_EQ(4u, impl->group_bits->used);
    Bitmap grey(decompress_gs(impl.get()));
    EXPECT_EQ(0, grey->data[0]);
    EXPECT_EQ(0xFF, grey->data[4]) << "0xFFFE is grey but decodes white";
    EXPECT_EQ(0x88, grey->data[8]) << "level 0x87 keeps its high nibble";
    EXPECT_EQ(0xFF, grey->data[9]);

    Frame wide("601", 601, 1, 1202);
    std::fill(wide.pixels.begin(), wide.pixels.end(), 0);
    source = wide.Source();
    impl.reset(compress_to_gs(&source));
    EXPECT_EQ(40u, impl->group_bits->used) << "150 black groups: 300 bits, 10 words";
    grey.reset(decompress_gs(impl.get()));
    EXPECT_EQ(0, grey->data[599]);
    EXPECT_EQ(255, grey->data[600]) << "the pixel past the last group stays white";

    Frame empty("no rows", 8, 0, 16);
    source = empty.Source();
    impl.reset(compress_to_gs(&source));
    EXPECT_EQ(4u, impl->row_bits->used) << "one zero word";
    EXPECT_EQ(nullptr, decompress_gs(impl.get()));

    mg_img_conv bad{nullptr, 10, 10, 20};
    EXPECT_EQ(nullptr, compress_to_gs(&bad));
    bad = mg_img_conv{white.pixels.data(), 70000, 1, 20};
    EXPECT_EQ(nullptr, compress_to_gs(&bad));
    EXPECT_EQ(nullptr, NewBitmap8(0, 4));
    Bitmap fresh(NewBitmap8(3, 2));
    EXPECT_EQ(3, fresh->scanline);
    EXPECT_TRUE(Pixels(fresh.get()) == std::vector<uint8_t>(6, 255));
}

TEST(CompressedBitmap, StreamsHaveTheirLayoutAndDamagedOnesAreRefused) {
    Frame frame = Frames()[0];
    std::unique_ptr<CompressedBitmap> packed(
        CompressedBitmap::fromRGB565(frame.pixels.data(), frame.width, frame.height, frame.stride));
    std::stringstream plain, packed_stream;
    ASSERT_EQ(0, packed->toStream(plain));
    ASSERT_EQ(0, packed->toCompressedStream(packed_stream));
    const std::string raw = plain.str(), small = packed_stream.str();
    const auto le = [](const std::string& s, size_t at, int n) {
        uint32_t v = 0;
        for (int i = n - 1; i >= 0; --i)
            v = v << 8 | static_cast<uint8_t>(s[at + i]);
        return v;
    };
    EXPECT_EQ(1072u, le(raw, 0, 2));
    EXPECT_EQ(300u, le(raw, 2, 2));
    EXPECT_EQ(4u, le(raw, 4, 2));
    EXPECT_EQ(536u, le(raw, 6, 2));
    EXPECT_EQ(packed->Impl()->data_size, le(raw, 8, 4));
    EXPECT_EQ(raw.size(), le(small, 0, 4));
    EXPECT_EQ(small.size() - 8, le(small, 4, 4));
    EXPECT_LT(small.size(), raw.size() * 3 / 4);

    for (const std::string* form : {&raw, &small}) {
        const bool quicklz = form == &small;
        auto read = [&](const std::string& bytes) {
            std::stringstream in(bytes);
            return std::unique_ptr<CompressedBitmap>(
                quicklz ? CompressedBitmap::fromCompressedStream(in)
                        : CompressedBitmap::fromStream(in));
        };
        for (size_t cut = 0; cut < form->size(); cut += 1 + form->size() / 60)
            EXPECT_EQ(nullptr, read(form->substr(0, cut))) << "cut at " << cut;
        std::mt19937 random(9);
        for (int round = 0; round < 300; ++round) {
            std::string damaged = *form;
            damaged[random() % damaged.size()] ^= static_cast<char>(1 + random() % 255);
            auto back = read(damaged);
            if (back) Bitmap(back->toGrayscale8());  // whatever it holds decodes within bounds
        }
    }
    std::string wrong_depth = raw;
    wrong_depth[4] = 5;
    std::stringstream in(wrong_depth);
    EXPECT_EQ(nullptr, CompressedBitmap::fromStream(in));
    std::stringstream sink;
    EXPECT_EQ(-1, CompressedBitmap().toStream(sink));
    EXPECT_EQ(nullptr, CompressedBitmap().toGrayscale8());
}

}  // namespace
