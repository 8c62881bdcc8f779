// XML documents as the shell's services feed them to ExpatParser: in two pieces, neither marked
// as the last, under an encoding the caller may force, then the same parser started over on a
// second document, as a parser kept by an application is reused.

#include <string>

#include "common_utilities/expat_parser.h"
#include "fuzz_support.h"

using quorvel::utilities::ExpatParser;
using quorvel::utilities::IParser;

namespace {

const char* const kEncodings[] = {nullptr,  "UTF-8",    "ISO-8859-1",   "US-ASCII",
                                  "UTF-16", "UTF-16LE", "windows-1251", "no-such-encoding"};

// Keeps what it is handed, so that every string the parser passes is read through.
class Collector : public IParser {
public:
    void reset() override { seen_.clear(); }
    void startElement(const std::string& name, const Attributes& attributes) override {
        seen_ += name;
        for (const auto& [key, value] : attributes)
            seen_ += key + value;
    }
    void endElement(const std::string& name) override { seen_ += name; }
    void characterData(const std::string& text) override { seen_ += text; }

private:
    std::string seen_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const char* encoding = kEncodings[data[0] % (sizeof kEncodings / sizeof *kEncodings)];
    const auto* text = reinterpret_cast<const char*>(data + 2);
    const unsigned length = static_cast<unsigned>(size - 2);
    const unsigned split = length == 0 ? 0 : data[1] % (length + 1);

    Collector collector;
    ExpatParser parser(&collector);
    parser.init(encoding);
    if (parser.parse(text, split)) parser.parse(text + split, length - split);
    parser.init(nullptr);
    parser.parse(text, length);
    return 0;
}
