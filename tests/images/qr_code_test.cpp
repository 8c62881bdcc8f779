// QR codes read back by zbarimg from the PNG of the bitmap, and the pixel layout of the code.

#include "common_utilities/qr_code.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include "child_process.h"
#include "moorglass.h"

namespace {

using quorvel::utilities::MakeQrCode;
using quorvel::utilities::SmartBitmap;

// What a phone would read: the code with the quiet zone the caller leaves round it.
std::string Scan(const SmartBitmap& code) {
    const ibitmap* bitmap = code.GetBitmap();
    const int margin = 16, side = bitmap->width + 2 * margin;
    SmartBitmap page(side, side);
    auto* pixels = const_cast<ibitmap*>(page.GetBitmap());
    for (int y = 0; y < bitmap->height; ++y)
        std::memcpy(pixels->data + (y + margin) * pixels->scanline + margin,
                    bitmap->data + y * bitmap->scanline, bitmap->width);
    EXPECT_EQ(0, page.SavePNG("/tmp/qr.png"));
    // zbarimg tells of the system bus on its error stream; only the text is wanted.
    qvtest::RunProgram(
        {"sh", "-c", "zbarimg --quiet --raw /tmp/qr.png > /tmp/qr.txt 2> /dev/null"});
    std::ifstream in("/tmp/qr.txt", std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

TEST(QrCode, ZbarReadsBackWhatWasEncoded) {
    const std::string texts[] = {
        "A",
        "https://example.org/device/sign-in?code=7KQ2-99XZ&session=4f1d2a",
        "Grüße aus Köln — числа 12345 と 日本語",
        std::string(900, 'x') + " long text " + std::string(600, 'y'),
    };
    for (const auto& text : texts) {
        const SmartBitmap code = MakeQrCode(text, 400);
        ASSERT_FALSE(code.isEmpty());
        EXPECT_EQ(text, Scan(code)) << text.substr(0, 40);
    }
}

TEST(QrCode, ModulesBecomeWholeSquaresOfBlackAndWhite) {
    // 30 bytes need version 3 at medium correction: 29 modules.
    const SmartBitmap code = MakeQrCode("0123456789abcdefghijklmnopqrst", 100);
    const ibitmap* bitmap = code.GetBitmap();
    ASSERT_EQ(87, bitmap->width) << "3 pixels a module";
    EXPECT_EQ(87, bitmap->height);
    EXPECT_EQ(8, bitmap->depth);
    EXPECT_EQ(87, bitmap->scanline);
    for (int y = 0; y < 87; ++y)
        for (int x = 0; x < 87; ++x) {
            const int value = bitmap->data[y * 87 + x];
            ASSERT_TRUE(value == 0 || value == 255) << x << "," << y;
            ASSERT_EQ(bitmap->data[(y / 3 * 3) * 87 + x / 3 * 3], value)
                << "square at " << x << "," << y;
        }
    EXPECT_EQ(0, bitmap->data[0]) << "the finder's corner is dark";
    EXPECT_EQ(255, bitmap->data[7 * 3 * 87 + 7 * 3]) << "the finder's separator is light";

    EXPECT_EQ(29, MakeQrCode("0123456789abcdefghijklmnopqrst", 0).width()) << "1 pixel a module";
    EXPECT_EQ(29, MakeQrCode("0123456789abcdefghijklmnopqrst", 57).width()) << "scale 1, not 0";
    EXPECT_EQ(58, MakeQrCode("0123456789abcdefghijklmnopqrst", 58).width());
    EXPECT_THROW(MakeQrCode(std::string(4000, 'z'), 100), std::length_error);
}

}  // namespace
