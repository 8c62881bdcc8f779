// UserAgentConfig against real configuration files of the sandbox and the host platform's
// device profile and screen; GenerateUUID's form and its randomness across processes.

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <utility>

#include "child_process.h"
#include "common_utilities/user_agent_config.h"
#include "log_capture.h"
#include "moorglass_host.h"

namespace {

using quorvel::utilities::GenerateUUID;
using quorvel::utilities::UserAgentConfig;

constexpr const char* kRuntimeFile = "/var/run/device.cfg";
constexpr const char* kShippedFile = "/zelgrot/config/device.cfg";
constexpr const char* kGlobalFile = "/mnt/ext1/system/config/global.cfg";

void WriteFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::trunc) << text;
}

bool Exists(const std::string& path) {
    return std::ifstream(path).good();
}

TEST(UserAgentConfig, ChoosesTheTemplateByHostFragmentThenTheDefaults) {
    WriteFile(kShippedFile, "useragent_browser_default=shipped\nuseragent_store_default=S\n");
    WriteFile(kRuntimeFile,
              "# written at start-up\n"
              "useragent_browser_store=store-ua\n"
              "useragent_browser_api=api-ua\n"
              "useragent_browser_a.b=x=y\n"
              "useragent_browser_pad= blanks kept \n"
              "useragent_browser\n"
              "useragent_browser_noequals\n"
              "useragent_browserish=other type\n"
              "useragent_store_books=store type\n"
              " useragent_browser_lead=indented\n");

    qvtest::LogCapture log;
    UserAgentConfig browser("browser", "");
    EXPECT_TRUE(log.Has(QV_LOG_INFO, qvtest::PidLine("Open file /var/run/device.cfg")));
    EXPECT_TRUE(log.Has(QV_LOG_INFO, qvtest::PidLine("AddUserAgentConfig [a.b]=[x=y]")));
    EXPECT_FALSE(log.HasFragment(0, "noequals"));

    // The first fragment in sorted order wins, not the longest or the first in the file.
    EXPECT_EQ(browser.userAgentForHost("api.store.invalid"), "api-ua");
    EXPECT_EQ(browser.userAgentForHost("books.store.invalid"), "store-ua");
    EXPECT_EQ(browser.userAgentForHost("a.b.example"), "x=y");
    EXPECT_EQ(browser.userAgentForHost("pad"), " blanks kept ");
    // Neither other types' lines, nor lines that only resemble the prefix, take part.
    EXPECT_EQ(browser.userAgentForHost("books.example"), "shipped");
    EXPECT_EQ(browser.userAgentForHost("lead.example"), "shipped");
    EXPECT_EQ(browser.userAgentForHost("ish"), "shipped");

    // A runtime default beats the shipped one (and, as any key, matches as a fragment too);
    // adding a fragment again replaces it; an empty fragment matches every host.
    WriteFile(kRuntimeFile, "useragent_browser_default=runtime\nuseragent_browser_api=api-ua\n");
    UserAgentConfig with_default("browser", "");
    EXPECT_EQ(with_default.userAgentForHost("elsewhere"), "runtime");
    EXPECT_EQ(with_default.userAgentForHost("api.default.example"), "api-ua");
    with_default.AddUserAgentConfig("api", "replaced");
    EXPECT_TRUE(log.Has(QV_LOG_INFO, qvtest::PidLine("AddUserAgentConfig [api]=[replaced]")));
    EXPECT_EQ(with_default.getTemplateForHost("api.example"), "replaced");
    with_default.AddUserAgentConfig("", "catch-all");
    EXPECT_EQ(with_default.userAgentForHost("api.example"), "catch-all");

    // Nothing anywhere: an empty user agent; no file is made by looking.
    std::remove(kRuntimeFile);
    std::remove(kShippedFile);
    log.Clear();
    UserAgentConfig bare("browser", "");
    EXPECT_EQ(bare.userAgentForHost("any.host"), "");
    EXPECT_FALSE(log.HasFragment(0, "Open file"));
    EXPECT_FALSE(Exists(kShippedFile));
}

TEST(UserAgentConfig, FillsPlaceholdersFromTheDeviceAtConstruction) {
    qvhost_set_software_version("7.1.2.345");
    qvhost_set_device_model("Quorvel InkPad 1040 Lite 2");
    qvhost_set_screen_size(1404, 1872);
    WriteFile(kGlobalFile, "language=gr\n");
    WriteFile(kRuntimeFile,
              "useragent_browser_default=Q/[fw] ([device_name]; [resolution]; [locale]) "
              "E/[webengine_ver] [fw] [unknown] [fw\n");

    UserAgentConfig config("browser", "5.15.2");
    EXPECT_EQ(config.userAgentForHost("store.example"),
              "Q/7.1.2.345 (1040; 1404x1872; ka_GE) E/5.15.2 7.1.2.345 [unknown] [fw");
    EXPECT_EQ(config.SubstituteTemplateParameters("plain text"), "plain text");

    // Taken once: later changes of the device don't reach this object, but a new one sees them.
    qvhost_set_screen_size(758, 1024);
    EXPECT_EQ(config.SubstituteTemplateParameters("[resolution]"), "1404x1872");
    EXPECT_EQ(UserAgentConfig("browser", "").SubstituteTemplateParameters("[resolution]"),
              "758x1024");
}

TEST(UserAgentConfig, ValuesAreNotScannedAgainForTheirOwnPlaceholder) {
    // A value holding its own placeholder must neither loop nor grow; one holding a placeholder
    // later in sorted order is filled in its turn, one earlier stays as it is.
    qvhost_set_software_version("[resolution]-[fw]");
    qvhost_set_device_model("M1");
    qvhost_set_screen_size(600, 800);
    UserAgentConfig config("browser", "[device_name]");
    EXPECT_EQ(config.SubstituteTemplateParameters("[fw]|[fw]|[webengine_ver]"),
              "600x800-[fw]|600x800-[fw]|[device_name]");
}

TEST(UserAgentConfig, ModelNumberIsTheFirstRunOfDigits) {
    const std::pair<const char*, const char*> cases[] = {
        {"ABC123-4", "123"}, {"X", ""},  {"Quorvel 740 Host", "740"},
        {"Model 12", "12"},  {"9", "9"}, {"", ""},
    };
    for (const auto& [model, number] : cases) {
        qvhost_set_device_model(model);
        EXPECT_EQ(UserAgentConfig::GetModelNumber(), number) << "model '" << model << "'";
    }
}

TEST(UserAgentConfig, InterfaceLanguageIsReadOnceAndMappedExactly) {
    EXPECT_EQ(UserAgentConfig::languageToLayout("gr"), "ka_GE");
    EXPECT_EQ(UserAgentConfig::languageToLayout("el"), "el_GR");
    EXPECT_EQ(UserAgentConfig::languageToLayout("zh"), "zh_CN");
    for (const char* unknown : {"EN", "pt_BR", "e", "", "xx"})
        EXPECT_EQ(UserAgentConfig::languageToLayout(unknown), "") << unknown;

    // No global settings yet: the platform's default, and the file is left alone.
    ASSERT_FALSE(Exists(kGlobalFile));
    EXPECT_EQ(UserAgentConfig::getConfigInterfaceLanguage(), "en");
    EXPECT_FALSE(Exists(kGlobalFile));
    WriteFile(kGlobalFile, "language=de\n");
    EXPECT_EQ(UserAgentConfig::getConfigInterfaceLanguage(), "en");
    EXPECT_EQ(UserAgentConfig::browserLangString(), "en_US");
}

TEST(UserAgentConfig, ReadsShippedValuesWithoutSavingThem) {
    WriteFile(kShippedFile, "useragent_store_default= spaced \ncount=12\n");
    EXPECT_EQ(UserAgentConfig::readFromConfig<std::string>(kShippedFile, "useragent_store_default",
                                                           "none"),
              " spaced ");
    EXPECT_EQ(UserAgentConfig::readFromConfig(kShippedFile, "count", 0), 12);
    EXPECT_EQ(UserAgentConfig::readFromConfig<std::string>("/zelgrot/config/no.cfg", "k", "d"),
              "d");
    EXPECT_FALSE(Exists("/zelgrot/config/no.cfg"));
}

// ---- GenerateUUID ---------------------------------------------------------------------------

std::set<std::string> Uuids(int count) {
    std::set<std::string> uuids;
    for (int i = 0; i < count; ++i)
        uuids.insert(GenerateUUID());
    return uuids;
}

TEST(GenerateUUID, IsARandomVersion4UuidInLowerCase) {
    const std::regex form("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
    constexpr int kCount = 10000;
    std::set<std::string> uuids = Uuids(kCount);
    EXPECT_EQ(uuids.size(), static_cast<size_t>(kCount));
    int ones[128] = {};
    for (const auto& uuid : uuids) {
        ASSERT_TRUE(std::regex_match(uuid, form)) << uuid;
        int bit = 0;
        for (char c : uuid) {
            if (c == '-') continue;
            int digit = c <= '9' ? c - '0' : c - 'a' + 10;
            for (int shift = 3; shift >= 0; --shift)
                ones[bit++] += (digit >> shift) & 1;
        }
    }
    // Every bit outside the version and variant fields is set about half the time: a generator
    // that leaves bytes unfilled, or fills them from a weak source, shows here.
    for (int bit = 0; bit < 128; ++bit) {
        bool fixed = (bit >= 48 && bit < 52) || bit == 64 || bit == 65;
        if (fixed) continue;
        EXPECT_NEAR(ones[bit], kCount / 2, kCount / 20) << "bit " << bit;
    }
}

TEST(GenerateUUID, ForkedProcessesDoNotRepeatEachOther) {
    // Any state of the generator is made before the fork, so that a child inheriting it would
    // replay the parent's sequence.
    GenerateUUID();
    constexpr int kCount = 200;
    auto child = qvtest::ChildProcess::Start([] {
        for (const auto& uuid : Uuids(kCount))
            std::printf("%s\n", uuid.c_str());
        return 0;
    });
    std::set<std::string> mine = Uuids(kCount);
    auto result = child.Wait();
    ASSERT_TRUE(result.Succeeded()) << result.Describe();

    std::istringstream lines(result.output);
    std::string line;
    int theirs = 0;
    while (std::getline(lines, line)) {
        ++theirs;
        EXPECT_EQ(mine.count(line), 0u) << "the child repeated " << line;
    }
    EXPECT_EQ(theirs, kCount);
}

}  // namespace
