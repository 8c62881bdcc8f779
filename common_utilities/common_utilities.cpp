#include "common_utilities/common_utilities.h"

#include <cstdlib>
#include <memory>

namespace quorvel {
namespace utilities {
namespace {

using PlatformText = std::unique_ptr<char, decltype(&std::free)>;

std::string MapCase(const std::string& text, char* (*mapper)(const char*)) {
    PlatformText mapped(mapper(text.c_str()), &std::free);
    return mapped ? std::string(mapped.get()) : text;
}

}  // namespace

std::string ToLower(const std::string& text) {
    return MapCase(text, &utf_tolower_ext);
}

std::string ToUpper(const std::string& text) {
    return MapCase(text, &utf_toupper_ext);
}

}  // namespace utilities
}  // namespace quorvel
