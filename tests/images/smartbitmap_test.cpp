// SmartBitmap over the host platform's decoders, with files made by ImageMagick at test time.

#include "common_utilities/smartbitmap.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

#include "image_test_support.h"
#include "log_capture.h"
#include "moorglass.h"
#include "moorglass_host.h"

namespace {

using quorvel::utilities::SmartBitmap;
using qvtest::Convert;
using qvtest::Pixel;

struct Case {
    std::string file;     // made from the half-black picture
    std::string options;  // convert options
    std::string format;   // convert's prefix for the output ("BMP3:"), or ""
    int bmp_bits;         // bits per pixel a BMP must have, 0 for other formats
};

// Some greys on row 5 of the white half, away from the pixels checked: a BMP of 2 colours
// would be written with 1 bit per pixel.
const char kFewGreys[] =
    "-fill gray30 -draw 'point 21,5' -fill gray40 -draw 'point 22,5' -type Palette";
const char kManyGreys[] = "\\( -size 19x1 gradient: \\) -geometry +21+5 -composite -type Palette";

// Cuts a file inside its pixel data: a PNG just after its first IDAT chunk begins, any other
// in the middle.
long TruncatedSize(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const size_t idat = bytes.find("IDAT");
    if (path.size() > 4 && path.compare(path.size() - 4, 4, ".png") == 0 &&
        idat != std::string::npos)
        return static_cast<long>(idat + 10);
    return static_cast<long>(bytes.size() / 2);
}

// Black on the left, white on the right, whatever depth the file had.
void ExpectHalfBlack(const SmartBitmap& image, int white, int tolerance, const std::string& what) {
    ASSERT_FALSE(image.isEmpty()) << what;
    ASSERT_EQ(40, image.width()) << what;
    ASSERT_EQ(20, image.height()) << what;
    ASSERT_EQ(8, image.depth()) << what;
    for (int y : {0, 10, 19})
        for (int x : {0, 5, 19, 20, 30, 39}) {
            const int expected = x < 20 ? 0 : white;
            EXPECT_NEAR(expected, Pixel(image.GetBitmap(), x, y), tolerance)
                << what << " at " << x << "," << y;
        }
}

TEST(SmartBitmap, LoadsEveryFormatAndDepthAndRefusesTruncatedFiles) {
    const std::string base = qvtest::HalfBlackPicture();
    const std::vector<Case> cases = {
        {"gray1.png", "-type Bilevel -define png:bit-depth=1 -define png:color-type=0", "", 0},
        {"gray8.png", "-type Grayscale -define png:color-type=0", "", 0},
        {"rgb24.png", "-type TrueColor", "PNG24:", 0},
        {"rgba32.png", "-type TrueColorAlpha", "PNG32:", 0},
        {"bits1.bmp", "-type Bilevel", "BMP3:", 1},
        {"bits4.bmp", kFewGreys, "BMP3:", 4},
        {"bits8.bmp", kManyGreys, "BMP3:", 8},
        {"bits24.bmp", "-type TrueColor", "BMP3:", 24},
        {"bits32.bmp", "-type TrueColorAlpha", "BMP:", 32},
        {"bits1.tif", "-type Bilevel", "", 0},
        {"bits8.tif", "-type Grayscale -depth 8", "", 0},
        {"bits24.tif", "-type TrueColor", "", 0},
        {"bits32.tif", "-type TrueColorAlpha", "", 0},
        {"photo.JPG", "-quality 95", "", 0},
    };
    for (const auto& c : cases) {
        const std::string path = "/tmp/images/" + c.file;
        Convert(base + " " + c.options + " " + c.format + path);
        if (c.bmp_bits != 0) {
            std::ifstream in(path, std::ios::binary);
            char header[30];
            in.read(header, sizeof header);
            if (header[28] != c.bmp_bits) {
                ADD_FAILURE() << c.file << " was written with " << int(header[28]) << " bits";
                continue;
            }
        }
        const bool lossy = c.file.find(".JPG") != std::string::npos;
        const bool tiff = c.file.find(".tif") != std::string::npos;
        SmartBitmap image;
        EXPECT_TRUE(image.Load(path, false)) << c.file;
        // The loader asks TIFF and JPEG for brightness 95 and contrast 105: white comes out 248.
        ExpectHalfBlack(image, tiff || lossy ? 248 : 255, lossy ? 10 : 0, c.file);
        if (tiff) {
            SmartBitmap plain;
            EXPECT_TRUE(plain.LoadTIFF(path, -1, -1, 100, 100, false));
            ExpectHalfBlack(plain, 255, 0, c.file + " at 100/100");
        }

        qvtest::Truncate(path, TruncatedSize(path));
        SmartBitmap truncated;
        EXPECT_FALSE(truncated.Load(path, false)) << c.file << " truncated";
        EXPECT_EQ(nullptr, truncated.GetBitmap()) << c.file << " truncated";
    }
}

// Little-endian fields of the hand-made headers below.
std::string Le(uint32_t value, int bytes) {
    std::string out;
    for (int i = 0; i < bytes; ++i)
        out += static_cast<char>(value >> (8 * i));
    return out;
}

void WriteBytes(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

// Files of a few hundred bytes whose headers claim 65535 x 65535 pixels, or strips of gigabytes
// (the fuzzer's finds): the decoders allocated that much before they looked at a pixel. They are
// refused.
TEST(SmartBitmap, RefusesFilesThatClaimHugePictures) {
    const std::string dir = "/tmp/images/";
    ::mkdir(dir.c_str(), 0755);
    const std::string png_signature("\x89PNG\r\n\x1a\n", 8);
    const std::string ihdr(
        "\x00\x00\x00\x0d"
        "IHDR\x00\x00\xff\xff\x00\x00\xff\xff\x08\x00\x00\x00"
        "\x00\x93\x6e\x86\x8c",
        25);
    const std::string idat(
        "\x00\x00\x00\x0c"
        "IDAT\x78\x9c\x63\x60\xa0\x3d\x00\x00\x00\x64\x00"
        "\x01\x86\x64\x3c\x35",
        24);
    WriteBytes(dir + "huge.png",
               png_signature + ihdr + idat + std::string("\0\0\0\0IEND\xae\x42\x60\x82", 12));

    // Run-length BMP: the end-of-bitmap mark right after a one-colour palette.
    WriteBytes(dir + "huge.bmp", "BM" + Le(60, 4) + Le(0, 4) + Le(58, 4) + Le(40, 4) +
                                     Le(65535, 4) + Le(65535, 4) + Le(1, 2) + Le(8, 2) + Le(1, 4) +
                                     Le(2, 4) + Le(0, 4) + Le(0, 4) + Le(1, 4) + Le(0, 4) +
                                     Le(0, 4) + std::string("\0\x01", 2));

    // TIFF with 8-bit grey strips of 65535 rows, the first holding one byte.
    std::string tiff = "II*" + std::string(1, '\0') + Le(8, 4) + Le(8, 2);
    const uint32_t data_at = 8 + 2 + 8 * 12 + 4;
    const uint32_t fields[][3] = {{256, 3, 65535}, {257, 3, 65535}, {258, 3, 8},
                                  {259, 3, 1},     {262, 3, 1},     {273, 4, data_at},
                                  {278, 3, 65535}, {279, 4, 1}};  // tag, type, value
    for (const auto& [tag, type, value] : fields)
        tiff += Le(tag, 2) + Le(type, 2) + Le(1, 4) + Le(value, 4);
    WriteBytes(dir + "huge.tif", tiff + Le(0, 4) + "\x80");

    // A real JPEG whose frame header is made to say 65500 x 65500.
    Convert("-size 8x8 xc:gray " + dir + "small.jpg");
    std::ifstream in(dir + "small.jpg", std::ios::binary);
    std::string jpeg((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const size_t frame = jpeg.find("\xff\xc0");
    ASSERT_NE(std::string::npos, frame);
    jpeg.replace(frame + 5, 4, "\xff\xdc\xff\xdc");
    WriteBytes(dir + "huge.jpg", jpeg);

    // A TIFF of a small picture whose strips claim 2 GiB: libtiff allocated them as described.
    const std::string strips(
        "\x49\x49\x2a\x00\x34\x00\x00\x00\x80\x00\x20\x50\x38\x24\x16\x0d\x04\x10\x41\xe1\x50\xa2"
        "\x04\x2e"
        "\x1d\x04\x30\x43\xe2\x48\x08\x94\x39\xfe\x9f\x8a\xc2\xdf\xeb\xf8\xcc\x29\xfe\xdf\x8e\xc1"
        "\xdf\xef"
        "\xf9\x0c\x1a\x02\x10\x00\x00\x01\x03\x00\x01\x00\x00\x00\x01\x1f\x00\x00\x01\x01\x03\x00"
        "\x01\x00"
        "\x00\x00\x09\x00\x00\x00\x02\x01\x03\x00\x01\x00\x00\x00\x10\x00\x00\x00\x03\x01\x03\x00"
        "\x01\x00"
        "\x00\x00\x05\x00\x00\x00\x06\x01\x03\x00\x01\x00\x00\x00\x01\x00\x00\x00\x0a\x01\x03\x00"
        "\x00\xf9"
        "\x00\x00\x01\x00\x00\x00\x11\x01\x04\x00\x01\x00\x00\x00\x08\x00\x00\x00\x12\x01\x03\x00"
        "\x01\x00"
        "\x00\x00\x01\x00\x00\x00\x15\x01\x03\x00\x01\x00\x00\x00\x01\x40\x00\x00\x16\x01\x03\x00"
        "\x01\x00"
        "\x00\x00\x09\x00\x00\x00\x17\x01\x04\x00\x01\x00\x00\x00\x2c\x00\x00\x00\x1c\x01\x03\x00"
        "\x01\x00"
        "\x00\x00\x01\x00\x00\x00\x29\x01\x03\x00\x02\x00\x00\x00\x00\x00\x01\x00\x3d\x01\x03\x00"
        "\x01\x00"
        "\x00\x00\x02\x00\x00\x00\x3e\x01\x05\x00\x02\x00\x00\x00\x2a\x01\x00\x00\x3f\x01\x05\x00"
        "\x06\x00"
        "\x00\x00\x00\x00\x00\x00\x02\xcd\xcc\x4c\x00\x00\x00\x00\x01\xcd\xcc\x4c\x00\x01\xff\xd8"
        "\xff\xe0"
        "\x00\x46\x00\x00\x80\x00\xcd\xcc\x4c\x00\x00\x00\x00\x02\x8f\xc2\xf5\x00\x10\x89\x50\x4e",
        286);
    WriteBytes(dir + "huge-strips.tif", strips);

    for (const char* name : {"huge.png", "huge.bmp", "huge.tif", "huge.jpg", "huge-strips.tif"}) {
        SmartBitmap image;
        EXPECT_FALSE(image.Load(dir + name, false)) << name;
        EXPECT_EQ(nullptr, image.GetBitmap()) << name;
    }
}

TEST(SmartBitmap, ExtensionDecidesTheDecoder) {
    const std::string base = qvtest::HalfBlackPicture();
    Convert(base + " /tmp/images/real.bmp");
    Convert(base + " PNG:/tmp/images/lies.jpg");

    SmartBitmap image;
    EXPECT_FALSE(image.Load("/tmp/images/lies.jpg", false)) << "a PNG is no JPEG";
    EXPECT_EQ(nullptr, image.GetBitmap());

    EXPECT_TRUE(image.Load("/tmp/images/real.bmp", false));
    const ibitmap* before = image.GetBitmap();
    const int decodes = qvhost_image_decodes();
    // No extension but a "/": nothing is loaded and the handle keeps what it had.
    ::mkdir("/tmp/images/dir.d", 0755);
    Convert(base + " PNG:/tmp/images/dir.d/file");
    EXPECT_TRUE(image.Load("/tmp/images/dir.d/file", false));
    EXPECT_EQ(before, image.GetBitmap());
    // Unknown extensions and missing PNG files never reach a decoder.
    EXPECT_TRUE(image.Load("/tmp/images/real.gif", false));
    EXPECT_EQ(before, image.GetBitmap());
    SmartBitmap missing;
    EXPECT_FALSE(missing.Load("/tmp/images/missing.png", false));
    EXPECT_FALSE(missing.LoadPNG("/tmp/images", false)) << "a directory is not a file";
    EXPECT_EQ(decodes, qvhost_image_decodes());

    EXPECT_EQ("JPG", SmartBitmap::getExt("/a.b/photo.JPG"));
    EXPECT_EQ("", SmartBitmap::getExt("dir.d/file"));
    EXPECT_EQ("gz", SmartBitmap::getExt("x.tar.gz"));
    EXPECT_EQ("", SmartBitmap::getExt("noext"));
    EXPECT_EQ("", SmartBitmap::getExt("dot."));
}

TEST(SmartBitmap, ThemeImagesAreCachedAndMissingOnesGiveTheBrokenImage) {
    ASSERT_EQ(0, std::system("mkdir -p " QVHOST_THEME_IMAGE_DIR));
    Convert("-size 6x2 xc:gray20 -type Grayscale " QVHOST_THEME_IMAGE_DIR "/icon.png");

    const int calls = qvhost_key_resource_calls();
    SmartBitmap icon;
    icon.LoadFromTheme("icon");
    ASSERT_FALSE(icon.isEmpty());
    EXPECT_EQ(8, icon.depth()) << "theme images come widened from depth 4";
    EXPECT_EQ(3 * 17, Pixel(icon.GetBitmap(), 5, 1)) << "20% grey is level 3 of 16";
    SmartBitmap again("icon", false);
    EXPECT_EQ(icon.GetBitmap(), again.GetBitmap());
    EXPECT_NE(nullptr, qvhost_framebuffer()) << "a theme lookup opens the screen";

    SmartBitmap missing;
    missing.LoadFromTheme("no_such_icon");
    EXPECT_TRUE(missing.isEmpty());
    EXPECT_EQ(SmartBitmap::BrokenSmartBitmap, missing);
    EXPECT_EQ(48, missing.width());
    EXPECT_EQ(4, missing.depth());
    EXPECT_EQ(24, missing.GetBitmap()->scanline);
    missing.LoadFromTheme("no_such_icon", icon);
    EXPECT_EQ(icon, missing) << "the fallback stands in";
    EXPECT_FALSE(SmartBitmap().Load("no_such_icon", false));
    EXPECT_EQ(calls + 2, qvhost_key_resource_calls()) << "each name is asked for once";
}

TEST(SmartBitmap, HandlesShareAndCopyPixels) {
    SmartBitmap a(30, 10);
    ASSERT_FALSE(a.isEmpty());
    EXPECT_EQ(std::make_pair(30, 10), a.GetSize());
    SmartBitmap b = a, c;
    c.init(b);
    EXPECT_EQ(a.GetBitmap(), c.GetBitmap());
    a.Release();
    EXPECT_TRUE(a.isEmpty());
    EXPECT_EQ(std::make_pair(0, 0), a.GetSize());
    EXPECT_EQ(0, a.depth());
    EXPECT_EQ(255, Pixel(c.GetBitmap(), 29, 9)) << "the others keep the pixels";

    SmartBitmap copy;
    copy.SetBitmap(c.GetBitmap());
    EXPECT_NE(c.GetBitmap(), copy.GetBitmap());
    EXPECT_EQ(0, std::memcmp(c.GetBitmap()->data, copy.GetBitmap()->data, 300));

    // Depth 8 shares, depth 4 widens, other depths and null give nothing.
    EXPECT_EQ(c.GetBitmap(), c.get8bppBitmap().GetBitmap());
    const SmartBitmap wide = SmartBitmap::BrokenSmartBitmap.get8bppBitmap();
    EXPECT_EQ(8, wide.depth());
    EXPECT_EQ(48, wide.width());
    EXPECT_FALSE(wide.isEmpty()) << "a widened copy is a picture of its own";
    auto* bilevel = static_cast<ibitmap*>(std::malloc(sizeof(ibitmap) + 2));
    *bilevel = ibitmap{8, 2, 1, 1};
    SmartBitmap one_bit;
    one_bit.init(bilevel);
    EXPECT_TRUE(one_bit.get8bppBitmap().isEmpty());
    EXPECT_TRUE(SmartBitmap().get8bppBitmap().isEmpty());
    EXPECT_TRUE(SmartBitmap::ToSmartBitmap(nullptr).isEmpty());
}

TEST(SmartBitmap, SavesAndCopiesFromTheScreen) {
    OpenScreen();
    ibitmap* frame = qvhost_framebuffer();
    ASSERT_NE(nullptr, frame);
    ASSERT_EQ(ScreenWidth(), frame->width);
    frame->data[5 * frame->scanline + 7] = 0x40;

    SmartBitmap part;
    part.FromScreen(5, 3, 4, 4);
    ASSERT_EQ(std::make_pair(4, 4), part.GetSize());
    EXPECT_EQ(0x40, Pixel(part.GetBitmap(), 2, 2));
    part.FromScreen(ScreenWidth() - 2, -5, 10, 10);
    EXPECT_EQ(std::make_pair(2, 5), part.GetSize()) << "clipped to the screen";
    part.FromScreen(ScreenWidth(), 0, 10, 10);
    EXPECT_TRUE(part.isEmpty());

    SmartBitmap grab;
    grab.FromScreen(5, 3, 4, 4);
    for (const std::string path : {"/tmp/grab.png", "/tmp/grab.bmp"}) {
        EXPECT_EQ(0, path.back() == 'g' ? grab.SavePNG(path) : grab.SaveBMP(path));
        SmartBitmap back;
        ASSERT_TRUE(back.Load(path, false)) << path;
        EXPECT_EQ(0, std::memcmp(grab.GetBitmap()->data, back.GetBitmap()->data, 16)) << path;
    }
    EXPECT_EQ(-1, grab.SavePNG("/tmp/no/such/dir/x.png"));
    EXPECT_EQ(1, qvhost_save_screen("/tmp/screen.png"));

    qvtest::LogCapture log;
    EXPECT_EQ(-1, SmartBitmap().SaveBMP("/tmp/x.bmp"));
    EXPECT_TRUE(log.Has(1, qvtest::PidLine("Condition: \"!bitmap_\", return(\"-1\")]nothing to "
                                           "save as /tmp/x.bmp")));
}

TEST(HostImages, StretchingFollowsTheBoxAndTheFlags) {
    const std::string base = qvtest::HalfBlackPicture();
    SetLoadImageFlags(0);
    ibitmap* fitted = LoadPNGStretch(base.c_str(), 20, 20, 0, 1);
    ASSERT_NE(nullptr, fitted);
    EXPECT_EQ(20, fitted->width);
    EXPECT_EQ(10, fitted->height);
    EXPECT_EQ(0, Pixel(fitted, 2, 5));
    EXPECT_EQ(255, Pixel(fitted, 17, 5));
    std::free(fitted);
    ibitmap* large = LoadPNGStretch(base.c_str(), 80, 80, 0, 1);
    EXPECT_EQ(80, large->width);
    std::free(large);
    EXPECT_EQ(0, SetLoadImageFlags(LOAD_IMAGE_NO_ENLARGE));
    large = LoadPNGStretch(base.c_str(), 80, 80, 0, 1);
    EXPECT_EQ(40, large->width);
    EXPECT_EQ(LOAD_IMAGE_NO_ENLARGE, SetLoadImageFlags(0));

    ibitmap* right = BitmapStretchCopy(large, 20, 0, 20, 20, 5, 5);
    ASSERT_NE(nullptr, right);
    EXPECT_EQ(255, Pixel(right, 0, 0));
    std::free(right);
    EXPECT_EQ(nullptr, BitmapStretchCopy(large, 30, 0, 20, 20, 5, 5)) << "outside the bitmap";
    std::free(large);
    EXPECT_EQ(nullptr, NewBitmap(0, 5));
    EXPECT_EQ(nullptr, LoadPNG("/tmp/images/none.png", 0));
}

}  // namespace
