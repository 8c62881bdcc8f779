// Sign-in through the browser end to end: the host's browser.app loads a page from the test
// server and reports to BrowserAuthorization over the abstract socket, in real processes.

#include "common_utilities/browser_authorization.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "moorglass.h"
#include "server_process.h"

namespace {

using namespace std::chrono_literals;
using quorvel::utilities::BrowserAuthorization;

constexpr const char* kBrowser = "/zelgrot/bin/browser.app";

class Recorder : public BrowserAuthorization::IEventHandler {
public:
    void OnText(std::string text) override { texts.push_back(text); }
    void OnNotice() override { ++notices; }
    void OnComplete() override { ++completions; }
    void OnPoll() override {
        elapsed.push_back(auth->ElapsedMs());
        focus.push_back(auth->SetFocus());
    }

    BrowserAuthorization* auth = nullptr;
    std::vector<std::string> texts;
    int notices = 0;
    int completions = 0;
    std::vector<int> elapsed;
    std::vector<int> focus;
};

class BrowserAuthorizationTest : public ::testing::Test {
protected:
    // The page that runs `script`, with its blanks and bars escaped for the URL.
    std::string Page(const std::string& script) const {
        std::string query;
        for (char c : script)
            query += c == ' ' ? std::string("%20") : c == '|' ? std::string("%7C") : std::string(1, c);
        return server_.Url("/signin?do=" + query);
    }
    static void CloseBrowser() {
        int task = FindTaskByAppName(kBrowser);
        if (task != -1) CloseTask(task, -1, 1);
    }
    void TearDown() override { CloseBrowser(); }

    qvtest::HttpTestServer server_;
};

TEST_F(BrowserAuthorizationTest, PageSendsTextsThenCompletionAndTheBrowserStays) {
    // A browser left from an earlier run is killed before the new one opens.
    std::string hang = Page("hang");
    char* leftover_args[] = {const_cast<char*>("-social"), const_cast<char*>("-notification_id"),
                             const_cast<char*>("old"), const_cast<char*>(hang.c_str())};
    int leftover = OpenBook2(kBrowser, 4, leftover_args, 0);
    ASSERT_GT(leftover, 0);

    Recorder recorder;
    BrowserAuthorization auth("42", &recorder);
    recorder.auth = &auth;
    EXPECT_EQ(QV_WRONG_STATE, auth.SetFocus());  // no run under way

    std::string url = Page("args|text hello|text|notice|type 7 ignored|complete");
    qvtest::LogCapture log;
    ASSERT_EQ(0, auth.Start(url, {"-lang", "en"}));

    EXPECT_NE(leftover, FindTaskByAppName(kBrowser));
    ASSERT_EQ(3u, recorder.texts.size());
    EXPECT_EQ("-social -notification_id 42 -lang en " + url, recorder.texts[0]);
    EXPECT_EQ("hello", recorder.texts[1]);
    EXPECT_EQ("", recorder.texts[2]);
    EXPECT_EQ(1, recorder.notices);
    EXPECT_EQ(1, recorder.completions);
    // Completion ends the wait at once and leaves the browser open.
    EXPECT_TRUE(auth.IsBrowserApplicationRunning());
    EXPECT_NE(-1, FindTaskByAppName(kBrowser));

    // The handler was polled once a pass; its SetFocus found the run under way until the pass
    // of the completion.
    ASSERT_FALSE(recorder.elapsed.empty());
    for (size_t i = 1; i < recorder.elapsed.size(); ++i)
        EXPECT_GE(recorder.elapsed[i], recorder.elapsed[i - 1]);
    std::vector<int> focus(recorder.focus.size() - 1, 0);
    focus.push_back(QV_WRONG_STATE);
    EXPECT_EQ(focus, recorder.focus);
    EXPECT_EQ(QV_WRONG_STATE, auth.SetFocus());  // over

    EXPECT_TRUE(log.Has(0, qvtest::PidLine("Starting authorization for [" + url + "]")));
    for (int type : {0, 1, 2, 7}) {
        EXPECT_TRUE(log.Has(4, qvtest::PidLine("WebAuthorization::HandleMessage. type = [" +
                                               std::to_string(type) + "]")));
    }
    EXPECT_TRUE(log.Has(0, qvtest::PidLine("Authorization finished.")));
}

TEST_F(BrowserAuthorizationTest, BrowserThatDiesEndsTheWaitInTheSeventhPass) {
    Recorder recorder;
    BrowserAuthorization auth("dies", &recorder);
    recorder.auth = &auth;
    auto started = std::chrono::steady_clock::now();
    ASSERT_EQ(0, auth.Start(Page("die"), {}));
    auto took = std::chrono::steady_clock::now() - started;

    EXPECT_EQ(0, recorder.completions);
    ASSERT_EQ(7u, recorder.elapsed.size());
    EXPECT_GE(recorder.elapsed.back(), 6500);
    EXPECT_LT(recorder.elapsed.back(), 9000);
    EXPECT_GE(took, 9s);  // the kill pause and the browser's start-up come first
    EXPECT_FALSE(auth.IsBrowserApplicationRunning());
}

TEST_F(BrowserAuthorizationTest, SetFocusFromAnotherThreadDuringTheRun) {
    Recorder recorder;
    BrowserAuthorization auth("focus", &recorder);
    recorder.auth = &auth;
    std::atomic<bool> done{false};
    std::atomic<int> focused{0};
    std::thread other([&] {
        while (!done) {
            if (auth.SetFocus() == 0) ++focused;
            std::this_thread::sleep_for(100ms);
        }
    });
    ASSERT_EQ(0, auth.Start(Page("sleep 2000|complete"), {}));
    done = true;
    other.join();
    EXPECT_GT(focused.load(), 0);
    EXPECT_EQ(1, recorder.completions);
    // The browser brought forward is still the one browser.
    EXPECT_NE(-1, FindTaskByAppName(kBrowser));
}

}  // namespace
