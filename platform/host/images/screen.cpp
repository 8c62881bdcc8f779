// The host's screen: a frame in this process's memory that drawing and display updates write
// into and that can be saved as a PNG file for a person to look at. Theme images come from PNG
// files of the device image.

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <mutex>
#include <string>

#include "grey_image.h"
#include "moorglass.h"
#include "moorglass_host.h"

namespace {

std::mutex g_screen_lock;
ibitmap* g_frame = nullptr;  // lives until the process ends
std::atomic<int> g_key_resource_calls{0};

// Levels 0..255 to the 16 of a depth-4 bitmap, rounded.
unsigned char ToLevel16(unsigned char grey) {
    return static_cast<unsigned char>((grey + 8) / 17);
}

}  // namespace

extern "C" {

void OpenScreen(void) {
    std::lock_guard<std::mutex> lock(g_screen_lock);
    if (g_frame == nullptr) g_frame = NewBitmap(ScreenWidth(), ScreenHeight());
}

ibitmap* qvhost_framebuffer(void) {
    std::lock_guard<std::mutex> lock(g_screen_lock);
    return g_frame;
}

int qvhost_save_screen(const char* path) {
    std::lock_guard<std::mutex> lock(g_screen_lock);
    return g_frame == nullptr ? 0 : SavePNG(path, g_frame);
}

ibitmap* BitmapFromScreen(int x, int y, int width, int height) {
    std::lock_guard<std::mutex> lock(g_screen_lock);
    if (g_frame == nullptr) return nullptr;
    const int left = x < 0 ? 0 : x, top = y < 0 ? 0 : y;
    const int right = std::min<long>(static_cast<long>(x) + width, g_frame->width);
    const int bottom = std::min<long>(static_cast<long>(y) + height, g_frame->height);
    if (right <= left || bottom <= top) return nullptr;
    ibitmap* part = NewBitmap(right - left, bottom - top);
    if (part == nullptr) return nullptr;
    for (int row = top; row < bottom; ++row)
        std::copy_n(g_frame->data + static_cast<size_t>(row) * g_frame->scanline + left,
                    right - left, part->data + static_cast<size_t>(row - top) * part->scanline);
    return part;
}

ibitmap* GetKeyResource(const char* name, ibitmap* default_bitmap) {
    ++g_key_resource_calls;
    if (name == nullptr || *name == '\0' || std::string(name).find('/') != std::string::npos)
        return default_bitmap;
    const std::string path = std::string(QVHOST_THEME_IMAGE_DIR "/") + name + ".png";
    ibitmap* grey = LoadPNG(path.c_str(), 0);
    if (grey == nullptr) return default_bitmap;
    ibitmap* icon = qvhost::AllocateBitmap(grey->width, grey->height, 4);
    if (icon != nullptr)
        for (int row = 0; row < grey->height; ++row)
            for (int col = 0; col < grey->width; ++col) {
                unsigned char& out =
                    icon->data[static_cast<size_t>(row) * icon->scanline + col / 2];
                const unsigned char level = ToLevel16(grey->data[row * grey->scanline + col]);
                out = (col & 1) ? (out & 0xF0) | level : (out & 0x0F) | (level << 4);
            }
    std::free(grey);
    return icon != nullptr ? icon : default_bitmap;
}

int qvhost_key_resource_calls(void) {
    return g_key_resource_calls.load();
}

}  // extern "C"
