// Display updates on the host. There is no panel to drive: each update is recorded, one line per
// call in "display.log" of the state directory that every process of the device shares, as
//     full | full-hq | partial X Y W H | partial-hq X Y W H
// so that a test or a person can see what an application asked of the screen, and in what order.
// The height of the status panel is a setting of "display.cfg", 0 by default.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
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

void RecordPartial(const char* kind, int x, int y, int w, int h) {
    char line[96];
    std::snprintf(line, sizeof line, "%s %d %d %d %d", kind, x, y, w, h);
    Record(line);
}

}  // namespace

extern "C" {

void FullUpdate(void) {
    Record("full");
}

void FullUpdateHQ(void) {
    Record("full-hq");
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

const char* qvhost_display_log_path(void) {
    static thread_local std::string path;
    path = qvhost::StatePath("display.log");
    return path.c_str();
}

}  // extern "C"
