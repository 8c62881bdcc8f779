// qvtool download: what a person or a script relies on (the final path, the status line, exit
// codes, and a Ctrl-C that a second run resumes from).

#include <signal.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "child_process.h"
#include "download_test_support.h"
#include "server_process.h"

namespace {

using qvtest::Contains;

using qvtest::ChildResult;
using qvtest::FileUrl;
using qvtest::Sha256OfFile;
using qvtest::Sha256OfPattern;

const std::string kDir = "/mnt/ext1/Downloads";

std::vector<std::string> Command(std::vector<std::string> args) {
    args.insert(args.begin(), {qvtest::BuildProgram("qvtool"), "download"});
    return args;
}

ChildResult Qvtool(std::vector<std::string> args) {
    return qvtest::RunProgram(Command(std::move(args)));
}

class QvtoolDownload : public ::testing::Test {
protected:
    qvtest::HttpTestServer server_;
};

TEST_F(QvtoolDownload, SavesUnderTheGivenOrTheUrlsNameAndSaysWhere) {
    ChildResult named = Qvtool({FileUrl(server_, 71, 300000), kDir, "--name", "book.epub"});
    ASSERT_EQ(named.exit_code, 0) << named.Describe();
    EXPECT_TRUE(Contains(named.output, kDir + "/book.epub\n"));
    EXPECT_TRUE(Contains(named.output, "status 200\n"));
    EXPECT_EQ(Sha256OfFile(kDir + "/book.epub"), Sha256OfPattern(71, 300000));

    ChildResult again = Qvtool({FileUrl(server_, 71, 300000), kDir, "--name", "book.epub"});
    ASSERT_EQ(again.exit_code, 0) << again.Describe();
    EXPECT_TRUE(Contains(again.output, kDir + "/book_1.epub\n"));

    // No name: the URL's last segment, decoded; headers and the cookie go along.
    ChildResult echo =
        Qvtool({server_.Url("/echo?x=1"), kDir, "-H", "X-Shelf: 2", "--cookie", "session=s1"});
    ASSERT_EQ(echo.exit_code, 0) << echo.Describe();
    std::string sent = qvtest::ReadFile(kDir + "/echo");
    EXPECT_TRUE(Contains(sent, "header X-Shelf: 2\n")) << sent;
    EXPECT_TRUE(Contains(sent, "header Cookie: session=s1\n")) << sent;

    ChildResult sync = Qvtool({"--sync", FileUrl(server_, 72, 5000), "/mnt/ext1/Sync"});
    ASSERT_EQ(sync.exit_code, 0) << sync.Describe();
    EXPECT_TRUE(Contains(sync.output, "/mnt/ext1/Sync/5000\n"));
    EXPECT_EQ(Sha256OfFile("/mnt/ext1/Sync/5000"), Sha256OfPattern(72, 5000));
}

TEST_F(QvtoolDownload, CtrlCKeepsTheFilesAndTheSameCommandResumes) {
    const std::vector<std::string> command =
        Command({FileUrl(server_, 73, 1000000, "rate=500000"), kDir, "--name", "slow.bin"});
    qvtest::ChildProcess first = qvtest::ChildProcess::Run(command);
    const std::string record = kDir + "/slow.bin.downloading.progress";
    ASSERT_TRUE(qvtest::Eventually([&] { return qvtest::ReadProgress(record).offset > 100000; }))
        << first.OutputSoFar();
    first.Kill(SIGINT);
    ChildResult stopped = first.Wait();
    EXPECT_EQ(stopped.exit_code, 130) << stopped.Describe();
    EXPECT_TRUE(Contains(stopped.output, "run the same command again to resume"));
    int32_t kept = qvtest::ReadProgress(record).offset;
    EXPECT_GT(kept, 0);
    EXPECT_TRUE(qvtest::Exists(kDir + "/slow.bin.downloading"));

    ChildResult resumed = qvtest::RunProgram(command);
    ASSERT_EQ(resumed.exit_code, 0) << resumed.Describe();
    EXPECT_TRUE(Contains(resumed.output, "resuming slow.bin"));
    EXPECT_TRUE(Contains(resumed.output, "status 206\n"));
    EXPECT_EQ(qvtest::DownloadStat(server_, "last-range"), "bytes=" + std::to_string(kept) + "-");
    EXPECT_EQ(Sha256OfFile(kDir + "/slow.bin"), Sha256OfPattern(73, 1000000));
    EXPECT_FALSE(qvtest::Exists(record));
}

TEST_F(QvtoolDownload, QueueReportsEachItemAndFailuresHaveTheirExitCodes) {
    ChildResult queue = Qvtool({"--queue", FileUrl(server_, 74, 2000), server_.Url("/status/404"),
                                FileUrl(server_, 75, 3000), "--dir", "/mnt/ext1/Queue"});
    EXPECT_EQ(queue.exit_code, 1) << queue.Describe();
    EXPECT_TRUE(Contains(queue.output, "done /mnt/ext1/Queue/2000\n"));
    EXPECT_TRUE(Contains(queue.output, "failed 404 (" + server_.Url("/status/404") + ")\n"));
    EXPECT_TRUE(Contains(queue.output, "done /mnt/ext1/Queue/3000\n"));
    EXPECT_LT(queue.output.find("/Queue/2000"), queue.output.find("/Queue/3000"));

    ChildResult missing = Qvtool({server_.Url("/status/404"), kDir});
    EXPECT_EQ(missing.exit_code, 3) << missing.Describe();
    EXPECT_TRUE(Contains(missing.output, "the server answered 404"));
    EXPECT_FALSE(qvtest::Exists(kDir + "/404.downloading"));

    ChildResult forbidden = Qvtool({server_.Url("/status/403"), kDir, "--sync"});
    EXPECT_EQ(forbidden.exit_code, 1) << forbidden.Describe();
    EXPECT_TRUE(Contains(forbidden.output, "the server answered 403"));

    const std::string closed = "http://127.0.0.1:" + std::to_string(qvtest::ClosedPort());
    ChildResult refused = Qvtool({closed + "/book.epub", kDir});
    EXPECT_EQ(refused.exit_code, 1) << refused.Describe();
    EXPECT_TRUE(Contains(refused.output, "Couldn't connect to server (curl code 7)"));

    EXPECT_EQ(Qvtool({}).exit_code, 2);
    EXPECT_EQ(Qvtool({server_.Url("/echo"), "-H", "no colon"}).exit_code, 2);
    EXPECT_EQ(Qvtool({"--sync", "--queue", server_.Url("/echo")}).exit_code, 2);
    EXPECT_EQ(Qvtool({server_.Url("/echo"), "--name", "a/b"}).exit_code, 2);
    EXPECT_EQ(Qvtool({server_.Url("/echo"), "/mnt/ext1/no/such/dir"}).exit_code, 3);
}

}  // namespace
