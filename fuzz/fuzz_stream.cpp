// The stream form as a reader meets it: values read one after the other from bytes that another
// process wrote. The last bytes of the input choose the reads, the rest is the stream. Every value
// read must write back as exactly the bytes it was read from (the form has one spelling per
// value), and the text encodings must give back what they were given.

#include <fuzzer/FuzzedDataProvider.h>

#include <cctype>
#include <sstream>
#include <string>
#include <vector>

#include "common_utilities/serialization_utils.h"
#include "fuzz_support.h"

namespace {

using quorvel::utilities::SerializationUtils;
using S = SerializationUtils;

// What one read consumed, and what writing its value back gives.
struct Read {
    int rc;
    std::string written;
};

template <typename T, typename Reader, typename Writer>
Read Value(std::istream& in, Reader read, Writer write) {
    T value{};
    Read result{read(in, &value), {}};
    if (result.rc != QV_OK) return result;
    std::ostringstream out;
    QVFUZZ_CHECK(write(value, out) == QV_OK);
    result.written = out.str();
    return result;
}

Read ReadString(std::istream& in) {
    std::string value;
    Read result{S::DeserializeString(in, &value), {}};
    if (result.rc != QV_OK) return result;
    QVFUZZ_CHECK(value.find('\0') == std::string::npos);
    // Longer texts are refused on writing, by design; the reader takes what it finds.
    if (value.size() > 32767) {
        result.written = value + '\0';
        return result;
    }
    std::ostringstream out;
    QVFUZZ_CHECK(S::SerializeString(value, out) == QV_OK);
    result.written = out.str();
    return result;
}

Read ReadList(std::istream& in, bool* exact) {
    std::vector<std::string> list;
    Read result{S::DeserializeStringVec(in, &list), {}};
    if (result.rc != QV_OK) return result;
    QVFUZZ_CHECK(!list.empty());
    bool has_empty = false;
    bool fits = true;
    for (const std::string& s : list) {
        has_empty = has_empty || s.empty();
        fits = fits && s.size() <= 32767;
    }
    // Empty strings are dropped on writing, so only lists without them (or the one empty
    // string of an empty list) come back byte for byte.
    *exact = fits && (!has_empty || list.size() == 1);
    std::ostringstream out;
    if (fits) QVFUZZ_CHECK(S::SerializeStringVec(list, out) == QV_OK);
    result.written = out.str();
    return result;
}

Read ReadLanguage(std::istream& in) {
    std::string value;
    Read result{S::DeserializeLanguage(in, &value), {}};
    if (result.rc != QV_OK) return result;
    QVFUZZ_CHECK(value.size() == 2);
    std::ostringstream out;
    QVFUZZ_CHECK(S::SerializeLanguage(value, out) == QV_OK);
    result.written = out.str();
    return result;
}

Read ReadTimestamp(std::istream& in) {
    int64_t value = 0;
    Read result{S::DeserializeTimestamp(in, &value), {}};
    if (result.rc != QV_OK) return result;
    QVFUZZ_CHECK(value >= 0 && value < (int64_t{1} << 48));
    std::ostringstream out;
    QVFUZZ_CHECK(S::SerializeTimestamp(value, out) == QV_OK);
    result.written = out.str();
    return result;
}

Read ReadOne(uint8_t op, std::istream& in, bool* exact) {
    *exact = true;
    switch (op % 10) {
        case 0:
            return Value<char>(in, S::DeserializeChar, S::SerializeChar);
        case 1:
            return Value<unsigned char>(in, S::DeserializeUChar, S::SerializeUChar);
        case 2:
            return Value<uint16_t>(in, S::DeserializeUInt16, S::SerializeUInt16);
        case 3:
            return Value<int16_t>(in, S::DeserializeInt16, S::SerializeInt16);
        case 4:
            return Value<int32_t>(in, S::DeserializeInt32, S::SerializeInt32);
        case 5:
            return Value<int64_t>(in, S::DeserializeInt64, S::SerializeInt64);
        case 6:
            return ReadTimestamp(in);
        case 7:
            return ReadString(in);
        case 8:
            return ReadList(in, exact);
        default:
            return ReadLanguage(in);
    }
}

void ReadRecord(const std::vector<uint8_t>& ops, const std::string& stream) {
    std::istringstream in(stream);
    for (uint8_t op : ops) {
        std::streamoff before = in.tellg();
        bool exact = true;
        Read read = ReadOne(op, in, &exact);
        // A failed read ends the record: readers abandon the stream there.
        if (read.rc != QV_OK) return;
        std::streamoff after = in.tellg();
        QVFUZZ_CHECK(before >= 0 && after >= before);
        if (exact)
            QVFUZZ_CHECK(read.written == stream.substr(static_cast<size_t>(before),
                                                       static_cast<size_t>(after - before)));
    }
}

void Encodings(const std::string& text) {
    SerializationUtils::Bytes bytes(text.begin(), text.end());
    QVFUZZ_CHECK(S::FromHex(S::ToHex(text)) == text);
    QVFUZZ_CHECK(S::FromHex(text).size() == text.size() / 2);
    QVFUZZ_CHECK(S::FromBase64(S::ToBase64(bytes)) == bytes);
    QVFUZZ_CHECK(S::FromBase64(text).size() <= text.size() * 3 / 4);
    std::string trimmed = text;
    S::trim(trimmed);
    QVFUZZ_CHECK(trimmed.empty() || (!std::isspace(static_cast<unsigned char>(trimmed.front())) &&
                                     !std::isspace(static_cast<unsigned char>(trimmed.back()))));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    std::vector<uint8_t> ops(input.ConsumeIntegralInRange<size_t>(0, 24));
    for (uint8_t& op : ops)
        op = input.ConsumeIntegral<uint8_t>();
    std::string stream = input.ConsumeRemainingBytesAsString();
    ReadRecord(ops, stream);
    Encodings(stream);
    return 0;
}
