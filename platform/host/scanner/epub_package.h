// What the scanner reads from an EPUB: the package document (OPF) named by
// META-INF/container.xml, its title and author, and the cover image it points to.
#pragma once

#include <optional>
#include <string>

namespace qvscanner {

struct EpubPackage {
    std::string title;
    std::string author;
    std::string cover_path;  // the cover image's path inside the archive; empty when none
};

// Reads the package of the EPUB at `path`; nothing when it isn't a readable EPUB.
std::optional<EpubPackage> ReadEpubPackage(const std::string& path);
// The bytes of one member of the archive; nothing when it is missing.
std::optional<std::string> ReadZipMember(const std::string& archive, const std::string& member);

}  // namespace qvscanner
