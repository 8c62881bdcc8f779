// CountryCodes and LanguageCodes against Debian's iso-codes data, read here independently of the
// generator (Python's json over the same files), and on hand-written tables. Every test case is a
// process of its own, so each loads the singletons afresh from the files it prepared.

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "child_process.h"
#include "common_utilities/countrycodes.h"
#include "common_utilities/languagecodes.h"
#include "log_capture.h"

namespace {

using quorvel::utilities::CountryCodes;
using quorvel::utilities::LanguageCodes;
using Row = std::array<std::string, 4>;

constexpr const char* kCountryFile = "/zelgrot/share/iso-3166-1.txt";
constexpr const char* kLanguageFile = "/zelgrot/share/iso-639-2.txt";

// The iso-codes entries as tab-separated columns, in the data's order.
std::vector<std::vector<std::string>> IsoRows(const std::string& script) {
    qvtest::ChildResult dump = qvtest::RunProgram({"python3", "-c", script});
    EXPECT_EQ(dump.exit_code, 0) << dump.Describe();
    std::vector<std::vector<std::string>> rows;
    std::istringstream lines(dump.output);
    for (std::string line; std::getline(lines, line);) {
        std::vector<std::string> fields;
        std::istringstream cells(line);
        for (std::string cell; std::getline(cells, cell, '\t');)
            fields.push_back(cell);
        fields.resize(4);
        rows.push_back(fields);
    }
    return rows;
}

// Our FIPS table: alpha-2 -> FIPS code, "" where FIPS has none.
std::map<std::string, std::string> FipsTable() {
    std::map<std::string, std::string> fips;
    std::ifstream file(QV_FIPS_TABLE);
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line.substr(0, line.find('#')));
        std::string alpha2, code;
        if (words >> alpha2 >> code) fips[alpha2] = code == "-" ? "" : code;
    }
    return fips;
}

std::vector<Row> ExpectedCountries() {
    const auto fips = FipsTable();
    std::vector<Row> rows;
    for (const auto& iso : IsoRows(
             "import json\n"
             "for c in json.load(open('/usr/share/iso-codes/json/iso_3166-1.json'))['3166-1']:\n"
             "    print(c['alpha_2'], c['alpha_3'], c['numeric'], sep='\\t')\n")) {
        EXPECT_EQ(fips.count(iso[0]), 1u) << "the FIPS table lacks " << iso[0];
        rows.push_back({fips.count(iso[0]) ? fips.at(iso[0]) : "", iso[0], iso[1], iso[2]});
    }
    return rows;
}

std::vector<Row> ExpectedLanguages() {
    std::vector<Row> rows;
    for (const auto& iso : IsoRows(
             "import json\n"
             "for l in json.load(open('/usr/share/iso-codes/json/iso_639-2.json'))['639-2']:\n"
             "    print(l.get('bibliographic', l['alpha_3']), l['alpha_3'], l.get('alpha_2', ''),\n"
             "          l['name'], sep='\\t')\n"))
        rows.push_back({iso[0], iso[1], iso[2], iso[3]});
    return rows;
}

std::string Swapped(std::string text) {
    for (char& c : text)
        c = static_cast<char>(std::isupper(static_cast<unsigned char>(c)) ? std::tolower(c)
                                                                          : std::toupper(c));
    return text;
}

// For every column pair, every row's code (as stored and, for codes, in the other case) finds
// the `to` column of the first row holding that code.
template <typename Find>
void CheckEveryDirection(const std::vector<Row>& rows, Find find, int code_columns) {
    for (int from = 0; from < 4; ++from) {
        std::map<std::string, const Row*> first;
        for (const auto& row : rows)
            first.emplace(row[from], &row);
        for (const auto& [code, row] : first) {
            if (code.empty()) continue;
            for (int to = 0; to < 4; ++to) {
                ASSERT_EQ(find(from, code, to), (*row)[to]) << code << " " << from << "->" << to;
                if (from < code_columns && Swapped(code) != code) {
                    ASSERT_EQ(find(from, Swapped(code), to), (*row)[to]) << Swapped(code);
                }
            }
        }
    }
}

// The table holds the rows in order, and nothing past them.
template <typename Table>
void CheckRowsInOrder(const Table& table, const std::vector<Row>& rows) {
    using Code = typename Table::eCode;
    for (unsigned i = 0; i < rows.size(); ++i) {
        for (int c = 0; c < 4; ++c)
            ASSERT_EQ(table.GetCode(Code(c), i), rows[i][c]) << "row " << i;
    }
    EXPECT_EQ(table.GetCode(Code(1), static_cast<unsigned>(rows.size())), "");
    EXPECT_EQ(table.GetCode(Code(4), 0), "");
}

TEST(CodeTables, CountriesAgreeWithTheIsoDataInEveryDirection) {
    const auto rows = ExpectedCountries();
    ASSERT_GT(rows.size(), 240u);
    auto& table = CountryCodes::GetInstance();
    CheckRowsInOrder(table, rows);

    CheckEveryDirection(
        rows,
        [&](int from, const std::string& code, int to) {
            return table.FindCode(CountryCodes::eCode(from), code, CountryCodes::eCode(to));
        },
        4);

    // The shortcuts, each on every country, its code in lower case.
    using Shortcut = std::string (*)(const std::string&);
    const std::map<std::pair<int, int>, Shortcut> shortcuts{
        {{1, 0}, CountryCodes::GetFipsFromAlpha2},
        {{2, 0}, CountryCodes::GetFipsFromAlpha3},
        {{3, 0}, CountryCodes::GetFipsFromNumeric3},
        {{0, 1}, CountryCodes::GetAlpha2FromFips},
        {{2, 1}, CountryCodes::GetAlpha2FromAlpha3},
        {{3, 1}, CountryCodes::GetAlpha2FromNumeric3},
        {{0, 2}, CountryCodes::GetAlpha3FromFips},
        {{1, 2}, CountryCodes::GetAlpha3FromAlpha2},
        {{3, 2}, CountryCodes::GetAlpha3FromNumeric3},
        {{0, 3}, CountryCodes::GetNumeric3FromFips},
        {{1, 3}, CountryCodes::GetNumeric3FromAlpha2},
        {{2, 3}, CountryCodes::GetNumeric3FromAlpha3}};
    ASSERT_EQ(shortcuts.size(), 12u);
    for (const auto& row : rows) {
        for (const auto& [pair, shortcut] : shortcuts) {
            if (row[pair.first].empty()) continue;
            EXPECT_EQ(shortcut(Swapped(row[pair.first])), row[pair.second]) << row[pair.first];
        }
    }

    // FIPS and alpha-2 mean different countries by the same letters.
    EXPECT_EQ(CountryCodes::GetAlpha2FromFips("GM"), "DE");
    EXPECT_EQ(CountryCodes::GetFipsFromAlpha2("GM"), "GA");
    EXPECT_EQ(CountryCodes::GetAlpha2FromAlpha3("ukr"), "UA");
    // A code in any case finds its upper-case entry; unknown codes find nothing; an empty code
    // finds the first row without FIPS.
    EXPECT_EQ(CountryCodes::GetAlpha2FromAlpha3("uKr"), "UA");
    EXPECT_EQ(CountryCodes::GetAlpha2FromAlpha3("ZZZ"), "");
    EXPECT_EQ(CountryCodes::GetNumeric3FromAlpha2("4"), "");
    for (const auto& row : rows) {
        if (!row[0].empty()) continue;
        EXPECT_EQ(CountryCodes::GetAlpha2FromFips(""), row[1]);
        break;
    }
}

TEST(CodeTables, LanguagesAgreeWithTheIsoDataInEveryDirection) {
    const auto rows = ExpectedLanguages();
    ASSERT_GT(rows.size(), 480u);
    CheckRowsInOrder(LanguageCodes::GetInstance(), rows);
    // Names match as written only: their case is neither all upper nor all lower.
    CheckEveryDirection(
        rows,
        [](int from, const std::string& code, int to) {
            return LanguageCodes::FindCode(LanguageCodes::eCode(from), code,
                                           LanguageCodes::eCode(to));
        },
        3);
    EXPECT_EQ(LanguageCodes::FindCode(LanguageCodes::eAlpha3Bibliographic, "GER",
                                      LanguageCodes::eAlpha3Terminology),
              "deu");
    EXPECT_EQ(LanguageCodes::FindCode(LanguageCodes::eAlpha2, "De", LanguageCodes::eName),
              "German");
    EXPECT_EQ(LanguageCodes::FindCode(LanguageCodes::eAlpha2, "xx", LanguageCodes::eName), "");
    EXPECT_EQ(LanguageCodes::FindCode(LanguageCodes::eName, "german", LanguageCodes::eAlpha2), "");
}

TEST(CodeTables, MissingFilesAreLoggedAndAnswerEmpty) {
    ::unlink(kCountryFile);
    ::unlink(kLanguageFile);
    qvtest::LogCapture log;
    EXPECT_EQ(CountryCodes::GetAlpha2FromAlpha3("DEU"), "");
    EXPECT_EQ(CountryCodes::GetInstance().GetCode(CountryCodes::eAlpha2, 0), "");
    EXPECT_EQ(LanguageCodes::FindCode(LanguageCodes::eAlpha2, "de", LanguageCodes::eName), "");
    EXPECT_TRUE(
        log.Has(1, qvtest::PidLine("Can't find or parse file " + std::string(kCountryFile))));
    EXPECT_TRUE(
        log.Has(1, qvtest::PidLine("Can't find or parse file " + std::string(kLanguageFile))));
    // Loaded once: asking again does not read (nor log) again.
    log.Clear();
    EXPECT_EQ(CountryCodes::GetFipsFromAlpha2("DE"), "");
    EXPECT_TRUE(log.Messages().empty());
}

TEST(CodeTables, CommentsAndBrokenLinesAreSkipped) {
    std::ofstream(kCountryFile) << "# FIPS,alpha-2,alpha-3,numeric,\n"
                                   "GM,DE,DEU,276,Germany, with, commas,\n"
                                   "\n"
                                   "UK,GB,GBR,826\n"
                                   "short,line\n"
                                   ",XE,XEE,999,\n"
                                   "AB,Cd,EFG,111,\r\n"
                                   " #,XC,XCC,998,\n";
    std::ofstream(kLanguageFile) << "#ger|deu|de|German|\n"
                                    "eng|eng|en|English\n"
                                    "fre|fra|fr|French|French again|\n";
    auto& countries = CountryCodes::GetInstance();
    EXPECT_EQ(countries.GetCode(CountryCodes::eAlpha2, 0), "DE");
    EXPECT_EQ(countries.GetCode(CountryCodes::eAlpha2, 1), "XE");
    EXPECT_EQ(countries.GetCode(CountryCodes::eNumeric3, 2), "111");
    EXPECT_EQ(countries.GetCode(CountryCodes::eFips, 3), " #");
    EXPECT_EQ(countries.GetCode(CountryCodes::eFips, 4), "");
    EXPECT_EQ(CountryCodes::GetFipsFromAlpha2("GB"), "");       // three commas: skipped
    EXPECT_EQ(CountryCodes::GetAlpha2FromFips(""), "XE");       // first empty FIPS column
    EXPECT_EQ(CountryCodes::GetAlpha3FromAlpha2("Cd"), "EFG");  // exactly as stored
    EXPECT_EQ(CountryCodes::GetAlpha3FromAlpha2("cd"), "");
    EXPECT_EQ(CountryCodes::GetAlpha3FromAlpha2("CD"), "");

    EXPECT_EQ(LanguageCodes::FindCode(LanguageCodes::eAlpha2, "de", LanguageCodes::eName), "");
    EXPECT_EQ(LanguageCodes::FindCode(LanguageCodes::eAlpha2, "en", LanguageCodes::eName), "");
    EXPECT_EQ(LanguageCodes::FindCode(LanguageCodes::eAlpha2, "FR", LanguageCodes::eName),
              "French");
    EXPECT_EQ(LanguageCodes::GetInstance().GetCode(LanguageCodes::eName, 1), "");
}

}  // namespace
