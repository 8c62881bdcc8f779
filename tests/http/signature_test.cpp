// Signature: digests checked against sha1sum over canonical texts written out by hand.

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "child_process.h"
#include "common_utilities/http_request.h"
#include "common_utilities/signature.h"

namespace {

using quorvel::utilities::HttpRequest;
using quorvel::utilities::Signature;

// SHA-1 of `text` by the system's sha1sum, as 40 hexadecimal digits.
std::string Sha1Sum(const std::string& text) {
    qvtest::ChildResult result = qvtest::RunProgram({"sha1sum"}, text);
    EXPECT_TRUE(result.Succeeded()) << result.Describe();
    return result.output.substr(0, 40);
}

TEST(Signature, HashesTheCanonicalTextOfTheRequest) {
    HttpRequest plain("GET", "http://Api.Example/v1/items");
    EXPECT_EQ(Signature::CreateSignature(plain, "", "closing"),
              Sha1Sum("GET\n/v1/items\napi.example\n80\n\nclosing\n"));

    // Parameters of both lists, raw, sorted together; duplicates stay. The path is decoded.
    HttpRequest request("POST", "https://api.example:8443/a%20b/c%2Fd?b=2&q=x%20y");
    request.AddPostParam("a", "1");
    request.AddPostParam("b", "2");
    request.AddPostParam("c", "sp ace&amp");
    const std::string expected =
        Sha1Sum("POST\n/a b/c/d\napi.example\n8443\na=1&b=2&b=2&c=sp ace&amp&q=x%20y\nkey\n");
    EXPECT_EQ(Signature::CreateSignature(request, "", "key"), expected);

    // Any split of the same pairs between the lists signs the same.
    HttpRequest split("POST", "https://api.example:8443/a%20b/c%2Fd");
    split.AddGetParam("c", "sp ace&amp");
    split.AddGetParam("b", "2");
    split.AddGetParam("q", "x%20y");
    split.AddPostParam("b", "2");
    split.AddGetParam("a", "1");
    EXPECT_EQ(Signature::CreateSignature(split, "", "key"), expected);

    // What takes no part: `first`, the raw URL, the raw body, headers, the cookie slot.
    split.raw_url_ = "http://elsewhere/";
    split.AddPostData("body");
    split.AddHeader("X-A", "1");
    split.SetCookie("c", "1");
    EXPECT_EQ(Signature::CreateSignature(split, "anything at all", "key"), expected);
    EXPECT_NE(Signature::CreateSignature(split, "", "key2"), expected);
}

TEST(Signature, PortDefaultsTo80AndSuffixEndsAtItsFirstZeroByte) {
    HttpRequest https("PUT", "https://secure.example/x");
    EXPECT_EQ(Signature::CreateSignature(https, "", std::string("abc\0def", 7)),
              Sha1Sum("PUT\n/x\nsecure.example\n80\n\nabc\n"));

    // The four-string constructor's path has no "/" of its own.
    HttpRequest parts("DELETE", "host", "p", "");
    EXPECT_EQ(Signature::CreateSignature(parts, "", ""), Sha1Sum("DELETE\np\nhost\n80\n\n\n"));
}

TEST(Signature, HexAndNonces) {
    EXPECT_EQ(Signature::ToHex(""), "");
    EXPECT_EQ(Signature::ToHex(std::string("\x00\x0f\xa0\xff", 4)), "000fa0ff");

    std::set<std::string> nonces;
    for (int i = 0; i < 20; ++i) {
        std::string nonce = Signature::GenerateNonce();
        ASSERT_EQ(nonce.size(), 20u);
        EXPECT_EQ(nonce.find_first_not_of("0123456789abcdef"), std::string::npos) << nonce;
        nonces.insert(nonce);
    }
    EXPECT_EQ(nonces.size(), 20u);
}

}  // namespace
