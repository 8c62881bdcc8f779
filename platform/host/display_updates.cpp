// Display updates on the host. An e-ink panel keeps showing what the last update put there while
// the application draws on into the screen's frame; the host keeps that picture too: each update
// copies its part of the frame (qvhost_framebuffer) to the panel's picture of this process, which
// qvhost_save_panel writes out. Each update is also recorded, one line per call in "display.log"
// of the state directory that every process of the device shares, as
//     full | full-hq | partial X Y W H | partial-hq X Y W H
// so that a test or a person can see what an application asked of the screen, and in what order.
// The height of the status panel is a setting of "display.cfg", 0 by default.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <string>

#include "host_state.h"
#include "moorglass.h"
#include "moorglass_host.h"
#include "state_file_cache.h"

namespace {

qvhost::StateFileCache& PanelFile() {
    static qvhost::StateFileCache file("display.cfg");
    return file;
}

// One write(2) per line on an O_APPEND descriptor: lines of concurrent processes never mix.
void Record(const std::string& line) {
    qvhost::EnsureStateDir();
    int fd = ::open(qvhost_display_log_path(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return;
    std::string text = line + "\n";
    ssize_t written = ::write(fd, text.data(), text.size());
    (void)written;
    ::close(fd);
}

std::mutex g_panel_lock;
ibitmap* g_panel = nullptr;  // lives until the process ends

// Copies the part of the frame (clipped to it) to the panel's picture.
void Show(int x, int y, int w, int h) {
    const ibitmap* frame = qvhost_framebuffer();
    if (frame == nullptr) return;
    std::lock_guard<std::mutex> lock(g_panel_lock);
    if (g_panel == nullptr) g_panel = NewBitmap(frame->width, frame->height);
    if (g_panel == nullptr || g_panel->width != frame->width || g_panel->height != frame->height) {
        return;
    }
    int left = std::max(0, x), top = std::max(0, y);
    int right = static_cast<int>(std::min<long>(static_cast<long>(x) + w, frame->width));
    int bottom = static_cast<int>(std::min<long>(static_cast<long>(y) + h, frame->height));
    for (int row = top; row < bottom && left < right; ++row) {
        std::memcpy(g_panel->data + static_cast<size_t>(row) * g_panel->scanline + left,
                    frame->data + static_cast<size_t>(row) * frame->scanline + left,
                    static_cast<size_t>(right - left));
    }
}

void RecordFull(const char* kind) {
    Show(0, 0, ScreenWidth(), ScreenHeight());
    Record(kind);
}

void RecordPartial(const char* kind, int x, int y, int w, int h) {
    Show(x, y, w, h);
    char line[96];
    std::snprintf(line, sizeof line, "%s %d %d %d %d", kind, x, y, w, h);
    Record(line);
}

}  // namespace

extern "C" {

void FullUpdate(void) {
    RecordFull("full");
}

void FullUpdateHQ(void) {
    RecordFull("full-hq");
}

void PartialUpdate(int x, int y, int w, int h) {
    RecordPartial("partial", x, y, w, h);
}

void PartialUpdateHQ(int x, int y, int w, int h) {
    RecordPartial("partial-hq", x, y, w, h);
}

int PanelHeight(void) {
    return PanelFile().GetInt("panel_height", 0);
}

void qvhost_set_panel_height(int height) {
    PanelFile().Set("panel_height", std::to_string(height).c_str());
}

int qvhost_save_panel(const char* path) {
    std::lock_guard<std::mutex> lock(g_panel_lock);
    return g_panel == nullptr ? 0 : SavePNG(path, g_panel);
}

const char* qvhost_display_log_path(void) {
    static thread_local std::string path;
    path = qvhost::StatePath("display.log");
    return path.c_str();
}

}  // extern "C"
