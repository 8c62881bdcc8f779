#include "common_utilities/human_string_utility.h"

#include <cstdio>
#include <ctime>

namespace quorvel {
namespace utilities {

namespace {

constexpr size_t kSizeBuffer = 32;
constexpr size_t kDateBuffer = 80;

// One decimal of `size` in units of `unit`, cut.
int WithDecimal(char* out, unsigned long long size, unsigned long long unit, const char* word) {
    unsigned long long tenths = size * 10 / unit;
    return std::snprintf(out, kSizeBuffer, "%i.%i %s", static_cast<int>(tenths / 10),
                         static_cast<int>(tenths % 10), word);
}

}  // namespace

int HumanStringUtility::HumanSize(char* out, unsigned long long count, unsigned long long unit) {
    unsigned long long size = count * unit;
    if (size < 1000) {
        return std::snprintf(out, kSizeBuffer, "%i %s", static_cast<int>(size),
                             GetLangText("@bytes"));
    }
    if (size < 100000) return WithDecimal(out, size, 1024, GetLangText("@kb"));
    if (size < 1000000) {
        return std::snprintf(out, kSizeBuffer, "%i %s", static_cast<int>(size >> 10),
                             GetLangText("@kb"));
    }
    if (size < 100000000) return WithDecimal(out, size, 1048576, GetLangText("@mb"));
    return std::snprintf(out, kSizeBuffer, "%i %s", static_cast<int>(size >> 20),
                         GetLangText("@mb"));
}

int HumanStringUtility::HumanDate(char* out, long time) {
    time_t t = static_cast<time_t>(time);
    struct tm local = {};
    localtime_r(&t, &local);
    return std::snprintf(out, kDateBuffer, "%s  %02i:%02i", DateStr(t), local.tm_hour,
                         local.tm_min);
}

}  // namespace utilities
}  // namespace quorvel
