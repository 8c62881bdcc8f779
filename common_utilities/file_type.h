// File types the device handles, by extension: the system's table
// ("/zelgrot/config/extensions.cfg") under the user's ("/mnt/ext1/system/config/extensions.cfg").
//
// Each line of a table holds five fields divided by ":" (runs of ":" count as one):
//     extension : program : type : icon : description
// `type` is a decimal number: 1 a book, 2 a picture that is its own cover, 3 audio. The text
// fields are for the callers; the last keeps the line end of the file. The first table that names
// an extension wins, so the user's file is read first. Lines with fewer fields are skipped; a
// line longer than 1023 characters is read in pieces, each taken as a line.
#pragma once

#include <list>
#include <map>
#include <string>

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace utilities {

struct QV_EXPORT FileType {
    int type = 0;
    std::string extension;
    std::string program;      // field 2
    std::string icon;         // field 4
    std::string description;  // field 5
};

class QV_EXPORT FileTypeManager {
public:
    // Both tables; always 0, a missing table is simply not there.
    int LoadTypesInfo();
    // One table: 0, or QV_TIMEOUT when it can't be opened (the map stays as it was).
    int LoadTypesInfo(const std::string& path);
    // One line, cut in place: 0, or -1 when it doesn't hold five fields.
    int ParseExtentionInfo(char* line);

    // By extension, letter case ignored; an empty FileType when unknown.
    FileType GetFileTypeByExt(const std::string& extension) const;
    // By the text behind the last "." of `name`.
    FileType GetFileTypeByFilename(const std::string& name) const;
    std::list<std::string> GetExtensions();

private:
    std::map<std::string, FileType> types_;
};

}  // namespace utilities
}  // namespace quorvel
