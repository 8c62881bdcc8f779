// The binary form in which the library's records travel between processes, and the text
// encodings and trims that several units share.
//
// Records written here are read by other processes of the device (the download services publish
// their state through a shared file in this form), and those processes may run an older or a
// newer build of the library. The form can therefore never change: every integer is big-endian
// whatever the machine, there are no type tags, lengths, alignment or padding, and the reader
// must know the order of the values. Oddities that look like bugs (how lists treat empty
// strings, what a language becomes when it is not two letters, the lenient decoders) are what
// the other side expects, and stay.
#pragma once

#include <cstdint>
#include <istream>
#include <ostream>
#include <string>
#include <vector>

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace utilities {

class QV_EXPORT SerializationUtils {
public:
    // Raw bytes are handed around as std::vector<unsigned char>: unsigned, so that a byte of 0x80
    // or more never turns negative on its way into a shift or a digit table.
    using Bytes = std::vector<unsigned char>;

    SerializationUtils() = delete;

    // ---- Stream form --------------------------------------------------------------------------
    // All return QV_OK, QV_INVAL for a null output or a string too long for the form, QV_FAILED
    // when the stream fails. A failed write leaves a partial record behind and nothing is rolled
    // back: a stream that failed once is of no further use, and callers drop it.
    //
    // The integer writers keep writing after a byte fails, logging each failure, and report at
    // the end; a reader likewise shifts in all its bytes and looks at the stream once at the end.
    // A short read therefore leaves in the output the bytes that did arrive, shifted into place,
    // with zero bits where the missing bytes would have gone.

    static int SerializeChar(char value, std::ostream& stream);
    static int DeserializeChar(std::istream& stream, char* value);
    static int SerializeUChar(unsigned char value, std::ostream& stream);
    static int DeserializeUChar(std::istream& stream, unsigned char* value);
    static int SerializeUInt16(uint16_t value, std::ostream& stream);
    static int DeserializeUInt16(std::istream& stream, uint16_t* value);
    static int SerializeInt16(int16_t value, std::ostream& stream);
    static int DeserializeInt16(std::istream& stream, int16_t* value);
    static int SerializeInt32(int32_t value, std::ostream& stream);
    static int DeserializeInt32(std::istream& stream, int32_t* value);
    static int SerializeInt64(int64_t value, std::ostream& stream);
    static int DeserializeInt64(std::istream& stream, int64_t* value);

    // Four bytes, as the device's pointers are. The value means something only in the address
    // space that wrote it. Where pointers are wider, the upper half is lost on writing and reads
    // back as zero.
    static int SerializePointer(void* value, std::ostream& stream);
    static int DeserializePointer(std::istream& stream, void** value);

    // Six bytes: only the low 48 bits travel, and the reader leaves the upper 16 at zero, so a
    // negative time does not come back.
    static int SerializeTimestamp(int64_t time, std::ostream& stream);
    static int DeserializeTimestamp(std::istream& stream, int64_t* time);

    // The bytes and a zero byte, with no length prefix: readers scan for the zero, so a string
    // can't carry one. Strings of more than MAX_INT16 bytes are refused before anything is
    // written.
    static int SerializeString(const std::string& str, std::ostream& stream);
    static int DeserializeString(std::istream& stream, std::string* str);

    // The non-empty strings one after another, then a zero byte where the next string would
    // begin. A zero byte stands in for a list with nothing to write, so the reader always finds
    // one string first: an empty list comes back as one empty string, and empty strings inside a
    // list are lost. The count is taken to 16 bits, as the form always had it.
    static int SerializeStringVec(const std::vector<std::string>& list, std::ostream& stream);
    static int DeserializeStringVec(std::istream& stream, std::vector<std::string>* list);

    // A two-letter code in exactly two bytes; anything else is written as two zero bytes. The
    // reader appends to `str` rather than replacing it, and does not strip the zero bytes of an
    // unknown language: hand it an empty string and compare the result with what you expect.
    static int SerializeLanguage(const std::string& str, std::ostream& stream);
    static int DeserializeLanguage(std::istream& stream, std::string* str);

    // ---- Text encodings -----------------------------------------------------------------------

    // Lower-case, two digits per byte. Other units build stored names and keys from it, so the
    // case is part of the contract.
    static std::string ToHex(const std::string& str);
    static std::string ToHex(const Bytes& data);
    // Takes the text in pairs; a character that is no hexadecimal digit counts as 0 and a last odd
    // character is ignored. Text from outside is converted as well as it goes rather than refused.
    static std::string FromHex(const std::string& str);

    // Standard alphabet with "=" padding and no line breaks.
    static void ToBase64(const Bytes& data, std::string* out);
    static std::string ToBase64(const Bytes& data);
    static std::string ToBase64(const std::string& str);
    // Skips every character outside the alphabet ("=" and line breaks included), so wrapped or
    // unpadded input decodes; bits that don't make up a whole byte are dropped.
    static void FromBase64(const std::string& str, Bytes* out);
    static Bytes FromBase64(const std::string& str);

    // ---- Trimming -----------------------------------------------------------------------------
    // In place; whitespace is whatever isspace holds for.
    static void ltrim(std::string& str);
    static void rtrim(std::string& str);
    static void trim(std::string& str);
};

}  // namespace utilities
}  // namespace quorvel
