// Code tables as the device's country and language files hold them, read by the loader that
// both share: every code the table holds is looked up again, in each direction, which runs the
// platform's case mapping over whatever bytes the file had.

#include <string>

#include "common_utilities/code_table.h"
#include "fuzz_support.h"

using quorvel::utilities::CodeTable;

namespace {
constexpr unsigned kRowsLookedUp = 16;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const std::string path = "/tmp/fuzz-codes.txt";
    qvfuzz::WriteFile(path, data + 1, size - 1);
    const CodeTable table(path, (data[0] & 1) ? '|' : ',');

    // Rows past the table's end read as empty codes, which are worth looking up too.
    for (unsigned row = 0; row < kRowsLookedUp; ++row)
        for (unsigned from = 0; from < CodeTable::kColumns; ++from) {
            const std::string code = table.GetCode(from, row);
            for (unsigned to = 0; to < CodeTable::kColumns; ++to)
                table.FindCode(from, code, to);
        }
    return 0;
}
