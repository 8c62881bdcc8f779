// The mailbox between real processes: the library asks in one process, and either this test (to
// see the bodies byte for byte) or the host shell program answers in another.

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <thread>
#include <vector>

#include "child_process.h"
#include "common_utilities/shell_calls.h"
#include "log_capture.h"
#include "moorglass.h"
#include "moorglass_host.h"
#include "shell_server.h"

namespace {

using namespace std::chrono_literals;
using quorvel::utilities::SystemDialog;
using quorvel::utilities::SystemMessage;
using quorvel::utilities::SystemOpenBook;
using Bytes = std::vector<unsigned char>;

int32_t Query() {
    return __atomic_load_n(&mgmpc->uiquery, __ATOMIC_ACQUIRE);
}
int32_t Status() {
    return __atomic_load_n(&mgmpc->uistatus, __ATOMIC_ACQUIRE);
}
void SetStatus(int32_t value) {
    __atomic_store_n(&mgmpc->uistatus, value, __ATOMIC_RELEASE);
}

// Waits until another process has posted a request; its query.
int32_t WaitForRequest() {
    auto until = std::chrono::steady_clock::now() + 10s;
    while (std::chrono::steady_clock::now() < until) {
        if (Query() != 0 && Status() == MG_UISTATUS_PENDING) return Query();
        std::this_thread::sleep_for(2ms);
    }
    return -1;
}

void Append(Bytes* body, int32_t n) {
    unsigned char raw[4];
    std::memcpy(raw, &n, 4);
    body->insert(body->end(), raw, raw + 4);
}
void Append(Bytes* body, const std::string& text) {
    body->insert(body->end(), text.begin(), text.end());
    body->push_back(0);
}

Bytes Posted(size_t size) {
    return Bytes(mgmpc->uibody, mgmpc->uibody + size);
}

std::vector<std::vector<std::string>> ShellLog() {
    std::vector<std::vector<std::string>> lines;
    std::ifstream in(qvhost::ShellServer::LogPath());
    std::string line;
    while (std::getline(in, line))
        lines.push_back(qvhost::SplitShellLogLine(line));
    return lines;
}

// The host shell program, started with `answers`, ready when it says so.
qvtest::ChildProcess StartShell(const std::string& answers) {
    auto shell =
        qvtest::ChildProcess::Run({qvtest::BuildProgram("host_shell"), "--answers", answers});
    auto until = std::chrono::steady_clock::now() + 10s;
    while (!qvtest::Contains(shell.OutputSoFar(), "shell ready") &&
           std::chrono::steady_clock::now() < until) {
        std::this_thread::sleep_for(5ms);
    }
    return shell;
}

TEST(ShellMailbox, BlockSitsAtTheShellsOffsets) {
    EXPECT_EQ(offsetof(mgmpc_s, uiquery), 0x11A4u);
    EXPECT_EQ(offsetof(mgmpc_s, uistatus), 0x11A8u);
    EXPECT_EQ(offsetof(mgmpc_s, uibody), 0x11ACu);
    ASSERT_NE(mgmpc, nullptr);
}

TEST(ShellMailbox, BodiesArePackedByteForByte) {
    auto asker = qvtest::ChildProcess::Start([] {
        SystemMessage(7, "Title", "Some text", 3000);
        int answer = SystemDialog(2, "Delete?", "The book goes for good.", "Delete", "Keep");
        SystemOpenBook("/mnt/ext1/Books/a b.epub");
        return answer;
    });

    ASSERT_EQ(WaitForRequest(), MG_UIQUERY_MESSAGE);
    Bytes message;
    for (int32_t n : {7, 6, 10, 3000})
        Append(&message, n);
    Append(&message, "Title");
    Append(&message, "Some text");
    EXPECT_EQ(Posted(message.size()), message);
    SetStatus(MG_UISTATUS_SHOWN);  // the asker then frees the mailbox and asks the next

    ASSERT_EQ(WaitForRequest(), MG_UIQUERY_DIALOG);
    Bytes dialog;
    for (int32_t n : {2, 8, 24, 7, 5})
        Append(&dialog, n);
    for (const char* text : {"Delete?", "The book goes for good.", "Delete", "Keep"})
        Append(&dialog, text);
    EXPECT_EQ(Posted(dialog.size()), dialog);
    SetStatus(MG_UISTATUS_SHOWN);
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(Query(), MG_UIQUERY_DIALOG) << "a dialog being shown keeps its asker waiting";
    SetStatus(MG_UIANSWER_BUTTON2);

    ASSERT_EQ(WaitForRequest(), MG_UIQUERY_OPENBOOK);
    Bytes open;
    Append(&open, 25);
    Append(&open, "/mnt/ext1/Books/a b.epub");
    EXPECT_EQ(Posted(open.size()), open);
    SetStatus(MG_UIANSWER_OPENED);

    auto result = asker.Wait(20s);
    EXPECT_EQ(result.exit_code, MG_UIANSWER_BUTTON2) << result.Describe();
    EXPECT_EQ(Query(), 0);
}

TEST(ShellMailbox, HostShellAnswersDialogsAndOpensBooks) {
    auto shell = StartShell("2,1");
    std::ofstream("/mnt/ext1/book.pdf") << "%PDF";
    auto asker = qvtest::ChildProcess::Start([] {
        SystemMessage(1, "Saved", "line one\nline\ttwo", 500);
        int first = SystemDialog(0, "Sync?", "Now", "Yes", "No");
        int second = SystemDialog(0, "Sure?", "", "Yes", "");
        SystemOpenBook("/mnt/ext1/book.pdf");
        SystemOpenBook("/mnt/ext1/missing.pdf");
        return first == MG_UIANSWER_BUTTON2 && second == MG_UIANSWER_BUTTON1 ? 0 : 1;
    });
    auto result = asker.Wait(30s);
    EXPECT_TRUE(result.Succeeded()) << result.Describe();

    auto log = ShellLog();
    using Line = std::vector<std::string>;
    ASSERT_EQ(log.size(), 5u);
    EXPECT_EQ(log[0], (Line{"message", "1", "Saved", "line one\nline\ttwo", "500"}));
    EXPECT_EQ(log[1], (Line{"dialog", "0", "Sync?", "Now", "Yes", "No", "2"}));
    EXPECT_EQ(log[2], (Line{"dialog", "0", "Sure?", "", "Yes", "", "1"}));
    EXPECT_EQ(log[3], (Line{"open", "/mnt/ext1/book.pdf", "opened"}));
    EXPECT_EQ(log[4], (Line{"open", "/mnt/ext1/missing.pdf", "missing"}));
    EXPECT_TRUE(qvtest::Contains(shell.OutputSoFar(), "[dialog] Sync?"));
}

TEST(ShellMailbox, RequestsOfSeveralProcessesTakeTurns) {
    // Another application holds the mailbox: nobody may write over its request.
    __atomic_store_n(&mgmpc->uiquery, MG_UIQUERY_DIALOG, __ATOMIC_RELEASE);
    SetStatus(MG_UISTATUS_SHOWN);
    std::vector<qvtest::ChildProcess> askers;
    for (int i = 0; i < 4; ++i) {
        askers.push_back(qvtest::ChildProcess::Start([i] {
            std::string n = std::to_string(i);
            return SystemDialog(i, "title " + n, "text " + n, "a" + n, "b" + n) ==
                           MG_UIANSWER_BUTTON1
                       ? 0
                       : 1;
        }));
    }
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(Status(), MG_UISTATUS_SHOWN) << "a waiting asker wrote into a busy mailbox";
    __atomic_store_n(&mgmpc->uiquery, 0, __ATOMIC_RELEASE);

    auto shell = StartShell("1,1,1,1");
    for (auto& asker : askers) {
        auto result = asker.Wait(30s);
        EXPECT_TRUE(result.Succeeded()) << result.Describe();
    }
    auto log = ShellLog();
    ASSERT_EQ(log.size(), 4u);
    for (const auto& line : log) {
        ASSERT_EQ(line.size(), 7u);
        std::string n = line[1];
        EXPECT_EQ(line[2], "title " + n);
        EXPECT_EQ(line[3], "text " + n);
        EXPECT_EQ(line[4], "a" + n);
        EXPECT_EQ(line[5], "b" + n);
    }
}

TEST(ShellMailbox, DamagedBodiesAndAMissingBlock) {
    qvhost::ShellRequest request;
    Bytes body;
    for (int32_t n : {0, 6, 3, 0})
        Append(&body, n);
    Append(&body, "Title");
    Append(&body, "ab");
    EXPECT_TRUE(qvhost::ParseShellRequest(MG_UIQUERY_MESSAGE, body.data(), body.size(), &request));
    body[4] = 200;  // a title length past the body's end
    EXPECT_FALSE(qvhost::ParseShellRequest(MG_UIQUERY_MESSAGE, body.data(), body.size(), &request));
    body[4] = 4;  // a terminator that isn't where the length says
    EXPECT_FALSE(qvhost::ParseShellRequest(MG_UIQUERY_MESSAGE, body.data(), body.size(), &request));
    EXPECT_FALSE(qvhost::ParseShellRequest(5, body.data(), body.size(), &request));

    mgmpc_s* block = mgmpc;
    mgmpc = nullptr;
    qvtest::LogCapture log;
    EXPECT_EQ(SystemDialog(0, "t", "x", "a", "b"), -1);
    SystemMessage(0, "t", "x", 0);
    mgmpc = block;
    EXPECT_TRUE(log.HasFragment(1, "Condition: \"!mgmpc\", return(\"-1\")]mgmpc == NULL"));
    EXPECT_TRUE(log.HasFragment(1, "Condition: \"!mgmpc\", return]mgmpc == NULL"));
}

}  // namespace
