// The host platform's helpers, logging, system channel and device profile.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "boardprofile.h"
#include "child_process.h"
#include "common_utilities/common_utilities.h"
#include "log_capture.h"
#include "moorglass.h"
#include "moorglass_host.h"

namespace {

using qvtest::RunInChild;

std::string Mapped(char* (*mapper)(const char*), const char* text) {
    std::unique_ptr<char, decltype(&std::free)> out(mapper(text), &std::free);
    return out ? out.get() : "<null>";
}

TEST(HostText, CaseMappingFoldsEveryAlphabet) {
    EXPECT_EQ(Mapped(utf_tolower_ext, "ÄÖÜ Straße ÉCOLE"), "äöü straße école");
    EXPECT_EQ(Mapped(utf_toupper_ext, "straße"), "STRASSE");  // one letter, two letters out
    EXPECT_EQ(Mapped(utf_tolower_ext, "ПРИВЕТ, Мир Ёж"), "привет, мир ёж");
    EXPECT_EQ(Mapped(utf_toupper_ext, "ΣΊΣΥΦΟΣ σίσυφος"), "ΣΊΣΥΦΟΣ ΣΊΣΥΦΟΣ");
    EXPECT_EQ(Mapped(utf_tolower_ext, "I"), "i");  // no Turkish rule on a mixed device
    EXPECT_EQ(Mapped(utf_tolower_ext, ""), "");
    EXPECT_EQ(Mapped(utf_tolower_ext, "bad \xC3 byte"), "<null>");
    EXPECT_EQ(Mapped(utf_tolower_ext, nullptr), "<null>");

    // The library's helpers fall back on the text itself.
    EXPECT_EQ(quorvel::utilities::ToLower("ÄPFEL"), "äpfel");
    EXPECT_EQ(quorvel::utilities::ToUpper("ёлка"), "ЁЛКА");
    EXPECT_EQ(quorvel::utilities::ToLower("BAD \xC3"), "BAD \xC3");

    EXPECT_EQ(mg_strcasecmp("Äpfel", "äPFEL"), 0);
    EXPECT_EQ(mg_strcasecmp("МОСКВА", "москва"), 0);
    EXPECT_LT(mg_strcasecmp("apple", "Banana"), 0);
    EXPECT_GT(mg_strcasecmp("apples", "APPLE"), 0);
    EXPECT_EQ(mg_strncasecmp("ÜBERall", "überALLES", std::strlen("ÜBERall")), 0);
    EXPECT_NE(mg_strncasecmp("ÜBERall", "überALLES", 100), 0);
}

TEST(HostText, CodePageConversion) {
    char out[64];
    // "Привет" in Windows-1251, named by its number as the device's settings do.
    EXPECT_EQ(convert_to_utf("\xCF\xF0\xE8\xE2\xE5\xF2", out, sizeof out, "1251"), 12);
    EXPECT_STREQ(out, "Привет");
    EXPECT_GT(convert_to_utf("\xF0\xD2\xC9", out, sizeof out, "KOI8-R"), 0);
    EXPECT_STREQ(out, "При");  // upper and lower case sit the other way round in KOI8
    // Cut to the buffer at a whole character, always terminated.
    char small[6];
    EXPECT_EQ(convert_to_utf("\xCF\xF0\xE8\xE2", small, sizeof small, "1251"), 4);
    EXPECT_STREQ(small, "Пр");
    EXPECT_EQ(convert_to_utf("abc", out, sizeof out, "no-such-code-page"), -1);
    EXPECT_STREQ(out, "");
}

TEST(HostFiles, BuildPathCopyAndDirectories) {
    ASSERT_EQ(mg_buildpath("/mnt/ext1/a/b/c/file.txt"), 0);
    EXPECT_EQ(mg_access("/mnt/ext1/a/b/c", F_OK), 0);
    EXPECT_NE(mg_access("/mnt/ext1/a/b/c/file.txt", F_OK), 0);  // parents only

    std::string big(300000, 'x');
    for (size_t i = 0; i < big.size(); i += 7)
        big[i] = static_cast<char>(i % 256);
    std::ofstream("/mnt/ext1/a/src.bin", std::ios::binary) << big;
    EXPECT_EQ(copy_file("/mnt/ext1/a/src.bin", "/mnt/ext2/dst.bin"), 1);
    std::ifstream in("/mnt/ext2/dst.bin", std::ios::binary);
    std::stringstream copied;
    copied << in.rdbuf();
    EXPECT_EQ(copied.str(), big);
    EXPECT_EQ(copy_file("/mnt/ext1/missing", "/mnt/ext2/x"), 0);
    EXPECT_EQ(copy_file("/mnt/ext1/a", "/mnt/ext2/x"), 0);  // a directory is no file
    EXPECT_EQ(copy_file("/mnt/ext1/a/src.bin", "/mnt/ext2/no/dir/x"), 0);

    EXPECT_EQ(mg_mkdir("/mnt/ext1/a/d", 0755), 0);
    DIR* dir = mg_opendir("/mnt/ext1/a");
    ASSERT_NE(dir, nullptr);
    int entries = 0;
    while (dirent* entry = mg_readdir(dir))
        entries += entry->d_name[0] != '.';
    EXPECT_EQ(entries, 3);  // b, d, src.bin
    EXPECT_EQ(mg_closedir(dir), 0);
    EXPECT_EQ(mg_unlink("/mnt/ext1/a/src.bin"), 0);
    EXPECT_NE(mg_unlink("/mnt/ext1/a/src.bin"), 0);
}

TEST(HostLog, LinesReachTheSinkAndTheFilteredStream) {
    qvtest::LogCapture capture;
    QV_LOG(QV_LOG_TRACE, "trace %d", 5);
    QV_LOG_MODULE(QV_LOG_ERROR, "HttpRequest", "failed %s", "here");
    auto lines = capture.Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].level, 5);
    EXPECT_EQ(lines[0].message, qvtest::PidLine("trace 5"));
    EXPECT_EQ(lines[0].file, "tests/platform/host_platform_test.cpp");
    EXPECT_NE(lines[0].function.find("TestBody"), std::string::npos);
    EXPECT_EQ(lines[1].module, "HttpRequest");

    // On the standard error stream only what the level lets through, with where it came from.
    auto child = RunInChild([] {
        qvhost_set_log_level(QV_LOG_WARNING);
        QV_LOG(QV_LOG_INFO, "hidden info");
        QV_LOG(QV_LOG_WARNING, "shown warning");
        qvhost_set_log_level(QV_LOG_TRACE);
        QV_LOG(QV_LOG_TRACE, "shown trace");
        return g_process_pid == getpid() ? 0 : 1;  // a forked child logs its own pid
    });
    EXPECT_TRUE(child.Succeeded());
    EXPECT_EQ(child.output.find("hidden info"), std::string::npos);
    EXPECT_NE(child.output.find("W "), std::string::npos);
    EXPECT_NE(child.output.find("shown warning"), std::string::npos);
    EXPECT_NE(child.output.find("host_platform_test.cpp:"), std::string::npos);
    EXPECT_NE(child.output.find("shown trace"), std::string::npos);
}

TEST(HostSystemChannel, CommandsAreRecordedForEveryProcess) {
    qvhost_ipc_clear();
    auto child = RunInChild([] { return mg_ipc_cmd(272, 0); });
    ASSERT_TRUE(child.Succeeded());
    EXPECT_EQ(qvhost_ipc_count(272), 1);
    EXPECT_EQ(qvhost_ipc_count(273), 0);

    char buffer[160] = "secret text";
    EXPECT_EQ(mg_ipc_request(260, 0, buffer, 12, sizeof buffer), 0);
    EXPECT_STRNE(buffer, "secret text");
    int enciphered = static_cast<int>(std::strlen(buffer) + 1);
    EXPECT_EQ(mg_ipc_request(261, 0, buffer, enciphered, sizeof buffer), 0);
    EXPECT_STREQ(buffer, "secret text");
    EXPECT_EQ(mg_ipc_request(261, 0, buffer, 200, sizeof buffer), -1);
    EXPECT_EQ(qvhost_ipc_count(260), 1);
    qvhost_ipc_clear();
    EXPECT_EQ(qvhost_ipc_count(272), 0);
}

TEST(HostProfile, DefaultsAndControlsSeenAcrossProcesses) {
    EXPECT_EQ(IsSDinserted(), 0);
    EXPECT_EQ(GetExternalCardSerialNumber(), nullptr);
    EXPECT_EQ(GetCustomizedPartner(), 0);
    EXPECT_NE(std::string(GetDeviceModel()).find_first_of("0123456789"), std::string::npos);
    EXPECT_STRNE(GetSoftwareVersion(), "");
    unsigned long long before = hw_boottime_ms();
    usleep(20000);
    EXPECT_GE(hw_boottime_ms() - before, 20u);

    auto child = RunInChild([] {
        qvhost_set_card_inserted(1);
        qvhost_set_card_serial("0A1B2C3D");
        qvhost_set_partner(13);
        qvhost_set_device_flag(3, 1);
        return 0;
    });
    ASSERT_TRUE(child.Succeeded());
    EXPECT_EQ(IsSDinserted(), 1);
    EXPECT_STREQ(GetExternalCardSerialNumber(), "0A1B2C3D");
    EXPECT_EQ(GetCustomizedPartner(), 13);
    EXPECT_EQ(getDeviceConfigFlag(3), 1);
    EXPECT_EQ(getDeviceConfigFlag(2), 0);

    qvhost_set_card_serial("");
    EXPECT_EQ(IsSDinserted(), 1);
    EXPECT_EQ(GetExternalCardSerialNumber(), nullptr);  // a card whose serial can't be read
    qvhost_set_card_serial("77");
    qvhost_set_card_inserted(0);
    EXPECT_EQ(GetExternalCardSerialNumber(), nullptr);
}

}  // namespace
