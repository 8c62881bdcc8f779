// The secure service of the host platform: a real, reversible cipher, keyed per device.
//
// The device key is 32 random bytes in "secure.key" of the host state directory (mode 0600),
// made by the first process that needs it, so every process of one device shares it and another
// device (another sandbox) can't read the texts. From it two keys are derived with HMAC-SHA256,
// one to encipher, one to authenticate.
//
// Cipher text: "~" and the unpadded base64url of tag (12 bytes) and the AES-256-CTR cipher of the
// text, the tag being the first 12 bytes of the HMAC of the clear text, which also serves as the
// counter's start (a synthetic IV): the same text gives the same cipher text on one device, and
// a changed cipher text is refused. It is plain ASCII, safe in JSON and configuration files.
//
// Limits: the service works in the caller's buffer, 160 bytes in practice, so the longest text
// it can encipher is 106 bytes. A text whose cipher text wouldn't fit is not handed back in the
// clear: the buffer comes back empty and the request fails. An empty text stays empty both ways.
// Deciphering something that isn't cipher text of this device fails and leaves it as it was,
// so a clear key written by another tool reads as it stands.

#include "secure_service.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <optional>
#include <string>

#include "host_state.h"

namespace qvhost {
namespace {

constexpr int kEncrypt = 260;
constexpr int kDecrypt = 261;
constexpr size_t kKeySize = 32;
constexpr size_t kTagSize = 12;
constexpr char kMarker = '~';
constexpr const char* kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

using Bytes = std::string;

std::optional<Bytes> ReadKey(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    char key[kKeySize];
    ssize_t n = ::read(fd, key, sizeof key);
    ::close(fd);
    if (n != static_cast<ssize_t>(kKeySize)) return std::nullopt;
    return Bytes(key, kKeySize);
}

// The device key; made whole beside the file and linked into place, so that of two processes
// making it at once one wins and both use the winner's.
std::optional<Bytes> DeviceKey() {
    std::string path = StatePath("secure.key");
    if (auto key = ReadKey(path)) return key;
    EnsureStateDir();
    unsigned char fresh[kKeySize];
    if (RAND_bytes(fresh, sizeof fresh) != 1) return std::nullopt;
    std::string temporary = path + "." + std::to_string(::getpid());
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return std::nullopt;
    bool written = ::write(fd, fresh, sizeof fresh) == static_cast<ssize_t>(sizeof fresh);
    ::close(fd);
    if (written) {
        int linked = ::link(temporary.c_str(), path.c_str());
        (void)linked;  // EEXIST: another process was first
    }
    ::unlink(temporary.c_str());
    return ReadKey(path);
}

Bytes Hmac(const Bytes& key, const Bytes& data) {
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
         reinterpret_cast<const unsigned char*>(data.data()), data.size(), out, &length);
    return Bytes(reinterpret_cast<char*>(out), length);
}

std::optional<Bytes> Ctr(const Bytes& key, const Bytes& tag, const Bytes& input) {
    unsigned char iv[16] = {};
    std::memcpy(iv, tag.data(), kTagSize);
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    if (!ctx) return std::nullopt;
    Bytes output(input.size(), '\0');
    int length = 0;
    bool ok = EVP_EncryptInit_ex(ctx, EVP_aes_256_ctr(), nullptr,
                                 reinterpret_cast<const unsigned char*>(key.data()), iv) == 1 &&
              EVP_EncryptUpdate(ctx, reinterpret_cast<unsigned char*>(&output[0]), &length,
                                reinterpret_cast<const unsigned char*>(input.data()),
                                static_cast<int>(input.size())) == 1;
    EVP_CIPHER_CTX_free(ctx);
    if (!ok) return std::nullopt;
    return output;
}

std::string Base64Url(const Bytes& data) {
    std::string text;
    unsigned bits = 0;
    int count = 0;
    for (unsigned char c : data) {
        bits = (bits << 8) | c;
        count += 8;
        while (count >= 6) {
            count -= 6;
            text += kAlphabet[(bits >> count) & 0x3F];
        }
    }
    if (count > 0) text += kAlphabet[(bits << (6 - count)) & 0x3F];
    return text;
}

std::optional<Bytes> FromBase64Url(const std::string& text) {
    Bytes data;
    unsigned bits = 0;
    int count = 0;
    for (char c : text) {
        const char* at = std::strchr(kAlphabet, c);
        if (!at || c == '\0') return std::nullopt;
        bits = (bits << 6) | static_cast<unsigned>(at - kAlphabet);
        count += 6;
        if (count >= 8) {
            count -= 8;
            data += static_cast<char>((bits >> count) & 0xFF);
        }
    }
    return data;
}

struct Keys {
    Bytes cipher;
    Bytes tag;
};

std::optional<Keys> DerivedKeys() {
    auto device = DeviceKey();
    if (!device) return std::nullopt;
    return Keys{Hmac(*device, "cipher"), Hmac(*device, "tag")};
}

std::optional<std::string> Encipher(const std::string& clear) {
    auto keys = DerivedKeys();
    if (!keys) return std::nullopt;
    Bytes tag = Hmac(keys->tag, clear).substr(0, kTagSize);
    auto body = Ctr(keys->cipher, tag, clear);
    if (!body) return std::nullopt;
    return kMarker + Base64Url(tag + *body);
}

std::optional<std::string> Decipher(const std::string& text) {
    if (text.empty() || text[0] != kMarker) return std::nullopt;
    auto data = FromBase64Url(text.substr(1));
    if (!data || data->size() < kTagSize) return std::nullopt;
    auto keys = DerivedKeys();
    if (!keys) return std::nullopt;
    Bytes tag = data->substr(0, kTagSize);
    auto clear = Ctr(keys->cipher, tag, data->substr(kTagSize));
    if (!clear) return std::nullopt;
    Bytes expected = Hmac(keys->tag, *clear).substr(0, kTagSize);
    if (CRYPTO_memcmp(expected.data(), tag.data(), kTagSize) != 0) return std::nullopt;
    return clear;
}

}  // namespace

int SecureRequest(int cmd, char* buffer, int input_length, int capacity) {
    if (cmd != kEncrypt && cmd != kDecrypt) return -1;
    std::string text(buffer, ::strnlen(buffer, static_cast<size_t>(input_length)));
    if (text.empty()) {
        if (capacity > 0) buffer[0] = '\0';
        return 0;
    }
    std::optional<std::string> result = cmd == kEncrypt ? Encipher(text) : Decipher(text);
    if (result && result->size() < static_cast<size_t>(capacity)) {
        std::memcpy(buffer, result->c_str(), result->size() + 1);
        return 0;
    }
    // A secret that can't be enciphered must not go on as if it had been.
    if (cmd == kEncrypt) std::memset(buffer, 0, static_cast<size_t>(capacity));
    return -1;
}

}  // namespace qvhost
