// qvtool sign METHOD URL SUFFIX: the signature a server recomputes for a request.

#include <iostream>
#include <string>

#include "cli.h"
#include "common_utilities/http_request.h"
#include "common_utilities/signature.h"

namespace qvtool {
namespace {

using quorvel::utilities::HttpRequest;
using quorvel::utilities::Signature;

int RunSign(Args& args) {
    std::vector<std::string> form = args.Options("--form");
    std::string method = args.Next("METHOD");
    std::string url = args.Next("URL");
    std::string suffix = args.Next("SUFFIX");
    args.Done();
    HttpRequest request(method, url);
    for (const auto& field : form) {
        size_t eq = field.find('=');
        if (eq == std::string::npos) {
            throw Failure(kUsage, "a form field is name=value, not '" + field + "'");
        }
        request.AddPostParam(field.substr(0, eq), field.substr(eq + 1));
    }
    std::cout << Signature::CreateSignature(request, "", suffix) << '\n';
    return kOk;
}

int RunNonce(Args& args) {
    args.Done();
    std::string nonce = Signature::GenerateNonce();
    if (nonce.empty()) throw Failure(kFailed, "no random bytes to be had from /dev/urandom");
    std::cout << nonce << '\n';
    return kOk;
}

const bool registered_sign =
    Register({"sign", "the signature of a request (SHA-1 over its canonical text)",
              "usage: qvtool sign [--form name=value]... METHOD URL SUFFIX\n"
              "Prints the 40-digit signature of the request: SHA-1 over the method, the decoded\n"
              "path, the host, the port (80 when the URL has none), the query and form parameters\n"
              "sorted, and SUFFIX, the text the server shares, each on a line of its own.\n"
              "  --form name=value  a form parameter of the request (repeatable)\n",
              RunSign});

const bool registered_nonce =
    Register({"nonce", "a fresh nonce for signed requests (20 hex digits)",
              "usage: qvtool nonce\nPrints 10 random bytes as 20 hexadecimal digits.\n", RunNonce});

}  // namespace
}  // namespace qvtool
