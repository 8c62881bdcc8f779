// The WPA pre-shared key of a passphrase: PBKDF2-HMAC-SHA1 with the network's name as the salt,
// 4096 rounds, 32 bytes, written as lower-case hexadecimal. Passphrases are 8 to 63 characters;
// anything else is refused, as the standard does (64 characters would be a key given in hex).

#include <openssl/evp.h>

#include <cstdlib>
#include <cstring>

#include "moorglass.h"

namespace {

constexpr size_t kShortestPassphrase = 8;
constexpr size_t kLongestPassphrase = 63;
constexpr int kRounds = 4096;
constexpr int kKeyBytes = 32;

}  // namespace

extern "C" char* wpa_passphrase(const char* essid, const char* passphrase, int /*flags*/) {
    if (!essid || !passphrase) return nullptr;
    size_t length = std::strlen(passphrase);
    if (length < kShortestPassphrase || length > kLongestPassphrase) return nullptr;
    unsigned char key[kKeyBytes];
    if (PKCS5_PBKDF2_HMAC_SHA1(passphrase, static_cast<int>(length),
                               reinterpret_cast<const unsigned char*>(essid),
                               static_cast<int>(std::strlen(essid)), kRounds, kKeyBytes,
                               key) != 1) {
        return nullptr;
    }
    char* text = static_cast<char*>(std::malloc(2 * kKeyBytes + 1));
    if (!text) return nullptr;
    static const char kDigits[] = "0123456789abcdef";
    for (int i = 0; i < kKeyBytes; ++i) {
        text[2 * i] = kDigits[key[i] >> 4];
        text[2 * i + 1] = kDigits[key[i] & 0x0f];
    }
    text[2 * kKeyBytes] = '\0';
    return text;
}
