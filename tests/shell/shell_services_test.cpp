// The small services around the shell: the screen update rule, the XML parser, error texts,
// human sizes and dates, theme values, the file type tables.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <map>
#include <sstream>

#include "child_process.h"
#include "common_utilities/adobe_scanner.h"
#include "common_utilities/expat_parser.h"
#include "common_utilities/file_type.h"
#include "common_utilities/human_string_utility.h"
#include "common_utilities/qv_update.h"
#include "common_utilities/theme.h"
#include "log_capture.h"
#include "moorglass_host.h"

namespace {

using namespace quorvel::utilities;

std::vector<std::string> DisplayLog() {
    std::vector<std::string> lines;
    std::ifstream in(qvhost_display_log_path());
    std::string line;
    while (std::getline(in, line))
        lines.push_back(line);
    return lines;
}

void SetGlobal(const std::string& text) {
    std::ofstream("/mnt/ext1/system/config/global.cfg") << text;
}

// The types of `count` updates in a fresh process whose global.cfg says `invertupdate`, as
// letters: F full, P partial.
std::string UpdateTypes(const std::string& invertupdate, int count, bool full_at = false) {
    SetGlobal(invertupdate.empty() ? "" : "invertupdate=" + invertupdate + "\n");
    auto result = qvtest::RunInChild([count, full_at] {
        std::string types;
        for (int i = 0; i < count; ++i) {
            if (full_at && i == 2) QVUpdate::Instance().MakeNextUpdateFull();
            types += QVUpdate::Instance().DoNextUpdate(false, false) == 0 ? 'F' : 'P';
        }
        std::printf("%s", types.c_str());
        return 0;
    });
    return result.output;
}

TEST(ScreenUpdates, EveryNthUpdateIsFull) {
    EXPECT_EQ(UpdateTypes("", 8), "FPPPPFPP") << "5 by default, starting with a full one";
    EXPECT_EQ(UpdateTypes("3", 7), "FPPFPPF");
    EXPECT_EQ(UpdateTypes("1", 3), "FFF");
    EXPECT_EQ(UpdateTypes("0", 5), "PPPPP") << "0 never asks for a full update by itself";
    EXPECT_EQ(UpdateTypes("0", 5, true), "PPFPP");
    EXPECT_EQ(UpdateTypes("3", 6, true), "FPFPPF") << "a forced full one starts the count anew";
}

TEST(ScreenUpdates, UpdatesReachTheDisplay) {
    qvhost_set_screen_size(1072, 1448);
    qvhost_set_panel_height(40);
    SetGlobal("invertupdate=4\n");
    QVUpdate& update = QVUpdate::Instance();
    EXPECT_EQ(update.GetFullupdateAfterCount(), 4);
    EXPECT_EQ(update.DoNextUpdate(false, true), 0);
    EXPECT_EQ(update.DoNextUpdate(false, false), 1);
    qvhost_set_panel_height(0);
    EXPECT_EQ(update.DoNextUpdate(false, false), 1);
    EXPECT_EQ(update.DoNextUpdate(true, false), 0);
    update.IncreaseUpdate();
    update.IncreaseUpdate();
    update.IncreaseUpdate();
    EXPECT_EQ(update.GetNextUpdateType(), 0) << "updates the application made itself count";
    update.SetFullupdateAfterCount(2);
    EXPECT_EQ(update.GetNextUpdateType(), 1) << "a count past the new limit starts again";
    EXPECT_EQ(update.IsImageOnScreenAnalyzer(), 0);
    EXPECT_EQ(DisplayLog(), (std::vector<std::string>{"full-hq", "partial-hq 0 0 1072 1408",
                                                      "partial 0 1408 1072 40",
                                                      "partial-hq 0 0 1072 1448", "full"}));
}

// Records what the parser hands over, as text.
class Recorder : public IParser {
public:
    std::string seen;
    void reset() override { seen += "reset;"; }
    void startElement(const std::string& name, const Attributes& attributes) override {
        seen += "<" + name;
        std::map<std::string, std::string> sorted(attributes.begin(), attributes.end());
        for (const auto& a : sorted)
            seen += " " + a.first + "=" + a.second;
        seen += ">";
    }
    void endElement(const std::string& name) override { seen += "</" + name + ">"; }
    void characterData(const std::string& text) override { seen += text; }
};

TEST(ExpatParser, ParsesInPiecesAndInSeveralEncodings) {
    Recorder recorder;
    ExpatParser parser(&recorder);
    parser.init(nullptr);
    std::string doc =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?><a x=\"1\" y=\"\xc3\xa9\">K\xc3\xb6ln<b/></a>";
    for (size_t i = 0; i < doc.size(); i += 7) {
        ASSERT_TRUE(parser.parse(doc.data() + i,
                                 static_cast<unsigned>(std::min<size_t>(7, doc.size() - i))));
    }
    std::string text;
    for (size_t i = recorder.seen.find('>') + 1; i < recorder.seen.size(); ++i) {
        if (recorder.seen[i] == '<') break;
        text += recorder.seen[i];
    }
    EXPECT_EQ(text, "K\xc3\xb6ln") << "text may come in several calls, together it is whole";
    EXPECT_EQ(recorder.seen, "reset;<a x=1 y=\xc3\xa9>K\xc3\xb6ln<b></b></a>");

    recorder.seen.clear();
    parser.init("ISO-8859-1");
    std::string latin =
        "<t>Stra\xdf"
        "e</t>";
    EXPECT_TRUE(parser.parse(latin.data(), static_cast<unsigned>(latin.size())));
    EXPECT_EQ(recorder.seen,
              "reset;<t>Stra\xc3\x9f"
              "e</t>")
        << "Latin-1 arrives as UTF-8";

    recorder.seen.clear();
    parser.init(nullptr);
    std::string unknown = "<?xml version=\"1.0\" encoding=\"X-NOWHERE\"?><t>x</t>";
    EXPECT_FALSE(parser.parse(unknown.data(), static_cast<unsigned>(unknown.size())));
    EXPECT_EQ(recorder.seen, "reset;");

    parser.init(nullptr);
    EXPECT_FALSE(parser.parse("<a></b>", 7)) << "malformed";
    ExpatParser without(nullptr);
    without.init(nullptr);
    EXPECT_FALSE(without.parse("<a/>", 4));
}

TEST(AdobeErrors, TranslatedWhereTheInterfaceKnowsTheCode) {
    EXPECT_EQ(ConvertAdobeError("failed _ADEPT_CORE_EXPIRED http://x"),
              "The loan period of this book has ended.");
    EXPECT_EQ(ConvertAdobeError("_UNKNOWN_THING AUTHNOTREADY _ADEPT_NO_TOKEN"),
              "Sign in to your reading account first.")
        << "the first code with a translation wins";
    EXPECT_EQ(ConvertAdobeError("E_ADEPT_CORE_EXPIRED"), "E_ADEPT_CORE_EXPIRED")
        << "inner underscores make no code";
    EXPECT_EQ(ConvertAdobeError("ZIPEXPIRED"), "ZIPEXPIRED") << "Z is not a code letter";
    EXPECT_EQ(ConvertAdobeError("SHORTONE"), "SHORTONE");
    EXPECT_EQ(ConvertAdobeError("no code in here"), "no code in here");
    EXPECT_EQ(ConvertAdobeError(""), "");
}

TEST(HumanStrings, SizesAndDates) {
    char out[80];
    auto size = [&out](unsigned long long count, unsigned long long unit) {
        HumanStringUtility::HumanSize(out, count, unit);
        return std::string(out);
    };
    EXPECT_EQ(size(999, 1), "999 bytes");
    EXPECT_EQ(size(1536, 1), "1.5 KB");
    EXPECT_EQ(size(1000, 1), "0.9 KB") << "cut, not rounded";
    EXPECT_EQ(size(100000, 1), "97 KB");
    EXPECT_EQ(size(1000, 1024), "0.9 MB");
    EXPECT_EQ(size(25, 4096), "100 KB") << "blocks of a file system";
    EXPECT_EQ(size(100000000, 1), "95 MB");
    EXPECT_EQ(size(5ULL << 30, 1), "5120 MB");

    ::setenv("TZ", "UTC", 1);
    ::tzset();
    HumanStringUtility::HumanDate(out, 1700000000);  // 2023-11-14 22:13:20 UTC
    EXPECT_EQ(std::string(out), "11/14/2023  22:13");
}

TEST(Theme, FloatValues) {
    using quorvel::system::Theme;
    EXPECT_FLOAT_EQ(Theme::GetFloat("shelf.cover.spacing", 1.5f), 0.12f);
    EXPECT_FLOAT_EQ(Theme::GetFloat("no.such.key", 1.5f), 1.5f);
    EXPECT_EQ(GetThemeInt("cover.cache.image_width", 0), 165);
}

TEST(FileTypes, UserTableOverridesTheSystemTable) {
    std::ofstream("/mnt/ext1/system/config/extensions.cfg")
        << "pdf:myviewer.app:1:ICON_MINE:My PDF\n"
        << "xyz::prog:::1:ICON_X:Mine\n"  // runs of ':' count as one
        << "short:a:1:b\n"                // four fields: nothing
        << "cbz:comics.app:7:ICON:C";     // no line end on the last line
    FileTypeManager types;
    EXPECT_EQ(types.LoadTypesInfo(), 0);
    FileType pdf = types.GetFileTypeByFilename("/mnt/ext1/Books/Report.PDF");
    EXPECT_EQ(pdf.extension, "pdf");
    EXPECT_EQ(pdf.program, "myviewer.app");
    EXPECT_EQ(pdf.icon, "ICON_MINE");
    EXPECT_EQ(pdf.description, "My PDF\n") << "the last field keeps the line end";
    EXPECT_EQ(types.GetFileTypeByExt("xyz").type, 1);
    EXPECT_EQ(types.GetFileTypeByExt("cbz").type, 7);
    EXPECT_EQ(types.GetFileTypeByExt("cbz").description, "C");
    EXPECT_EQ(types.GetFileTypeByExt("short").extension, "");
    EXPECT_EQ(types.GetFileTypeByExt("JPG").type, 2) << "the system's table fills in the rest";
    EXPECT_EQ(types.GetFileTypeByExt("epub").program, "reader.app");
    EXPECT_EQ(types.GetFileTypeByFilename("name.").extension, "");
    EXPECT_EQ(types.GetFileTypeByFilename("noextension").extension, "");

    auto extensions = types.GetExtensions();
    EXPECT_TRUE(std::is_sorted(extensions.begin(), extensions.end()));
    EXPECT_EQ(std::count(extensions.begin(), extensions.end(), "pdf"), 1);

    qvtest::LogCapture log;
    FileTypeManager none;
    EXPECT_EQ(none.LoadTypesInfo("/mnt/ext1/missing.cfg"), QV_TIMEOUT);
    EXPECT_TRUE(none.GetExtensions().empty());
    EXPECT_TRUE(log.Has(3, qvtest::PidLine("not found '/mnt/ext1/missing.cfg'")));
    char empty[] = ":::";
    EXPECT_EQ(none.ParseExtentionInfo(empty), -1);
}

}  // namespace
