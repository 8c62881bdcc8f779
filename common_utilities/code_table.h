// CodeTable: a table of four code columns read once from a text file, shared by CountryCodes and
// LanguageCodes (internal to the library).
//
// One record a line, each of the four columns ended by the separator; anything behind the fourth
// separator is ignored. A line beginning with "#" is a comment, and a line without all four
// separators is skipped. Columns are taken as they stand: no blanks are trimmed.
#pragma once

#include <array>
#include <string>
#include <vector>

namespace quorvel {
namespace utilities {

class CodeTable {
public:
    static constexpr unsigned kColumns = 4;
    struct Metadata {
        std::array<std::string, kColumns> columns;
    };

    // Loads `path` at once. A file that can't be read leaves the table empty and logs
    // "Can't find or parse file <path>".
    CodeTable(const std::string& path, char separator);

    // The `to` column of the first row whose `from` column equals `code` as given, in upper case
    // or in lower case; empty when no row does or a column is out of range.
    std::string FindCode(unsigned from, const std::string& code, unsigned to) const;
    // One cell; empty when the row or the column is out of range.
    std::string GetCode(unsigned column, unsigned row) const;

private:
    std::vector<Metadata> rows_;
};

}  // namespace utilities
}  // namespace quorvel
