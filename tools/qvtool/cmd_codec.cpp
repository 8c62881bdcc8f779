// qvtool hex | unhex | base64 | unbase64: the library's text encodings over standard input.
//
// The library's decoders are lenient on purpose (a stray character counts as 0 or is skipped);
// a person at a terminal is better served by being told, so the tool checks its input first.

#include <cctype>
#include <iostream>
#include <string>
#include <vector>

#include "cli.h"
#include "common_utilities/serialization_utils.h"

namespace qvtool {
namespace {

using quorvel::utilities::SerializationUtils;

// Input for the decoders: line breaks and blanks between the characters don't count.
std::string WithoutWhitespace(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (!std::isspace(static_cast<unsigned char>(c))) out += c;
    }
    return out;
}

void CheckCharacters(const std::string& text, bool (*valid)(char), const char* what) {
    for (size_t i = 0; i < text.size(); ++i) {
        if (!valid(text[i])) {
            throw Failure(kFailed, std::string("input is not ") + what + ": byte " +
                                       std::to_string(i + 1) + " is '" + text[i] + "'");
        }
    }
}

int RunHex(Args& args) {
    args.Done();
    std::cout << SerializationUtils::ToHex(ReadAllInput()) << '\n';
    return kOk;
}

int RunUnhex(Args& args) {
    args.Done();
    std::string text = WithoutWhitespace(ReadAllInput());
    CheckCharacters(
        text, [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; },
        "hexadecimal");
    if (text.size() % 2 != 0) throw Failure(kFailed, "input has an odd number of hex digits");
    std::cout << SerializationUtils::FromHex(text);
    return kOk;
}

int RunBase64(Args& args) {
    args.Done();
    std::string input = ReadAllInput();
    std::cout << SerializationUtils::ToBase64(input) << '\n';
    return kOk;
}

int RunUnbase64(Args& args) {
    args.Done();
    std::string text = WithoutWhitespace(ReadAllInput());
    CheckCharacters(
        text,
        [](char c) {
            return std::isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '/' || c == '=';
        },
        "Base64");
    auto bytes = SerializationUtils::FromBase64(text);
    std::cout.write(reinterpret_cast<const char*>(bytes.data()),
                    static_cast<std::streamsize>(bytes.size()));
    return kOk;
}

const bool registered_hex = Register(
    {"hex", "standard input as lower-case hexadecimal",
     "usage: qvtool hex < FILE\nWrites the bytes of standard input as hexadecimal.\n", RunHex});
const bool registered_unhex = Register(
    {"unhex", "hexadecimal on standard input back to bytes",
     "usage: qvtool unhex < FILE\nWrites the bytes that the hexadecimal text on standard input "
     "stands for.\nWhite space is ignored; any other non-hex character is an error.\n",
     RunUnhex});
const bool registered_base64 =
    Register({"base64", "standard input as Base64",
              "usage: qvtool base64 < FILE\nWrites standard input as Base64 (RFC 4648, padded, "
              "one line).\n",
              RunBase64});
const bool registered_unbase64 = Register(
    {"unbase64", "Base64 on standard input back to bytes",
     "usage: qvtool unbase64 < FILE\nWrites the bytes of the Base64 text on standard input. "
     "White space is\nignored; characters outside the Base64 alphabet are an error.\n",
     RunUnbase64});

}  // namespace
}  // namespace qvtool
