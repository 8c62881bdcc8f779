// Argument lines as applications get them: one text handed on by another process, or an argv
// array (the input cut at zero bytes). Whatever the line, every option and argument must be found
// by the questions applications ask, and the array must read as the line it joins into.

#include <cstring>
#include <string>
#include <vector>

#include "common_utilities/parameters.h"
#include "fuzz_support.h"

namespace {

using quorvel::utilities::Parameters;

std::vector<std::string> CutAtZeros(const std::string& text) {
    std::vector<std::string> pieces;
    size_t start = 0;
    for (size_t end; (end = text.find('\0', start)) != std::string::npos; start = end + 1)
        pieces.push_back(text.substr(start, end - start));
    pieces.push_back(text.substr(start));
    return pieces;
}

void CheckAnswers(const Parameters& p) {
    for (const auto& [key, value] : p.GetOptions()) {
        QVFUZZ_CHECK(p.IsOptPresent(key));
        QVFUZZ_CHECK(!p.GetAllOptArgs(key).empty());
        (void)value;
    }
    for (const std::string& argument : p.GetArguments()) {
        QVFUZZ_CHECK(!argument.empty());
        QVFUZZ_CHECK(p.IsArgumentPresent(argument));
    }
    p.GetOptArg('-');
    p.FindEndEscapedParameter(p.LTrim(p.RTrim(p.GetOptArg('o'))));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text = qvfuzz::Text(data, size);

    Parameters line;
    line.Set(text);
    CheckAnswers(line);

    std::vector<std::string> pieces = CutAtZeros(text);
    std::vector<const char*> argv;
    for (const std::string& piece : pieces)
        argv.push_back(piece.c_str());
    Parameters array;
    array.Set(static_cast<int>(argv.size()), argv.data());
    CheckAnswers(array);

    std::string joined;
    for (const std::string& piece : pieces)
        joined += (joined.empty() ? "" : " ") + piece;
    Parameters rejoined;
    rejoined.Set(joined.c_str());
    QVFUZZ_CHECK(rejoined.GetTokens() == array.GetTokens());
    QVFUZZ_CHECK(rejoined.GetOptions() == array.GetOptions());
    return 0;
}
