// Sizes and dates as the interface shows them, in the interface language.
#pragma once

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace utilities {

class QV_EXPORT HumanStringUtility {
public:
    // `count` blocks of `unit` bytes as "999 bytes", "1.5 KB", "312 KB", "12.3 MB", "4096 MB":
    // one decimal, cut rather than rounded, below 100 of a unit. `out` holds 32 bytes; the result
    // is snprintf's.
    static int HumanSize(char* out, unsigned long long count, unsigned long long unit);
    // DateStr of `time`, two blanks, "HH:MM" in local time; `out` must hold 80 bytes.
    static int HumanDate(char* out, long time);
};

}  // namespace utilities
}  // namespace quorvel
