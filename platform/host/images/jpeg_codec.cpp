// JPEG files through libjpeg, decoded straight to grey. A file that libjpeg has to patch up (a
// truncated one, whose missing part it would paint grey) is refused, not shown half made.

#include <csetjmp>
#include <cstddef>
#include <cstdio>
#include <memory>

#include <jpeglib.h>

#include "grey_image.h"
#include "moorglass.h"

namespace qvhost {
namespace {

struct ErrorManager {
    jpeg_error_mgr base;
    std::jmp_buf jump;
};

[[noreturn]] void OnError(j_common_ptr info) {
    std::longjmp(reinterpret_cast<ErrorManager*>(info->err)->jump, 1);
}

// Warnings are counted, not printed: a file that needed patching up is refused afterwards.
void CountWarnings(j_common_ptr info, int level) {
    if (level < 0) ++info->err->num_warnings;
}

// Kept free of objects with destructors: longjmp leaves this frame.
bool Decode(std::FILE* file, GreyImage* image) {
    jpeg_decompress_struct info;
    ErrorManager errors;
    info.err = jpeg_std_error(&errors.base);
    errors.base.error_exit = OnError;
    errors.base.emit_message = CountWarnings;
    if (setjmp(errors.jump)) {
        jpeg_destroy_decompress(&info);
        return false;
    }
    jpeg_create_decompress(&info);
    jpeg_stdio_src(&info, file);
    jpeg_read_header(&info, TRUE);
    if (!WithinPixelBudget(info.image_width, info.image_height)) {
        jpeg_destroy_decompress(&info);
        return false;
    }
    info.out_color_space = JCS_GRAYSCALE;
    jpeg_start_decompress(&info);
    image->width = static_cast<int>(info.output_width);
    image->height = static_cast<int>(info.output_height);
    image->pixels.resize(static_cast<size_t>(image->width) * image->height);
    while (info.output_scanline < info.output_height) {
        JSAMPROW row = &image->pixels[static_cast<size_t>(info.output_scanline) * image->width];
        jpeg_read_scanlines(&info, &row, 1);
    }
    jpeg_finish_decompress(&info);
    const bool clean = errors.base.num_warnings == 0;
    jpeg_destroy_decompress(&info);
    return clean;
}

}  // namespace
}  // namespace qvhost

extern "C" ibitmap* LoadJPEG(const char* path, int width, int height, int brightness, int contrast,
                             int proportional) {
    qvhost::CountDecode();
    if (path == nullptr) return nullptr;
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path, "rb"), std::fclose);
    if (!file) return nullptr;
    qvhost::GreyImage image;
    if (!qvhost::Decode(file.get(), &image)) return nullptr;
    return qvhost::PhotoBitmap(std::move(image), width, height, brightness, contrast, proportional);
}
