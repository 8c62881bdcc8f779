// Inside the library only: how the database managers store a path, as a folder row and a file
// name cut at the last "/". No notice is taken of the zip form: "/m/b.zip:#zip(d/01.mp3)" gives
// the folder "/m/b.zip:#zip(d" and the name "01.mp3)", which joins back to the same text.
#pragma once

#include <string>

namespace quorvel {
namespace utilities {

struct SplitPath {
    std::string folder;  // "" when the path has no "/"
    std::string name;
};

inline SplitPath SplitAtLastSlash(const std::string& path) {
    size_t slash = path.rfind('/');
    if (slash == std::string::npos) return {"", path};
    return {path.substr(0, slash), path.substr(slash + 1)};
}

}  // namespace utilities
}  // namespace quorvel
