// qvtool image info | convert: pictures as applications load them, through SmartBitmap and the
// platform's decoders.

#include <iostream>
#include <string>

#include "cli.h"
#include "common_utilities/smartbitmap.h"
#include "image_io.h"
#include "moorglass.h"

namespace qvtool {
namespace {

using quorvel::utilities::SmartBitmap;

int RunInfo(Args& args) {
    const std::string path = args.Next("FILE");
    args.Done();
    const SmartBitmap picture = LoadPictureOrFail(path);
    std::cout << path << ": " << picture.width() << " x " << picture.height() << " pixels, depth "
              << picture.depth() << ", " << picture.GetBitmap()->scanline << " bytes a row\n";
    return kOk;
}

int RunConvert(Args& args) {
    const std::string path = args.Next("FILE");
    std::string out = args.NextOptional().value_or("");
    args.Done();
    if (out.empty()) {
        const std::string ext = SmartBitmap::getExt(path);
        out = (ext.empty() ? path : path.substr(0, path.size() - ext.size() - 1)) + ".png";
        if (out == path) throw Failure(kUsage, "name OUT.png: it would replace " + path);
    }
    const SmartBitmap picture = LoadPictureOrFail(path);
    const bool bmp = SmartBitmap::getExt(out) == "bmp";
    if ((bmp ? picture.SaveBMP(out) : picture.SavePNG(out)) != 0)
        throw Failure(kFailed, "can't write " + out);
    std::cout << out << ": " << picture.width() << " x " << picture.height()
              << " pixels, 8-bit grey\n";
    return kOk;
}

const bool registered_info = Register(
    {"image info", "size and depth of a picture as applications load it",
     "usage: qvtool image info FILE\n"
     "Loads FILE the way applications do, choosing the decoder by its extension (png, jpg or\n"
     "jpeg, bmp, tif or tiff, in any case), and prints its size and depth. A bare NAME without\n"
     "\"/\" or extension is an image of the device's theme. JPEG and TIFF pictures load with\n"
     "the device's brightness 95 and contrast 105. Exit code 3 when FILE does not exist, 1 when\n"
     "it can't be decoded (a truncated file, or one whose extension lies).\n",
     RunInfo});

const bool registered_convert = Register(
    {"image convert", "a picture as the 8-bit grey PNG (or BMP) the device shows",
     "usage: qvtool image convert FILE [OUT.png|OUT.bmp]\n"
     "Loads FILE as `qvtool image info` does and writes it as 8-bit grey: a PNG, or a BMP\n"
     "when OUT ends in .bmp. OUT defaults to FILE with its extension replaced by .png.\n"
     "Exit codes as for `image info`.\n",
     RunConvert});

}  // namespace
}  // namespace qvtool
