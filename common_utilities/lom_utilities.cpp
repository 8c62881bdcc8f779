#include "common_utilities/lom_utilities.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <vector>

#include "common_utilities/serialization_utils.h"

namespace quorvel {
namespace utilities {
namespace {

// ---- Digests ----------------------------------------------------------------------------------

using DigestContext = std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)>;
using File = std::unique_ptr<FILE, decltype(&std::fclose)>;

constexpr size_t kReadPiece = 64 * 1024;

class Digest {
public:
    explicit Digest(const EVP_MD* type) : context_(EVP_MD_CTX_new(), &EVP_MD_CTX_free) {
        ok_ = context_ && EVP_DigestInit_ex(context_.get(), type, nullptr) == 1;
    }
    void Update(const void* data, size_t size) {
        ok_ = ok_ && EVP_DigestUpdate(context_.get(), data, size) == 1;
    }
    // Up to `size` bytes of `file` from where it stands; false on a read error or a short file.
    bool UpdateFromFile(FILE* file, long size) {
        std::vector<char> piece(kReadPiece);
        while (size != 0) {
            const size_t want = size < 0 ? piece.size() : std::min(piece.size(), size_t(size));
            const size_t got = std::fread(piece.data(), 1, want, file);
            Update(piece.data(), got);
            if (size > 0) size -= static_cast<long>(got);
            if (got < want) return !std::ferror(file) && size <= 0;
        }
        return true;
    }
    // Lower-case hexadecimal; empty if libcrypto failed on the way.
    std::string Hex() {
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        if (!ok_ || EVP_DigestFinal_ex(context_.get(), digest, &length) != 1) return {};
        return SerializationUtils::ToHex(std::string(reinterpret_cast<char*>(digest), length));
    }

private:
    DigestContext context_;
    bool ok_ = false;
};

File OpenFile(const std::string& path) {
    return File(std::fopen(path.c_str(), "rb"), &std::fclose);
}

// ---- Scrambling -------------------------------------------------------------------------------

constexpr int kTableSize = 94;
constexpr char kScrambleTable[] =
    "v3rMgq9#pSG=xc+V%\".PNHUDl0zdeyXK><!2|@~6u)k41YaAws_Z[iF}Bb;T{IOn^:?]mo(&J\\LE'/CW-*$8RQf,h75"
    "`tj";
static_assert(sizeof kScrambleTable - 1 == kTableSize, "the table holds every printable character");

// Place of each byte in the table, -1 for bytes outside it.
const std::array<int, 256>& TablePlaces() {
    static const std::array<int, 256> places = [] {
        std::array<int, 256> result;
        result.fill(-1);
        for (int i = 0; i < kTableSize; ++i)
            result[static_cast<unsigned char>(kScrambleTable[i])] = i;
        return result;
    }();
    return places;
}

// Moves every table character forward (direction 1) or back (-1) by its position's shift.
std::string Shift(const std::string& text, int direction) {
    const auto& places = TablePlaces();
    std::string result = text;
    for (size_t i = 0; i < result.size(); ++i) {
        const int place = places[static_cast<unsigned char>(result[i])];
        if (place < 0) continue;
        const int shift = static_cast<int>((i * 7 + 13) % kTableSize);
        result[i] = kScrambleTable[(place + direction * shift + kTableSize) % kTableSize];
    }
    return result;
}

}  // namespace

std::string LomUtilities::GetSha1(const std::string& text) {
    Digest digest(EVP_sha1());
    digest.Update(text.data(), text.size());
    return digest.Hex();
}

std::string LomUtilities::GetFileSha1(const std::string& path) {
    File file = OpenFile(path);
    if (!file) return {};
    Digest digest(EVP_sha1());
    return digest.UpdateFromFile(file.get(), -1) ? digest.Hex() : std::string();
}

std::string LomUtilities::GetPartialFileMd5(const std::string& path) {
    File file = OpenFile(path);
    if (!file || std::fseek(file.get(), 0, SEEK_END) != 0) return {};
    const long size = std::ftell(file.get());
    if (size < 0 || std::fseek(file.get(), 0, SEEK_SET) != 0) return {};
    Digest digest(EVP_md5());
    if (size <= 2 * kMd5PartSize) return digest.UpdateFromFile(file.get(), -1) ? digest.Hex() : "";
    const bool read = digest.UpdateFromFile(file.get(), kMd5PartSize) &&
                      std::fseek(file.get(), size - kMd5PartSize, SEEK_SET) == 0 &&
                      digest.UpdateFromFile(file.get(), kMd5PartSize);
    return read ? digest.Hex() : std::string();
}

std::string LomUtilities::Scramble(const std::string& text) {
    return Shift(text, 1);
}

std::string LomUtilities::Unscramble(const std::string& text) {
    return Shift(text, -1);
}

}  // namespace utilities
}  // namespace quorvel
