// The words qvtool uses for the state of the network link.
#pragma once

#include <string>

#include "moorglass.h"

namespace qvtool {

inline std::string LinkStateName(int state) {
    switch (state) {
        case NET_STATE_CONNECTED:
            return "up";
        case NET_STATE_CONNECTING:
            return "connecting";
        default:
            return "down";
    }
}

}  // namespace qvtool
