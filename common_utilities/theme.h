// Values of the device's theme.
#pragma once

#include <string>

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace system {

class QV_EXPORT Theme {
public:
    // The theme's value of `key` as a number; `default_value` when the theme has none, 0 when
    // it has one that isn't a number.
    static float GetFloat(const std::string& key, float default_value);
};

}  // namespace system
}  // namespace quorvel
