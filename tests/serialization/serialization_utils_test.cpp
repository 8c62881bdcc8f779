#include "common_utilities/serialization_utils.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "log_capture.h"

namespace {

using SU = quorvel::utilities::SerializationUtils;
using Bytes = SU::Bytes;
using Strings = std::vector<std::string>;

constexpr int kError = 1;

std::string Raw(std::initializer_list<int> bytes) {
    std::string raw;
    for (int byte : bytes)
        raw.push_back(static_cast<char>(byte));
    return raw;
}

std::string Line(const std::string& condition, const std::string& result) {
    return qvtest::PidLine("Condition: \"" + condition + "\", return(\"" + result + "\")]");
}

// A fixed buffer that refuses every write once full, as a full disk does.
struct FullAfter : std::streambuf {
    explicit FullAfter(size_t capacity) : data(capacity, '\0') {
        setp(&data[0], &data[0] + capacity);
    }
    std::string Taken() const { return data.substr(0, pptr() - pbase()); }
    std::string data;
};

// Writes `value`, expects exactly `raw` on the stream, and reads back `back` with nothing left.
template <typename T>
void ExpectForm(int (*write)(T, std::ostream&), int (*read)(std::istream&, T*),
                std::common_type_t<T> value, const std::string& raw, std::common_type_t<T> back) {
    std::stringstream stream;
    EXPECT_EQ(QV_OK, write(value, stream));
    EXPECT_EQ(raw, stream.str());
    T out{};
    EXPECT_EQ(QV_OK, read(stream, &out));
    EXPECT_EQ(back, out);
    EXPECT_EQ(std::char_traits<char>::eof(), stream.peek());
}

TEST(SerializationUtilsTest, IntegersAreBigEndianAndRoundTrip) {
    // Bytes of 0x80 and above must not sign-extend into the bytes shifted in before them.
    ExpectForm(&SU::SerializeChar, &SU::DeserializeChar, '\xff', Raw({0xFF}), '\xff');
    ExpectForm(&SU::SerializeUChar, &SU::DeserializeUChar, 0x80, Raw({0x80}), 0x80);
    ExpectForm(&SU::SerializeUInt16, &SU::DeserializeUInt16, 0xABCD, Raw({0xAB, 0xCD}), 0xABCD);
    ExpectForm(&SU::SerializeInt16, &SU::DeserializeInt16, -2, Raw({0xFF, 0xFE}), -2);
    ExpectForm(&SU::SerializeInt32, &SU::DeserializeInt32, 0x01020304, Raw({1, 2, 3, 4}),
               0x01020304);
    ExpectForm(&SU::SerializeInt32, &SU::DeserializeInt32, -0x7F00FF01, Raw({0x80, 0xFF, 0, 0xFF}),
               -0x7F00FF01);
    ExpectForm(&SU::SerializeInt64, &SU::DeserializeInt64, 0x0102030405060708,
               Raw({1, 2, 3, 4, 5, 6, 7, 8}), 0x0102030405060708);
    ExpectForm(&SU::SerializeInt64, &SU::DeserializeInt64, INT64_MIN,
               Raw({0x80, 0, 0, 0, 0, 0, 0, 0}), INT64_MIN);
    void* pointer = reinterpret_cast<void*>(0x12345678);
    ExpectForm(&SU::SerializePointer, &SU::DeserializePointer, pointer,
               Raw({0x12, 0x34, 0x56, 0x78}), pointer);
    // Only the low 48 bits of a time travel; a negative one comes back positive.
    ExpectForm(&SU::SerializeTimestamp, &SU::DeserializeTimestamp, 0x0102030405060708,
               Raw({3, 4, 5, 6, 7, 8}), 0x030405060708);
    ExpectForm(&SU::SerializeTimestamp, &SU::DeserializeTimestamp, -1, std::string(6, '\xff'),
               0xFFFFFFFFFFFF);
}

TEST(SerializationUtilsTest, ShortReadsFailWithWhatWasShiftedIn) {
    qvtest::LogCapture log;
    int32_t i32 = -1;
    std::istringstream four(Raw({0x12, 0x34}));
    EXPECT_EQ(QV_FAILED, SU::DeserializeInt32(four, &i32));
    EXPECT_EQ(0x12340000, i32);
    // The stream is looked at once, at the end, not after every byte.
    EXPECT_EQ(Strings{Line("stream.good()", "QV_FAILED")}, log.Messages(kError));

    log.Clear();
    int64_t time = 0;
    std::istringstream six(Raw({0x80, 0, 0, 1}));
    EXPECT_EQ(QV_FAILED, SU::DeserializeTimestamp(six, &time));
    EXPECT_EQ(0x800000010000, time);
    EXPECT_EQ(Strings{Line("stream.fail()", "QV_FAILED")}, log.Messages(kError));

    char c = 'x';
    std::istringstream empty;
    EXPECT_EQ(QV_FAILED, SU::DeserializeChar(empty, &c));
    EXPECT_EQ('x', c);
}

TEST(SerializationUtilsTest, NullOutputsAreRefusedWithoutReading) {
    qvtest::LogCapture log;
    std::istringstream stream(Raw({1, 2, 3, 4, 5, 6, 7, 8, 0}));
    EXPECT_EQ(QV_INVAL, SU::DeserializeInt32(stream, nullptr));
    EXPECT_EQ(QV_INVAL, SU::DeserializePointer(stream, nullptr));
    EXPECT_EQ(QV_INVAL, SU::DeserializeTimestamp(stream, nullptr));
    EXPECT_EQ(QV_INVAL, SU::DeserializeString(stream, nullptr));
    EXPECT_EQ(QV_INVAL, SU::DeserializeLanguage(stream, nullptr));
    EXPECT_EQ(0, static_cast<std::streamoff>(stream.tellg()));
    EXPECT_EQ(
        (Strings{Line("!value", "QV_INVAL"), Line("!value", "QV_INVAL"), Line("!time", "QV_INVAL"),
                 Line("!str", "QV_INVAL"), Line("!str", "QV_INVAL")}),
        log.Messages(kError));
}

TEST(SerializationUtilsTest, FailingOutputStreams) {
    qvtest::LogCapture log;
    const std::string good = Line("stream.good()", "QV_FAILED");
    const std::string fail = Line("stream.fail()", "QV_FAILED");
    const std::string err = Line("0 == err", "QV_FAILED");

    std::ostringstream bad;
    bad.setstate(std::ios::badbit);
    // Every byte is tried and logged, then the writer reports once more.
    EXPECT_EQ(QV_FAILED, SU::SerializeInt32(7, bad));
    EXPECT_EQ(Strings(5, good), log.Messages(kError));
    log.Clear();
    EXPECT_EQ(QV_FAILED, SU::SerializeTimestamp(7, bad));
    EXPECT_EQ(Strings(7, fail), log.Messages(kError));
    log.Clear();
    EXPECT_EQ(QV_FAILED, SU::SerializeLanguage("en", bad));
    EXPECT_EQ((Strings{good, err}), log.Messages(kError));
    log.Clear();
    EXPECT_EQ(QV_FAILED, SU::SerializeStringVec({"a"}, bad));
    EXPECT_EQ((Strings{fail, err}), log.Messages(kError));
    EXPECT_TRUE(bad.str().empty());

    // What a stream took before it failed stays there; nothing is rolled back.
    log.Clear();
    FullAfter two(2);
    std::ostream out(&two);
    EXPECT_EQ(QV_FAILED, SU::SerializeInt32(0x01020304, out));
    EXPECT_EQ(Raw({1, 2}), two.Taken());
    EXPECT_EQ(Strings(3, good), log.Messages(kError));
    FullAfter three(3);
    std::ostream text(&three);
    EXPECT_EQ(QV_FAILED, SU::SerializeString("abcdef", text));
    EXPECT_EQ("abc", three.Taken());
}

TEST(SerializationUtilsTest, StringsAreZeroTerminatedAndLimitedInLength) {
    std::stringstream stream;
    for (const std::string& str : {std::string(), std::string("ab"), std::string("x\0y", 3)})
        EXPECT_EQ(QV_OK, SU::SerializeString(str, stream));
    EXPECT_EQ(Raw({0, 'a', 'b', 0, 'x', 0, 'y', 0}), stream.str());
    // A zero byte inside a string ends it for the reader.
    for (const char* expected : {"", "ab", "x", "y"}) {
        std::string str = "old";
        EXPECT_EQ(QV_OK, SU::DeserializeString(stream, &str));
        EXPECT_EQ(expected, str);
    }

    qvtest::LogCapture log;
    std::string str = "old";
    std::istringstream unterminated("abc");
    EXPECT_EQ(QV_FAILED, SU::DeserializeString(unterminated, &str));
    EXPECT_EQ("old", str);
    EXPECT_EQ(Strings{Line("stream.good()", "QV_FAILED")}, log.Messages(kError));

    log.Clear();
    const std::string longest(MAX_INT16, 'L');
    std::stringstream limit;
    EXPECT_EQ(QV_OK, SU::SerializeString(longest, limit));
    EXPECT_EQ(QV_OK, SU::DeserializeString(limit, &str));
    EXPECT_EQ(longest, str);
    std::ostringstream refused;
    EXPECT_EQ(QV_INVAL, SU::SerializeString(longest + "L", refused));
    EXPECT_TRUE(refused.str().empty());
    // Inside a list, a refused string ends the list after what was already written.
    EXPECT_EQ(QV_FAILED, SU::SerializeStringVec({"a", longest + "L"}, refused));
    EXPECT_EQ(Raw({'a', 0}), refused.str());
    const std::string too_long = Line("str.length() > MAX_INT16", "QV_INVAL");
    EXPECT_EQ((Strings{too_long, too_long, Line("0 == err", "QV_FAILED")}), log.Messages(kError));
}

TEST(SerializationUtilsTest, ListsDropEmptyStringsAndNeverComeBackEmpty) {
    auto written = [](const Strings& list) {
        std::ostringstream stream;
        EXPECT_EQ(QV_OK, SU::SerializeStringVec(list, stream));
        return stream.str();
    };
    auto read_back = [](const std::string& raw) {
        std::istringstream stream(raw);
        Strings list{"stale"};
        EXPECT_EQ(QV_OK, SU::DeserializeStringVec(stream, &list));
        EXPECT_EQ(std::char_traits<char>::eof(), stream.peek());
        return list;
    };
    EXPECT_EQ(Raw({0, 0}), written({}));
    EXPECT_EQ(Strings{""}, read_back(written({})));
    EXPECT_EQ(Raw({0, 0}), written({"", ""}));
    EXPECT_EQ(Raw({'a', 0, 'b', 0, 0}), written({"a", "", "b"}));
    EXPECT_EQ((Strings{"a", "bc"}), read_back(written({"a", "", "bc"})));
    // The count is cut to 16 bits: 65536 strings write nothing, 65537 only the first.
    Strings many(65536, "x");
    EXPECT_EQ(Raw({0, 0}), written(many));
    many.push_back("y");
    EXPECT_EQ(Raw({'x', 0, 0}), written(many));

    qvtest::LogCapture log;
    Strings list;
    std::istringstream no_end(Raw({'a', 0}));
    EXPECT_EQ(QV_FAILED, SU::DeserializeStringVec(no_end, &list));
    std::istringstream cut(Raw({'a', 0, 'b'}));
    EXPECT_EQ(QV_FAILED, SU::DeserializeStringVec(cut, &list));
    const std::string good = Line("stream.good()", "QV_FAILED");
    EXPECT_EQ((Strings{good, good, Line("0 == err", "QV_FAILED")}), log.Messages(kError));
}

TEST(SerializationUtilsTest, LanguageIsTwoBytesAndReadingAppends) {
    std::stringstream stream;
    for (const char* code : {"en", "eng", "", "d"})
        EXPECT_EQ(QV_OK, SU::SerializeLanguage(code, stream));
    EXPECT_EQ(Raw({'e', 'n', 0, 0, 0, 0, 0, 0}), stream.str());

    std::string str = ">";
    EXPECT_EQ(QV_OK, SU::DeserializeLanguage(stream, &str));
    EXPECT_EQ(">en", str);
    str.clear();
    EXPECT_EQ(QV_OK, SU::DeserializeLanguage(stream, &str));
    EXPECT_EQ(std::string(2, '\0'), str);

    qvtest::LogCapture log;
    std::istringstream half("d");
    EXPECT_EQ(QV_FAILED, SU::DeserializeLanguage(half, &str));
    EXPECT_EQ((Strings{Line("stream.good()", "QV_FAILED"), Line("0 == err", "QV_FAILED")}),
              log.Messages(kError));
}

TEST(SerializationUtilsTest, Hex) {
    EXPECT_EQ("00017f80ff", SU::ToHex(Raw({0, 1, 0x7F, 0x80, 0xFF})));
    EXPECT_EQ("00017f80ff", SU::ToHex(Bytes{0, 1, 0x7F, 0x80, 0xFF}));
    EXPECT_EQ("\x4a\x4b", SU::FromHex("4a4B"));
    // Not a digit counts as 0; a lone last character is ignored.
    EXPECT_EQ(Raw({0}), SU::FromHex("zz"));
    EXPECT_EQ(Raw({0x01, 0xF0}), SU::FromHex("g1Fx"));
    EXPECT_EQ(Raw({0xAB}), SU::FromHex("abc"));
    EXPECT_EQ("", SU::FromHex("a"));
}

TEST(SerializationUtilsTest, Base64) {
    // The test vectors of RFC 4648 are the prefixes of "foobar".
    const char* const encodings[] = {"",         "Zg==",     "Zm8=",    "Zm9v",
                                     "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy"};
    for (size_t length = 0; length < 7; ++length) {
        const std::string text = std::string("foobar").substr(0, length);
        const std::string encoded = encodings[length];
        const Bytes bytes(text.begin(), text.end());
        EXPECT_EQ(encoded, SU::ToBase64(text));
        std::string out = "stale";
        SU::ToBase64(bytes, &out);
        EXPECT_EQ(encoded, out);
        Bytes decoded{1, 2, 3};
        SU::FromBase64(encoded, &decoded);
        EXPECT_EQ(bytes, decoded);
    }
    Bytes all;
    for (int byte = 0; byte < 256; ++byte)
        all.push_back(static_cast<unsigned char>(byte));
    EXPECT_EQ(all, SU::FromBase64(SU::ToBase64(all)));
    EXPECT_EQ("+/8=", SU::ToBase64(Bytes{0xFB, 0xFF}));

    // Everything outside the alphabet is skipped, padding included; spare bits are dropped.
    EXPECT_EQ(Bytes(3, 0), SU::FromBase64("AA\nAA"));
    EXPECT_EQ(SU::FromBase64("Zm9vYmFy"), SU::FromBase64(" Zm9v\r\nYm\tFy "));
    EXPECT_EQ(Bytes{'f'}, SU::FromBase64("Zg"));
    EXPECT_EQ((Bytes{0x66, 0x06, 0x60}), SU::FromBase64("Zg==Zg=="));
    EXPECT_EQ(Bytes{}, SU::FromBase64("Z*-_.="));
}

TEST(SerializationUtilsTest, Trim) {
    std::string left = " \t\n\v\f\ra b \r\n", right = left, both = left, blank = " \t\n";
    SU::ltrim(left);
    SU::rtrim(right);
    SU::trim(both);
    SU::trim(blank);
    EXPECT_EQ("a b \r\n", left);
    EXPECT_EQ(" \t\n\v\f\ra b", right);
    EXPECT_EQ("a b", both);
    EXPECT_EQ("", blank);
}

}  // namespace
