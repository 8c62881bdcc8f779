// qvtool qr: a text as the QR code bitmap that sign-in screens show.

#include <sys/stat.h>

#include <cstring>
#include <iostream>
#include <stdexcept>
#include <string>

#include "cli.h"
#include "common_utilities/qr_code.h"
#include "image_io.h"
#include "moorglass.h"

namespace qvtool {
namespace {

using quorvel::utilities::SmartBitmap;

// The code on a white page with `margin` pixels round it: readers need that quiet zone.
SmartBitmap WithMargin(const SmartBitmap& code, int margin) {
    const ibitmap* bitmap = code.GetBitmap();
    SmartBitmap page(bitmap->width + 2 * margin, bitmap->height + 2 * margin);
    auto* pixels = const_cast<ibitmap*>(page.GetBitmap());
    for (int y = 0; y < bitmap->height; ++y)
        std::memcpy(pixels->data + static_cast<size_t>(y + margin) * pixels->scanline + margin,
                    bitmap->data + static_cast<size_t>(y) * bitmap->scanline, bitmap->width);
    return page;
}

int RunQr(Args& args) {
    const std::string out = args.Option("-o").value_or("qr.png");
    const long long size = ParseInteger(args.Option("--size").value_or("300"), "--size");
    const long long margin = ParseInteger(args.Option("--margin").value_or("16"), "--margin");
    const std::string text = args.Next("TEXT");
    args.Done();
    if (size < 0 || size > 4000) throw Failure(kUsage, "--size must be 0 to 4000 pixels");
    if (margin < 0 || margin > 1000) throw Failure(kUsage, "--margin must be 0 to 1000 pixels");
    SmartBitmap code;
    try {
        code = quorvel::utilities::MakeQrCode(text, static_cast<int>(size));
    } catch (const std::length_error&) {
        throw Failure(kFailed, "the text is too long for a QR code (" +
                                   std::to_string(text.size()) + " bytes)");
    }
    const SmartBitmap page = WithMargin(code, static_cast<int>(margin));
    if (page.SavePNG(out) != 0) throw Failure(kFailed, "can't write " + out);
    std::cout << out << ": code of " << code.width() << " x " << code.height() << " pixels";
    if (margin > 0) std::cout << " in a " << page.width() << " x " << page.height() << " page";
    struct stat info {};
    std::cout << ", " << SizeText(::stat(out.c_str(), &info) == 0 ? info.st_size : 0) << '\n';
    return kOk;
}

const bool registered = Register(
    {"qr", "a text as a QR code picture (PNG)",
     "usage: qvtool qr TEXT [-o OUT.png] [--size PIXELS] [--margin PIXELS]\n"
     "Encodes TEXT (UTF-8) with medium error correction as applications do: each module a\n"
     "whole square of pixels, the code's side the largest multiple of its modules within\n"
     "--size (default 300; a size too small gives 1 pixel a module). The PNG (default qr.png)\n"
     "has --margin white pixels round the code (default 16), the quiet zone readers need.\n"
     "Exit code 1 when TEXT is too long for a QR code.\n",
     RunQr});

}  // namespace
}  // namespace qvtool
