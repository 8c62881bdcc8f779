#include "common_utilities/serialization_utils.h"

#include <cctype>
#include <cstddef>

namespace quorvel {
namespace utilities {
namespace {

const char kHexDigits[] = "0123456789abcdef";
const char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Each byte is its own write so that the writers can tell, and log, which byte failed.
void PutByte(std::ostream& stream, uint64_t bits) {
    const char byte = static_cast<char>(bits & 0xFF);
    stream.write(&byte, 1);
}

// Shifts in `count` bytes, high byte first. A byte that can't be read shifts in zero; the caller
// looks at the stream afterwards, once.
uint64_t ReadBigEndian(std::istream& stream, int count) {
    uint64_t bits = 0;
    for (int i = 0; i < count; ++i) {
        char byte = 0;
        stream.get(byte);
        bits = (bits << 8) | static_cast<unsigned char>(byte);
    }
    return bits;
}

int HexValue(char digit) {
    if (digit >= '0' && digit <= '9') return digit - '0';
    if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
    return 0;
}

// The 6-bit value of a Base64 character, or -1 for a character outside the alphabet.
int Base64Value(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

bool IsSpace(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

std::string HexOf(const unsigned char* data, size_t size) {
    std::string hex;
    hex.reserve(size * 2);
    for (size_t i = 0; i < size; ++i) {
        hex.push_back(kHexDigits[data[i] >> 4]);
        hex.push_back(kHexDigits[data[i] & 0x0F]);
    }
    return hex;
}

}  // namespace

// ---- Stream form ------------------------------------------------------------------------------

int SerializationUtils::SerializeChar(char value, std::ostream& stream) {
    stream.write(&value, 1);
    QV_RETURN_UNLESS(stream.good(), QV_FAILED);
    return QV_OK;
}

int SerializationUtils::DeserializeChar(std::istream& stream, char* value) {
    QV_RETURN_IF(!value, QV_INVAL);
    stream.get(*value);
    QV_RETURN_UNLESS(stream.good(), QV_FAILED);
    return QV_OK;
}

int SerializationUtils::SerializeUChar(unsigned char value, std::ostream& stream) {
    PutByte(stream, value);
    QV_RETURN_UNLESS(stream.good(), QV_FAILED);
    return QV_OK;
}

int SerializationUtils::DeserializeUChar(std::istream& stream, unsigned char* value) {
    QV_RETURN_IF(!value, QV_INVAL);
    stream.get(*reinterpret_cast<char*>(value));
    QV_RETURN_UNLESS(stream.good(), QV_FAILED);
    return QV_OK;
}

int SerializationUtils::SerializeUInt16(uint16_t value, std::ostream& stream) {
    for (int shift = 8; shift >= 0; shift -= 8) {
        PutByte(stream, value >> shift);
        (void)QV_REPORT_UNLESS(stream.good(), QV_FAILED);
    }
    QV_RETURN_UNLESS(stream.good(), QV_FAILED);
    return QV_OK;
}

int SerializationUtils::DeserializeUInt16(std::istream& stream, uint16_t* value) {
    QV_RETURN_IF(!value, QV_INVAL);
    *value = static_cast<uint16_t>(ReadBigEndian(stream, 2));
    QV_RETURN_UNLESS(stream.good(), QV_FAILED);
    return QV_OK;
}

int SerializationUtils::SerializeInt16(int16_t value, std::ostream& stream) {
    const uint16_t bits = static_cast<uint16_t>(value);
    for (int shift = 8; shift >= 0; shift -= 8) {
        PutByte(stream, bits >> shift);
        (void)QV_REPORT_UNLESS(stream.good(), QV_FAILED);
    }
    QV_RETURN_UNLESS(stream.good(), QV_FAILED);
    return QV_OK;
}

int SerializationUtils::DeserializeInt16(std::istream& stream, int16_t* value) {
    QV_RETURN_IF(!value, QV_INVAL);
    *value = static_cast<int16_t>(ReadBigEndian(stream, 2));
    QV_RETURN_UNLESS(stream.good(), QV_FAILED);
    return QV_OK;
}

int SerializationUtils::SerializeInt32(int32_t value, std::ostream& stream) {
    const uint32_t bits = static_cast<uint32_t>(value);
    for (int shift = 24; shift >= 0; shift -= 8) {
        PutByte(stream, bits >> shift);
        (void)QV_REPORT_UNLESS(stream.good(), QV_FAILED);
    }
    QV_RETURN_UNLESS(stream.good(), QV_FAILED);
    return QV_OK;
}

int SerializationUtils::DeserializeInt32(std::istream& stream, int32_t* value) {
    QV_RETURN_IF(!value, QV_INVAL);
    *value = static_cast<int32_t>(ReadBigEndian(stream, 4));
    QV_RETURN_UNLESS(stream.good(), QV_FAILED);
    return QV_OK;
}

int SerializationUtils::SerializeInt64(int64_t value, std::ostream& stream) {
    const uint64_t bits = static_cast<uint64_t>(value);
    for (int shift = 56; shift >= 0; shift -= 8) {
        PutByte(stream, bits >> shift);
        (void)QV_REPORT_UNLESS(stream.good(), QV_FAILED);
    }
    QV_RETURN_UNLESS(stream.good(), QV_FAILED);
    return QV_OK;
}

int SerializationUtils::DeserializeInt64(std::istream& stream, int64_t* value) {
    QV_RETURN_IF(!value, QV_INVAL);
    *value = static_cast<int64_t>(ReadBigEndian(stream, 8));
    QV_RETURN_UNLESS(stream.good(), QV_FAILED);
    return QV_OK;
}

int SerializationUtils::SerializePointer(void* value, std::ostream& stream) {
    const auto address = reinterpret_cast<uintptr_t>(value);
    return SerializeInt32(static_cast<int32_t>(static_cast<uint32_t>(address)), stream);
}

int SerializationUtils::DeserializePointer(std::istream& stream, void** value) {
    QV_RETURN_IF(!value, QV_INVAL);
    int32_t address = 0;
    const int err = DeserializeInt32(stream, &address);
    *value = reinterpret_cast<void*>(static_cast<uintptr_t>(static_cast<uint32_t>(address)));
    return err;
}

int SerializationUtils::SerializeTimestamp(int64_t time, std::ostream& stream) {
    const uint64_t bits = static_cast<uint64_t>(time);
    for (int shift = 40; shift >= 0; shift -= 8) {
        PutByte(stream, bits >> shift);
        (void)QV_REPORT_IF(stream.fail(), QV_FAILED);
    }
    QV_RETURN_IF(stream.fail(), QV_FAILED);
    return QV_OK;
}

int SerializationUtils::DeserializeTimestamp(std::istream& stream, int64_t* time) {
    QV_RETURN_IF(!time, QV_INVAL);
    *time = static_cast<int64_t>(ReadBigEndian(stream, 6));
    QV_RETURN_IF(stream.fail(), QV_FAILED);
    return QV_OK;
}

int SerializationUtils::SerializeString(const std::string& str, std::ostream& stream) {
    QV_RETURN_IF(str.length() > MAX_INT16, QV_INVAL);
    // c_str() brings the terminator along, so the string goes out in a single write.
    stream.write(str.c_str(), static_cast<std::streamsize>(str.length() + 1));
    QV_RETURN_IF(stream.fail(), QV_FAILED);
    return QV_OK;
}

int SerializationUtils::DeserializeString(std::istream& stream, std::string* str) {
    QV_RETURN_IF(!str, QV_INVAL);
    std::string buffer;
    char byte = 0;
    do {
        stream.get(byte);
        QV_RETURN_UNLESS(stream.good(), QV_FAILED);
        buffer.push_back(byte);
    } while (byte != '\0');
    buffer.pop_back();
    *str = buffer;
    return QV_OK;
}

int SerializationUtils::SerializeStringVec(const std::vector<std::string>& list,
                                           std::ostream& stream) {
    // The form has always taken the count to 16 bits; keep it so, or old and new writers of one
    // list would disagree.
    const uint16_t count = static_cast<uint16_t>(list.size());
    bool written = false;
    int err = QV_OK;
    for (uint16_t i = 0; i < count; ++i) {
        if (list[i].empty()) continue;
        err = SerializeString(list[i], stream);
        QV_RETURN_UNLESS(0 == err, QV_FAILED);
        written = true;
    }
    // The reader always takes one string before it looks for the end, so give it an empty one.
    if (!written) {
        err = SerializeChar('\0', stream);
        QV_RETURN_UNLESS(0 == err, QV_FAILED);
    }
    err = SerializeChar('\0', stream);
    QV_RETURN_UNLESS(0 == err, QV_FAILED);
    return QV_OK;
}

int SerializationUtils::DeserializeStringVec(std::istream& stream, std::vector<std::string>* list) {
    QV_RETURN_IF(!list, QV_INVAL);
    list->clear();
    for (;;) {
        std::string item;
        const int err = DeserializeString(stream, &item);
        QV_RETURN_UNLESS(0 == err, QV_FAILED);
        list->push_back(item);

        // A zero byte where a string would begin ends the list; anything else starts the next
        // string and goes back.
        char next = 0;
        stream.get(next);
        QV_RETURN_UNLESS(stream.good(), QV_FAILED);
        if (next == '\0') return QV_OK;
        stream.unget();
    }
}

int SerializationUtils::SerializeLanguage(const std::string& str, std::ostream& stream) {
    const bool known = str.length() == 2;
    int err = SerializeChar(known ? str[0] : '\0', stream);
    QV_RETURN_UNLESS(0 == err, QV_FAILED);
    err = SerializeChar(known ? str[1] : '\0', stream);
    QV_RETURN_UNLESS(0 == err, QV_FAILED);
    return QV_OK;
}

int SerializationUtils::DeserializeLanguage(std::istream& stream, std::string* str) {
    QV_RETURN_IF(!str, QV_INVAL);
    for (int i = 0; i < 2; ++i) {
        char letter = 0;
        const int err = DeserializeChar(stream, &letter);
        QV_RETURN_UNLESS(0 == err, QV_FAILED);
        str->push_back(letter);
    }
    return QV_OK;
}

// ---- Text encodings ---------------------------------------------------------------------------

std::string SerializationUtils::ToHex(const std::string& str) {
    return HexOf(reinterpret_cast<const unsigned char*>(str.data()), str.size());
}

std::string SerializationUtils::ToHex(const Bytes& data) {
    return HexOf(data.data(), data.size());
}

std::string SerializationUtils::FromHex(const std::string& str) {
    std::string bytes;
    bytes.reserve(str.size() / 2);
    for (size_t i = 0; i + 1 < str.size(); i += 2)
        bytes.push_back(static_cast<char>(HexValue(str[i]) * 16 + HexValue(str[i + 1])));
    return bytes;
}

void SerializationUtils::ToBase64(const Bytes& data, std::string* out) {
    QV_RETURN_VOID_IF(!out);
    out->clear();
    out->reserve((data.size() + 2) / 3 * 4);
    for (size_t i = 0; i < data.size(); i += 3) {
        const size_t left = data.size() - i;
        uint32_t group = static_cast<uint32_t>(data[i]) << 16;
        if (left > 1) group |= static_cast<uint32_t>(data[i + 1]) << 8;
        if (left > 2) group |= data[i + 2];
        out->push_back(kBase64Alphabet[(group >> 18) & 0x3F]);
        out->push_back(kBase64Alphabet[(group >> 12) & 0x3F]);
        out->push_back(left > 1 ? kBase64Alphabet[(group >> 6) & 0x3F] : '=');
        out->push_back(left > 2 ? kBase64Alphabet[group & 0x3F] : '=');
    }
}

std::string SerializationUtils::ToBase64(const Bytes& data) {
    std::string text;
    ToBase64(data, &text);
    return text;
}

std::string SerializationUtils::ToBase64(const std::string& str) {
    return ToBase64(Bytes(str.begin(), str.end()));
}

void SerializationUtils::FromBase64(const std::string& str, Bytes* out) {
    QV_RETURN_VOID_IF(!out);
    out->clear();
    out->reserve(str.size() / 4 * 3 + 2);
    uint32_t bits = 0;
    int bit_count = 0;
    for (const char c : str) {
        const int value = Base64Value(c);
        if (value < 0) continue;
        bits = (bits << 6) | static_cast<uint32_t>(value);
        bit_count += 6;
        if (bit_count >= 8) {
            bit_count -= 8;
            out->push_back(static_cast<unsigned char>((bits >> bit_count) & 0xFF));
        }
    }
}

SerializationUtils::Bytes SerializationUtils::FromBase64(const std::string& str) {
    Bytes data;
    FromBase64(str, &data);
    return data;
}

// ---- Trimming ---------------------------------------------------------------------------------

void SerializationUtils::ltrim(std::string& str) {
    size_t start = 0;
    while (start < str.size() && IsSpace(str[start]))
        ++start;
    str.erase(0, start);
}

void SerializationUtils::rtrim(std::string& str) {
    size_t end = str.size();
    while (end > 0 && IsSpace(str[end - 1]))
        --end;
    str.erase(end);
}

void SerializationUtils::trim(std::string& str) {
    rtrim(str);
    ltrim(str);
}

}  // namespace utilities
}  // namespace quorvel
