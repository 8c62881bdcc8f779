// The screen of the host platform: no panel, only the size an application would see, from
// "display.cfg" in the state directory, or the size of a common 7.8" reader panel.

#include <string>

#include "moorglass.h"
#include "moorglass_host.h"
#include "state_file_cache.h"

namespace {

constexpr int kDefaultWidth = 1072;
constexpr int kDefaultHeight = 1448;

qvhost::StateFileCache& DisplayFile() {
    static qvhost::StateFileCache file("display.cfg");
    return file;
}

}  // namespace

extern "C" {

int ScreenWidth(void) {
    return DisplayFile().GetInt("width", kDefaultWidth);
}

int ScreenHeight(void) {
    return DisplayFile().GetInt("height", kDefaultHeight);
}

void qvhost_set_screen_size(int width, int height) {
    DisplayFile().Set("width", std::to_string(width).c_str());
    DisplayFile().Set("height", std::to_string(height).c_str());
}

}  // extern "C"
