#include "common_utilities/code_table.h"

#include <fstream>
#include <optional>

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace utilities {
namespace {

// The four columns of a line, or nothing when a separator is missing.
std::optional<CodeTable::Metadata> ParseLine(const std::string& line, char separator) {
    CodeTable::Metadata record;
    size_t start = 0;
    for (auto& column : record.columns) {
        size_t end = line.find(separator, start);
        if (end == std::string::npos) return std::nullopt;
        column = line.substr(start, end - start);
        start = end + 1;
    }
    return record;
}

}  // namespace

CodeTable::CodeTable(const std::string& path, char separator) {
    std::ifstream file(path);
    if (!file) {
        QV_LOG_ERROR("Can't find or parse file %s", path.c_str());
        return;
    }
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line[0] == '#') continue;
        if (auto record = ParseLine(line, separator)) rows_.push_back(std::move(*record));
    }
    // A read error halfway (not the end of the file) leaves a table that silently lacks rows.
    if (file.bad()) {
        QV_LOG_ERROR("Can't find or parse file %s", path.c_str());
        rows_.clear();
    }
}

std::string CodeTable::FindCode(unsigned from, const std::string& code, unsigned to) const {
    if (from >= kColumns || to >= kColumns) return {};
    const std::string upper = ToUpper(code);
    const std::string lower = ToLower(code);
    for (const auto& row : rows_) {
        const std::string& cell = row.columns[from];
        if (cell == code || cell == upper || cell == lower) return row.columns[to];
    }
    return {};
}

std::string CodeTable::GetCode(unsigned column, unsigned row) const {
    if (column >= kColumns || row >= rows_.size()) return {};
    return rows_[row].columns[column];
}

}  // namespace utilities
}  // namespace quorvel
