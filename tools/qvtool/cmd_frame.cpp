// qvtool frame pack | unpack: screen frames in the packed grey form applications keep them in,
// with or without QuickLZ.

#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "cli.h"
#include "common_utilities/compressed_bitmap.h"
#include "image_io.h"
#include "moorglass.h"

namespace qvtool {
namespace {

using quorvel::utilities::CompressedBitmap;
using quorvel::utilities::SmartBitmap;

// The frame a panel would hand over: the picture's grey levels as RGB565.
std::vector<uint16_t> Rgb565(const ibitmap& grey) {
    std::vector<uint16_t> pixels(static_cast<size_t>(grey.width) * grey.height);
    for (size_t i = 0; i < pixels.size(); ++i) {
        const unsigned v = grey.data[(i / grey.width) * grey.scanline + i % grey.width];
        pixels[i] = static_cast<uint16_t>((v >> 3) << 11 | (v >> 2) << 5 | (v >> 3));
    }
    return pixels;
}

uint32_t Le32(const std::string& bytes, size_t at) {
    uint32_t value = 0;
    for (int i = 3; i >= 0; --i)
        value = value << 8 | static_cast<uint8_t>(bytes[at + i]);
    return value;
}

// The QuickLZ form: both sizes, then a frame of exactly the rest, whose header is level 1.
bool LooksCompressed(const std::string& bytes) {
    return bytes.size() >= 20 && Le32(bytes, 4) == bytes.size() - 8 &&
           (static_cast<uint8_t>(bytes[8]) & 0xFC) == 0x44;
}

int RunPack(Args& args) {
    const bool quicklz = args.Flag("--quicklz");
    const std::string in = args.Next("IN.png");
    const std::string out = args.Next("OUT.frame");
    args.Done();
    const SmartBitmap grey = LoadPictureOrFail(in).get8bppBitmap();
    if (grey.isEmpty()) throw Failure(kFailed, in + " has no grey form to pack");
    const ibitmap& bitmap = *grey.GetBitmap();
    const std::vector<uint16_t> pixels = Rgb565(bitmap);
    std::unique_ptr<CompressedBitmap> frame(
        CompressedBitmap::fromRGB565(pixels.data(), bitmap.width, bitmap.height, bitmap.width * 2));
    if (!frame) throw Failure(kFailed, "can't pack " + in);
    std::ostringstream stream;
    if ((quicklz ? frame->toCompressedStream(stream) : frame->toStream(stream)) != 0)
        throw Failure(kFailed, "can't pack " + in);
    WriteFileOrFail(out, stream.str());
    std::cout << out << ": " << bitmap.width << " x " << bitmap.height << " frame, RGB565 "
              << SizeText(pixels.size() * 2) << " packed " << (quicklz ? "with QuickLZ " : "")
              << "into " << SizeText(stream.str().size()) << '\n';
    return kOk;
}

int RunUnpack(Args& args) {
    const std::string in = args.Next("IN.frame");
    const std::string out = args.Next("OUT.png");
    args.Done();
    const std::string bytes = ReadFileOrFail(in);
    const bool quicklz = LooksCompressed(bytes);
    std::istringstream stream(bytes);
    std::unique_ptr<CompressedBitmap> frame(quicklz ? CompressedBitmap::fromCompressedStream(stream)
                                                    : CompressedBitmap::fromStream(stream));
    if (!frame) throw Failure(kFailed, in + " is not a packed frame, or is damaged");
    const SmartBitmap grey = SmartBitmap::ToSmartBitmap(frame->toGrayscale8());
    if (grey.isEmpty()) throw Failure(kFailed, in + " holds a frame without pixels");
    if (grey.SavePNG(out) != 0) throw Failure(kFailed, "can't write " + out);
    std::cout << out << ": " << grey.width() << " x " << grey.height() << " pixels, 16 greys, from "
              << SizeText(bytes.size()) << (quicklz ? " with QuickLZ" : "") << '\n';
    return kOk;
}

const bool registered_pack = Register(
    {"frame pack", "a picture as a packed screen frame (16 greys, optionally QuickLZ)",
     "usage: qvtool frame pack IN.png OUT.frame [--quicklz]\n"
     "Takes the picture's grey levels as an RGB565 frame and packs it as applications keep\n"
     "screens: two pixels to a byte, white rows and white or black groups of 4 pixels in a bit\n"
     "or two. --quicklz writes the QuickLZ-compressed form. IN may be any picture `qvtool image`\n"
     "reads. Prints the raw and packed sizes. Exit code 3 when IN does not exist.\n",
     RunPack});

const bool registered_unpack = Register(
    {"frame unpack", "a packed screen frame back to a PNG picture",
     "usage: qvtool frame unpack IN.frame OUT.png\n"
     "Reads a frame written by `qvtool frame pack` (either form; the QuickLZ one is recognised\n"
     "by its sizes) and writes its 16 grey levels as an 8-bit PNG. Exit code 3 when IN does\n"
     "not exist, 1 when it is not a packed frame or is damaged.\n",
     RunUnpack});

}  // namespace
}  // namespace qvtool
