// qvtool useragent and uuid: what a person or a script relies on (output and exit codes).

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "child_process.h"

namespace {

using qvtest::Qvtool;
using qvtest::Contains;

using qvtest::ChildResult;

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

TEST(QvtoolUserAgent, ShippedDefaultsAreCompleteUserAgents) {
    // Every client type the device ships a default for comes out filled: no placeholder left.
    std::ifstream shipped("/zelgrot/config/device.cfg");
    ASSERT_TRUE(shipped.good()) << "the device image ships no /zelgrot/config/device.cfg";
    const std::regex key("useragent_(\\w+)_default=.*");
    int types = 0;
    for (std::string line; std::getline(shipped, line);) {
        std::smatch match;
        if (!std::regex_match(line, match, key)) continue;
        ++types;
        ChildResult ua = Qvtool({"useragent", "--webengine", "5.15", match[1], "any.host"});
        ASSERT_EQ(ua.exit_code, 0) << ua.Describe();
        EXPECT_FALSE(Contains(ua.output, "[")) << ua.output;
        EXPECT_TRUE(Contains(ua.output, "6.8.1.host")) << ua.output;
    }
    EXPECT_GE(types, 1);
}

TEST(QvtoolUserAgent, PrintsTheFilledTemplateForTheHost) {
    std::ofstream("/var/run/device.cfg")
        << "useragent_reader_store=Reader/[fw] ([device_name]; [resolution]; [locale]) "
           "E/[webengine_ver]\n"
           "useragent_reader_api=Api/[fw]\n";
    std::ofstream("/mnt/ext1/system/config/global.cfg") << "language=uk\n";

    ChildResult store =
        Qvtool({"useragent", "--webengine", "5.15", "reader", "https://books.store.example/x"});
    ASSERT_EQ(store.exit_code, 0) << store.Describe();
    EXPECT_EQ(store.output, "Reader/6.8.1.host (740; 1072x1448; uk_UA) E/5.15\n");

    ChildResult api = Qvtool({"useragent", "reader", "api.store.example"});
    EXPECT_EQ(api.output, "Api/6.8.1.host\n") << api.Describe();
    ChildResult raw = Qvtool({"useragent", "--template", "reader", "api.store.example"});
    EXPECT_EQ(raw.output, "Api/[fw]\n") << raw.Describe();

    // Nothing configured: exit 3 and a message that names what was asked.
    ChildResult none = Qvtool({"useragent", "reader", "elsewhere.example"});
    EXPECT_EQ(none.exit_code, 3) << none.Describe();
    EXPECT_TRUE(Contains(none.output, "type 'reader' and host 'elsewhere.example'")) << none.output;

    EXPECT_EQ(Qvtool({"useragent", "reader"}).exit_code, 2);
    EXPECT_EQ(Qvtool({"useragent", "", "host"}).exit_code, 2);
    EXPECT_EQ(Qvtool({"useragent", "a=b", "host"}).exit_code, 2);
    EXPECT_EQ(Qvtool({"useragent", "reader", "host", "extra"}).exit_code, 2);
}

TEST(QvtoolUuid, PrintsDistinctUuidsOnePerLine) {
    const std::regex form("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
    ChildResult one = Qvtool({"uuid"});
    ASSERT_EQ(one.exit_code, 0) << one.Describe();
    ASSERT_EQ(Lines(one.output).size(), 1u) << one.output;
    EXPECT_TRUE(std::regex_match(Lines(one.output)[0], form)) << one.output;

    ChildResult many = Qvtool({"uuid", "--count", "50"});
    ASSERT_EQ(many.exit_code, 0) << many.Describe();
    std::vector<std::string> lines = Lines(many.output);
    EXPECT_EQ(lines.size(), 50u);
    EXPECT_EQ(std::set<std::string>(lines.begin(), lines.end()).size(), 50u);
    EXPECT_EQ(std::set<std::string>(lines.begin(), lines.end()).count(Lines(one.output)[0]), 0u);

    for (const char* bad : {"0", "-3", "x", "1000001"})
        EXPECT_EQ(Qvtool({"uuid", "--count", bad}).exit_code, 2) << bad;
    EXPECT_EQ(Qvtool({"uuid", "extra"}).exit_code, 2);
}

}  // namespace
