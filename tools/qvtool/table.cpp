#include "table.h"

#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <cctype>

namespace qvtool {
namespace {

std::string Printable(const std::string& cell) {
    std::string out;
    for (char c : cell) {
        switch (c) {
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                out += c;
        }
    }
    return out;
}

bool IsNumber(const std::string& cell) {
    if (cell.empty()) return false;
    size_t start = (cell[0] == '-') ? 1 : 0;
    if (start == cell.size()) return false;
    return std::all_of(cell.begin() + static_cast<long>(start), cell.end(), [](char c) {
        return std::isdigit(static_cast<unsigned char>(c)) || c == '.';
    });
}

}  // namespace

size_t DisplayWidth(const std::string& text) {
    const auto* s = reinterpret_cast<const uint8_t*>(text.data());
    auto length = static_cast<int32_t>(text.size());
    size_t width = 0;
    for (int32_t i = 0; i < length;) {
        UChar32 c = 0;
        U8_NEXT(s, i, length, c);
        if (c < 0) {
            ++width;
            continue;
        }
        if (u_getCombiningClass(c) != 0) continue;
        auto east_asian = u_getIntPropertyValue(c, UCHAR_EAST_ASIAN_WIDTH);
        width += (east_asian == U_EA_WIDE || east_asian == U_EA_FULLWIDTH) ? 2 : 1;
    }
    return width;
}

Table::Table(std::vector<std::string> headers) : headers_(std::move(headers)) {}

void Table::AddRow(std::vector<std::string> cells) {
    cells.resize(headers_.size());
    for (auto& cell : cells)
        cell = Printable(cell);
    rows_.push_back(std::move(cells));
}

void Table::Print(std::ostream& out) const {
    size_t columns = headers_.size();
    std::vector<size_t> widths(columns);
    std::vector<bool> numeric(columns, !rows_.empty());
    for (size_t c = 0; c < columns; ++c)
        widths[c] = DisplayWidth(headers_[c]);
    for (const auto& row : rows_) {
        for (size_t c = 0; c < columns; ++c) {
            widths[c] = std::max(widths[c], DisplayWidth(row[c]));
            numeric[c] = numeric[c] && IsNumber(row[c]);
        }
    }
    auto print_row = [&](const std::vector<std::string>& cells) {
        std::string line;
        for (size_t c = 0; c < columns; ++c) {
            std::string pad(widths[c] - DisplayWidth(cells[c]), ' ');
            if (c > 0) line += "  ";
            line += numeric[c] ? pad + cells[c] : cells[c] + (c + 1 < columns ? pad : "");
        }
        out << line << '\n';
    };
    print_row(headers_);
    std::vector<std::string> rule;
    for (size_t c = 0; c < columns; ++c)
        rule.push_back(std::string(widths[c], '-'));
    print_row(rule);
    for (const auto& row : rows_)
        print_row(row);
}

}  // namespace qvtool
