// Aligned text tables for qvtool's listings.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace qvtool {

class Table {
public:
    explicit Table(std::vector<std::string> headers);

    void AddRow(std::vector<std::string> cells);
    size_t rows() const { return rows_.size(); }
    // Columns are as wide as their widest cell; a column whose cells are all numbers is aligned
    // to the right. Line breaks and tabs in cells are shown escaped, so rows stay one line each.
    void Print(std::ostream& out) const;

private:
    std::vector<std::string> headers_;
    std::vector<std::vector<std::string>> rows_;
};

// Width of UTF-8 text on a terminal, in columns (East Asian wide characters count two).
size_t DisplayWidth(const std::string& text);

}  // namespace qvtool
