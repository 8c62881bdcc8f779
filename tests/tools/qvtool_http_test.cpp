// qvtool http, sign and nonce: what a person or a script relies on (output and exit codes).

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "child_process.h"
#include "server_process.h"

namespace {

using qvtest::Qvtool;
using qvtest::Contains;

using qvtest::ChildResult;
using qvtest::HttpTestServer;

class QvtoolHttp : public ::testing::Test {
protected:
    HttpTestServer server_;
};

TEST_F(QvtoolHttp, SendsWhatTheCommandLineDescribes) {
    ChildResult get = Qvtool({"http", "GET", server_.Url("/echo?b=2&a=1"), "-H", "X-Token: t1"});
    ASSERT_EQ(get.exit_code, 0) << get.Describe();
    EXPECT_TRUE(Contains(get.output, "status 200\n"));
    EXPECT_TRUE(Contains(get.output, "target /echo?a=1&b=2\n"));
    EXPECT_TRUE(Contains(get.output, "header X-Token: t1\n"));

    ChildResult form =
        Qvtool({"http", "POST", server_.Url("/echo"), "--form", "a=1", "--form", "b=x y"});
    ASSERT_EQ(form.exit_code, 0) << form.Describe();
    EXPECT_TRUE(Contains(form.output, "method POST\n"));
    EXPECT_TRUE(Contains(form.output, "\n\na=1&b=x%20y"));

    ChildResult put = Qvtool({"http", "--stream", "PUT", server_.Url("/echo"), "-d", "@-"},
                             "body from standard input");
    ASSERT_EQ(put.exit_code, 0) << put.Describe();
    EXPECT_TRUE(Contains(put.output, "version HTTP/1.0\n"));
    EXPECT_TRUE(Contains(put.output, "\n\nbody from standard input"));

    // An error status is a success unless --fail says otherwise.
    ChildResult missing = Qvtool({"http", "GET", server_.Url("/status/404")});
    EXPECT_EQ(missing.exit_code, 0) << missing.Describe();
    EXPECT_TRUE(Contains(missing.output, "status 404"));
    ChildResult failed = Qvtool({"http", "--fail", "GET", server_.Url("/status/404")});
    EXPECT_EQ(failed.exit_code, 1) << failed.Describe();
    EXPECT_TRUE(Contains(failed.output, "the server answered 404"));
}

TEST_F(QvtoolHttp, StreamingShowsTheCollectedHeadersAndRedirectsCanBeRefused) {
    ChildResult streamed = Qvtool({"http", "--stream", "GET", server_.Url("/redirect/1")});
    ASSERT_EQ(streamed.exit_code, 0) << streamed.Describe();
    EXPECT_TRUE(Contains(streamed.output, "landed"));
    EXPECT_TRUE(Contains(streamed.output, "HTTP/1.1 302 Found\n"));
    EXPECT_TRUE(Contains(streamed.output, "HTTP/1.1 200 OK\n"));
    EXPECT_TRUE(Contains(streamed.output, "X-Hop: 0\n"));

    ChildResult held = Qvtool({"http", "--no-redirect", "GET", server_.Url("/redirect/1")});
    EXPECT_EQ(held.exit_code, 0) << held.Describe();
    EXPECT_TRUE(Contains(held.output, "status 302"));

    ChildResult to_file =
        Qvtool({"http", "--stream", "GET", server_.Url("/bytes/100000"), "-o", "/tmp/body.bin"});
    ASSERT_EQ(to_file.exit_code, 0) << to_file.Describe();
    std::ifstream body("/tmp/body.bin", std::ios::binary | std::ios::ate);
    EXPECT_EQ(body.tellg(), 100000);
}

TEST_F(QvtoolHttp, TlsCookiesAndFailuresAreReportedPlainly) {
    ChildResult refused = Qvtool({"http", "GET", server_.TlsUrl("/echo")});
    EXPECT_EQ(refused.exit_code, 1) << refused.Describe();
    EXPECT_TRUE(Contains(refused.output, "(curl code 60)")) << refused.output;
    EXPECT_EQ(Qvtool({"http", "--insecure", "GET", server_.TlsUrl("/echo")}).exit_code, 0);

    ASSERT_EQ(
        Qvtool({"http", "--cookies", "/tmp/jar", "GET", server_.Url("/cookies/set?k=v")}).exit_code,
        0);
    ChildResult cookies = Qvtool({"http", "--cookies", "/tmp/jar", "GET", server_.Url("/cookies")});
    EXPECT_TRUE(Contains(cookies.output, "k=v")) << cookies.output;

    ChildResult closed = Qvtool({"http", "GET", "http://127.0.0.1:1/"});
    EXPECT_EQ(closed.exit_code, 1);
    EXPECT_TRUE(Contains(closed.output, "Couldn't connect to server (curl code 7)"))
        << closed.output;

    // Bad command lines are usage errors, and nothing is sent.
    EXPECT_EQ(Qvtool({"http", "GET"}).exit_code, 2);
    EXPECT_EQ(Qvtool({"http", "POST", server_.Url("/echo"), "-H", "no colon"}).exit_code, 2);
    EXPECT_EQ(Qvtool({"http", "POST", server_.Url("/echo"), "-d", "x", "--form", "a=1"}).exit_code,
              2);
    EXPECT_EQ(Qvtool({"http", "GET", server_.Url("/echo"), "-d", "x"}).exit_code, 2);
    EXPECT_EQ(Qvtool({"http", "POST", server_.Url("/echo"), "-d", "@/no/such/file"}).exit_code, 3);
    long before = server_.RequestCount();

    ChildResult down = Qvtool({"host", "network", "down"});
    EXPECT_EQ(down.output, "network down, proxy none\n") << down.Describe();
    ChildResult offline = Qvtool({"http", "GET", server_.Url("/echo")});
    EXPECT_EQ(offline.exit_code, 4) << offline.Describe();
    EXPECT_TRUE(Contains(offline.output, "the network is down")) << offline.output;
    EXPECT_EQ(server_.RequestCount(), before);
    EXPECT_EQ(Qvtool({"host", "network", "sideways"}).exit_code, 2);

    // Back up, through the server as proxy: the target itself does not exist.
    ChildResult up = Qvtool({"host", "network", "up", "--proxy", server_.Url("")});
    EXPECT_EQ(up.output, "network up, proxy " + server_.Url("") + "\n") << up.Describe();
    ChildResult proxied = Qvtool({"http", "GET", "http://127.0.0.1:1/via"});
    EXPECT_EQ(proxied.exit_code, 0) << proxied.Describe();
    EXPECT_TRUE(Contains(proxied.output, "proxied http://127.0.0.1:1/via")) << proxied.output;
}

TEST(QvtoolSign, PrintsTheSignatureAndNonces) {
    // SHA-1 of "GET\n/p q\nh\n80\na=1&b=2&c=3\nsecret\n".
    ChildResult expected =
        qvtest::RunProgram({"sha1sum"}, "GET\n/p q\nh\n80\na=1&b=2&c=3\nsecret\n");
    ChildResult sign = Qvtool({"sign", "--form", "c=3", "GET", "http://h/p%20q?b=2&a=1", "secret"});
    ASSERT_EQ(sign.exit_code, 0) << sign.Describe();
    EXPECT_EQ(sign.output, expected.output.substr(0, 40) + "\n");
    EXPECT_EQ(Qvtool({"sign", "GET", "http://h/"}).exit_code, 2);

    ChildResult nonce = Qvtool({"nonce"});
    ASSERT_EQ(nonce.exit_code, 0);
    EXPECT_EQ(nonce.output.size(), 21u);
    EXPECT_NE(nonce.output, Qvtool({"nonce"}).output);
}

}  // namespace
