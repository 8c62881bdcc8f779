// Url and HttpRequest: parsing and escaping, where a slip changes what reaches the server.

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "common_utilities/http_request.h"

namespace {

using quorvel::utilities::HttpRequest;
using quorvel::utilities::Url;
using Params = HttpRequest::Params;
using Query = std::map<std::string, std::string>;

TEST(Url, SplitsSchemeAuthorityPathAndQuery) {
    Url url("HTTP://SomeHost:8080/A/b?x=1&y=2#frag");
    EXPECT_EQ(url.scheme, "http");
    EXPECT_EQ(url.host, "somehost");
    EXPECT_EQ(url.port, "8080");
    EXPECT_EQ(url.path, "/A/b");  // case kept
    EXPECT_EQ(url.query, "x=1&y=2#frag");

    // User information stays in the host, and its ":" is not the port separator.
    Url user("https://User:Pw@Host.Example:443/p");
    EXPECT_EQ(user.host, "user:pw@host.example");
    EXPECT_EQ(user.port, "443");
    Url user_no_port("ftp://a:b@c/d");
    EXPECT_EQ(user_no_port.host, "a:b@c");
    EXPECT_EQ(user_no_port.port, "");

    // No path: the authority runs to the end.
    Url bare("http://host:81");
    EXPECT_EQ(bare.host, "host");
    EXPECT_EQ(bare.port, "81");
    EXPECT_EQ(bare.path, "");
    // Only a "/" ends the authority; a "#" without "?" stays in the path.
    EXPECT_EQ(Url("http://h?x=1").host, "h?x=1");
    EXPECT_EQ(Url("http://h/p#top").path, "/p#top");
    // An "@" in the path is not user information.
    Url at_in_path("http://h:1/a@b:2");
    EXPECT_EQ(at_in_path.host, "h");
    EXPECT_EQ(at_in_path.port, "1");
    EXPECT_EQ(at_in_path.path, "/a@b:2");
    // The first "?" splits; later ones belong to the query.
    Url two("http://h/p?a=?&b");
    EXPECT_EQ(two.path, "/p");
    EXPECT_EQ(two.query, "a=?&b");
}

TEST(Url, TextWithoutSchemeSeparatorFailsAndResetsFields) {
    Url url("http://first:1/x?q");
    EXPECT_EQ(url.Parse("No-Scheme/Path?q=1"), -1);
    EXPECT_EQ(url.scheme, "no-scheme/path?q=1");
    EXPECT_EQ(url.host, "");
    EXPECT_EQ(url.port, "");
    EXPECT_EQ(url.path, "");
    EXPECT_EQ(url.query, "");
    EXPECT_EQ(url.Parse("a://"), 0);
    EXPECT_EQ(url.scheme, "a");
    EXPECT_EQ(url.host, "");
}

TEST(Url, ParseQueryStopsAtTheFirstSegmentWithoutEquals) {
    EXPECT_EQ(Url::ParseQuery("a=1&b&c=3"), (Query{{"a", "1"}}));
    EXPECT_EQ(Url::ParseQuery("b&c=3"), Query{});
    EXPECT_EQ(Url::ParseQuery("a=&b=2"), (Query{{"a", ""}, {"b", "2"}}));
    EXPECT_EQ(Url::ParseQuery("a=1=2"), (Query{{"a", "1=2"}}));
    EXPECT_EQ(Url::ParseQuery("a=1&a=2"), (Query{{"a", "2"}}));  // the later wins
    EXPECT_EQ(Url::ParseQuery("a=%20x&b=1#c=3"), (Query{{"a", "%20x"}, {"b", "1"}}));
    EXPECT_EQ(Url::ParseQuery("#a=1"), Query{});
    EXPECT_EQ(Url::ParseQuery(""), Query{});
    EXPECT_EQ(Url::ParseQuery("a=1&"), (Query{{"a", "1"}}));
    EXPECT_EQ(Url::ParseQuery("a=1&&b=2"), (Query{{"a", "1"}}));  // empty segment has no "="
    EXPECT_EQ(Url::ParseQuery("=v"), (Query{{"", "v"}}));
}

TEST(HttpRequest, SetUrlBuildsBaseAndSortedParametersAndDropsEarlierOnes) {
    HttpRequest request("GET", "HTTP://SomeHost:8080/A/b?y=2&x=1&x=3#frag");
    EXPECT_EQ(request.method(), "GET");
    EXPECT_EQ(request.base_url(), "http://somehost:8080/A/b");
    // Sorted by name, duplicates gone (the later value), the fragment dropped.
    EXPECT_EQ(request.get_params(), (Params{{"x", "3"}, {"y", "2"}}));
    EXPECT_EQ(request.url(), "http://somehost:8080/A/b?x=3&y=2");

    request.AddGetParam("z", "9");
    request.AddPostParam("p", "1");
    request.SetUrl("https://other/");
    EXPECT_EQ(request.base_url(), "https://other/");
    EXPECT_TRUE(request.get_params().empty());
    EXPECT_TRUE(request.post_params().empty());
    EXPECT_EQ(request.method(), "GET");

    EXPECT_EQ(HttpRequest("GET", "http://host").base_url(), "http://host");
    EXPECT_EQ(HttpRequest("GET", "http://host:1").base_url(), "http://host:1");
    // A malformed URL leaves the lower-cased text and "://" for the transfer to fail on.
    HttpRequest malformed("GET", "Not A URL");
    EXPECT_EQ(malformed.base_url(), "not a url://");
    EXPECT_EQ(malformed.host(), "");
}

TEST(HttpRequest, FourStringConstructorAlwaysWritesBothSeparators) {
    HttpRequest request("POST", "http://api.host", "v1/items", "8080");
    EXPECT_EQ(request.base_url(), "http://api.host:8080/v1/items");
    EXPECT_EQ(request.path(), "v1/items");
    EXPECT_EQ(HttpRequest("GET", "host", "p", "").base_url(), "host:/p");
    EXPECT_EQ(HttpRequest("GET", "host", "/p", "80").base_url(), "host:80//p");
    // No parsing: a query in the path stays in the base.
    HttpRequest with_query("GET", "h", "p?a=1", "1");
    EXPECT_TRUE(with_query.get_params().empty());
    EXPECT_EQ(with_query.url(), "h:1/p?a=1");
}

TEST(HttpRequest, UrlEscapesNamesAndEncodedUrlDoesNot) {
    HttpRequest request("GET", "http://h/p");
    request.AddGetParam("a name", "a value&more");
    request.AddGetParam("n", 42);
    request.AddGetParam("d", 0.1 + 0.2);
    request.AddGetParam("big", 1234567.0);
    request.AddGetParam("n", -7);  // duplicates stay, in order
    EXPECT_EQ(request.url(),
              "http://h/p?a%20name=a%20value%26more&n=42&d=0.3&big=1.23457e%2B06&n=-7");
    EXPECT_EQ(request.encoded_url(),
              "http://h/p?a name=a%20value%26more&n=42&d=0.3&big=1.23457e%2B06&n=-7");

    // A value that came percent-encoded in the URL is encoded once more.
    HttpRequest twice("GET", "http://h/p?q=a%20b");
    EXPECT_EQ(twice.get_params(), (Params{{"q", "a%20b"}}));
    EXPECT_EQ(twice.encoded_url(), "http://h/p?q=a%2520b");

    // The raw URL replaces everything in encoded_url() only.
    request.raw_url_ = "http://raw/target?as=is";
    EXPECT_EQ(request.encoded_url(), "http://raw/target?as=is");
    EXPECT_EQ(request.url().substr(0, 11), "http://h/p?");

    // Non-ASCII text is escaped byte by byte; unreserved characters stay.
    HttpRequest utf("GET", "http://h/");
    utf.AddGetParam("q", "Grüße ~-._");
    EXPECT_EQ(utf.encoded_url(), "http://h/?q=Gr%C3%BC%C3%9Fe%20~-._");
    EXPECT_EQ(HttpRequest("GET", "http://h/").url(), "http://h/");
}

TEST(HttpRequest, PostQueryPrefersRawBodyAndEscapesParameters) {
    HttpRequest request("POST", "http://h/form");
    EXPECT_EQ(request.GetPostQuery(), "");
    request.AddPostParam("user name", "a&b=c");
    request.AddPostParam("n", 3);
    request.AddPostParam("x", 2.5);
    EXPECT_EQ(request.GetPostQuery(), "user%20name=a%26b%3Dc&n=3&x=2.5");
    request.AddPostData("{\"raw\":true}");
    EXPECT_EQ(request.GetPostQuery(), "{\"raw\":true}");
    request.AddPostData("");
    EXPECT_EQ(request.GetPostQuery(), "user%20name=a%26b%3Dc&n=3&x=2.5");
    // POST parameters never reach the target.
    EXPECT_EQ(request.encoded_url(), "http://h/form");
}

TEST(HttpRequest, HeadersOnePerNameInByteOrderAndCookieSlots) {
    HttpRequest request("GET", "http://h/");
    request.AddHeader("b-header", "1");
    request.AddHeader("X-Token", "old");
    request.AddHeader("X-Token", "new");
    request.AddHeader("a-header", "");
    request.AddHeader("x-token", "lower");  // no case folding: another name
    EXPECT_EQ(
        request.GetHeaders(),
        (std::vector<std::string>{"X-Token: new", "a-header: ", "b-header: 1", "x-token: lower"}));

    request.SetCookie("session", "1");
    request.SetCookie("session", "2");
    EXPECT_EQ(request.cookie(), "session=2");
    request.EnableCookie(true, "/tmp/jar");
    EXPECT_EQ(request.cookie_file(), "/tmp/jar");
    request.EnableCookie(false, "/tmp/jar");
    EXPECT_EQ(request.cookie_file(), "");

    // A copy is independent of its original.
    HttpRequest copy = request;
    copy.AddHeader("b-header", "changed");
    copy.skip_ssl_check_ = true;
    EXPECT_EQ(request.headers().at("b-header"), "1");
    EXPECT_FALSE(request.skip_ssl_check_);
}

}  // namespace
