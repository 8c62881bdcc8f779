// Signature: the digest by which a server that knows the same closing text recognises a request
// as one of ours, and nonces to go with it.
//
// The digest is a plain SHA-1 (no keyed construction) over a canonical text of six lines, each
// closed by a line feed:
//     method
//     path, percent-decoded
//     host
//     port, or "80" when the request has none (also for an https target)
//     every GET and POST parameter as "name=value", unescaped, sorted together byte-wise and
//     joined by "&" (an empty line when there are none)
//     the closing text, up to its first zero byte
// The raw URL, the raw body, headers and cookies take no part.
#pragma once

#include <string>

#include "common_utilities/common_utilities.h"
#include "common_utilities/http_request.h"

namespace quorvel {
namespace utilities {

class QV_EXPORT Signature {
public:
    Signature() = delete;

    // 40 lower-case hexadecimal digits. `first` is accepted for the callers' sake and enters
    // nothing. When the path can't be decoded only the method line is hashed.
    static std::string CreateSignature(const HttpRequest& request, const std::string& first,
                                       const std::string& suffix);
    // 10 random bytes from "/dev/urandom" as 20 hexadecimal digits (fewer when fewer came), or
    // an empty text when the device can't be opened. Each call leaves its descriptor of
    // "/dev/urandom" open for the life of the process: a caller that makes nonces by the
    // thousand must allow for that in its descriptor limit.
    static std::string GenerateNonce();
    // Two lower-case hexadecimal digits a byte, in order.
    static std::string ToHex(const std::string& bytes);
};

}  // namespace utilities
}  // namespace quorvel
