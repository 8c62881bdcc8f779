#include "common_utilities/theme.h"

#include <sstream>

namespace quorvel {
namespace system {

float Theme::GetFloat(const std::string& key, float default_value) {
    const char* text = GetThemeString(key.c_str(), "");
    if (text == nullptr || *text == '\0') return default_value;
    std::istringstream in(text);
    float value = 0;
    if (!(in >> value)) return 0;
    return value;
}

}  // namespace system
}  // namespace quorvel
