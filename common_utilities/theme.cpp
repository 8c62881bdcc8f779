#include "common_utilities/theme.h"

#include <sstream>

namespace quorvel {
namespace system {

namespace {

// The theme belongs to the screen: the platform knows it once the screen is open.
bool g_screen_opened = false;

}  // namespace

float Theme::GetFloat(const std::string& key, float default_value) {
    if (!g_screen_opened) {
        OpenScreen();
        g_screen_opened = true;
    }
    const char* text = GetThemeString(key.c_str(), "");
    if (text == nullptr || *text == '\0') return default_value;
    std::istringstream in(text);
    float value = 0;
    if (!(in >> value)) return 0;
    return value;
}

}  // namespace system
}  // namespace quorvel
