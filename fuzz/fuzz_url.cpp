// URLs and forms as applications hand them to a request: a URL from a page or a server, then
// parameters, form fields, headers and a body. The input is cut at its first zero bytes into the
// URL, a method, a form field's name and value, and a header. The splitter must keep every field
// a piece of the URL it was given, and the targets must stay one line: a line break in them would
// reach the request line as it stands.

#include <fuzzer/FuzzedDataProvider.h>

#include <string>

#include "common_utilities/http_request.h"
#include "fuzz_support.h"

namespace {

using quorvel::utilities::HttpRequest;
using quorvel::utilities::Url;

bool OneLine(const std::string& text) {
    return text.find_first_of("\r\n") == std::string::npos;
}

void CheckSplit(const std::string& text) {
    Url url(text);
    if (text.find("://") == std::string::npos) {
        QVFUZZ_CHECK(url.host.empty() && url.port.empty() && url.path.empty());
        return;
    }
    QVFUZZ_CHECK(url.scheme.size() + 3 + url.host.size() <= text.size());
    QVFUZZ_CHECK(text.find(url.path) != std::string::npos);
    QVFUZZ_CHECK(text.find(url.port) != std::string::npos);
    QVFUZZ_CHECK(text.find(url.query) != std::string::npos);
    for (const auto& [name, value] : Url::ParseQuery(url.query)) {
        QVFUZZ_CHECK(name.find('&') == std::string::npos && name.find('=') == std::string::npos);
        QVFUZZ_CHECK(url.query.find(value) != std::string::npos);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    std::string text = input.ConsumeRandomLengthString(2048);
    std::string method = input.ConsumeRandomLengthString(16);
    std::string name = input.ConsumeRandomLengthString(256);
    std::string value = input.ConsumeRandomLengthString(256);
    int number = input.ConsumeIntegral<int>();
    double real = input.ConsumeFloatingPoint<double>();
    std::string body = input.ConsumeRemainingBytesAsString();

    CheckSplit(text);

    HttpRequest request(method, text);
    request.AddGetParam(name, value);
    request.AddGetParam(name, number);
    request.AddPostParam(value, real);
    request.AddPostParam(name, value);
    request.AddHeader(name, value);
    request.SetCookie(name, value);

    // Escaped parameters are one line whatever they hold; the base URL is the caller's.
    std::string full = request.url();
    QVFUZZ_CHECK(full.compare(0, request.base_url().size(), request.base_url()) == 0);
    QVFUZZ_CHECK(OneLine(full.substr(request.base_url().size())));
    QVFUZZ_CHECK(OneLine(request.GetPostQuery()));
    request.encoded_url();
    request.GetHeaders();

    request.AddPostData(body);
    QVFUZZ_CHECK(request.GetPostQuery() == (body.empty() ? request.GetPostQuery() : body));

    HttpRequest copy("GET", text, name, value);
    request = copy;
    request.url();
    return 0;
}
