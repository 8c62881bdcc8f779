// qvtool country and language: the device's code tables, translated as applications ask them.

#include <iostream>
#include <string>
#include <vector>

#include "cli.h"
#include "common_utilities/countrycodes.h"
#include "common_utilities/languagecodes.h"

namespace qvtool {
namespace {

using quorvel::utilities::CountryCodes;
using quorvel::utilities::LanguageCodes;

// One code system of a table: its name on the command line, its title in the output.
struct Column {
    const char* name;
    const char* title;
};

struct Table {
    const char* noun;             // "country"
    const char* path;             // the device's file
    std::vector<Column> columns;  // in the order of the table's eCode
    std::string (*find)(int from, const std::string& code, int to);
    std::string (*cell)(int column, unsigned row);
};

const Table kCountries{
    "country",
    "/zelgrot/share/iso-3166-1.txt",
    {{"fips", "FIPS 10-4"}, {"a2", "alpha-2"}, {"a3", "alpha-3"}, {"num", "numeric-3"}},
    [](int from, const std::string& code, int to) {
        return CountryCodes::GetInstance().FindCode(static_cast<CountryCodes::eCode>(from), code,
                                                    static_cast<CountryCodes::eCode>(to));
    },
    [](int column, unsigned row) {
        return CountryCodes::GetInstance().GetCode(static_cast<CountryCodes::eCode>(column), row);
    }};

const Table kLanguages{
    "language",
    "/zelgrot/share/iso-639-2.txt",
    {{"bib", "alpha-3 (B)"}, {"term", "alpha-3 (T)"}, {"a2", "alpha-2"}, {"name", "name"}},
    [](int from, const std::string& code, int to) {
        return LanguageCodes::FindCode(static_cast<LanguageCodes::eCode>(from), code,
                                       static_cast<LanguageCodes::eCode>(to));
    },
    [](int column, unsigned row) {
        return LanguageCodes::GetInstance().GetCode(static_cast<LanguageCodes::eCode>(column), row);
    }};

int ColumnByName(const Table& table, const std::string& name) {
    for (size_t i = 0; i < table.columns.size(); ++i) {
        if (name == table.columns[i].name) return static_cast<int>(i);
    }
    std::string known;
    for (const auto& column : table.columns)
        known += std::string(known.empty() ? "" : ", ") + column.name;
    throw Failure(kUsage, "unknown code system '" + name + "' (one of " + known + ")");
}

bool AllDigits(const std::string& code) {
    return !code.empty() && code.find_first_not_of("0123456789") == std::string::npos;
}

// The systems a code is tried in when --from does not say: by its shape.
std::vector<int> GuessColumns(const Table& table, const std::string& code) {
    if (&table == &kCountries) {
        if (AllDigits(code)) return {CountryCodes::eNumeric3};
        return {code.size() == 3 ? CountryCodes::eAlpha3 : CountryCodes::eAlpha2};
    }
    if (code.size() == 2) return {LanguageCodes::eAlpha2};
    if (code.size() == 3)
        return {LanguageCodes::eAlpha3Bibliographic, LanguageCodes::eAlpha3Terminology};
    return {LanguageCodes::eName};
}

int RunLookup(const Table& table, Args& args) {
    auto from_name = args.Option("--from");
    auto to_name = args.Option("--to");
    std::string code = args.Next("CODE");
    args.Done();
    std::vector<int> from =
        from_name ? std::vector<int>{ColumnByName(table, *from_name)} : GuessColumns(table, code);
    const int to = to_name ? ColumnByName(table, *to_name) : -1;

    if (table.cell(0, 0).empty() && table.cell(1, 0).empty() && table.cell(2, 0).empty())
        throw Failure(kFailed, std::string("no ") + table.noun + " table at " + table.path);
    for (int column : from) {
        // The row is identified by its own code in the system looked up from, which never fails
        // to find itself; every other column follows from it.
        if (table.find(column, code, column).empty() && !code.empty()) continue;
        if (to >= 0) {
            std::cout << table.find(column, code, to) << '\n';
            return kOk;
        }
        for (size_t i = 0; i < table.columns.size(); ++i) {
            std::string title = table.columns[i].title;
            title.resize(12, ' ');
            std::cout << title << table.find(column, code, static_cast<int>(i)) << '\n';
        }
        return kOk;
    }
    throw Failure(kNotFound, std::string("no ") + table.noun + " with the " +
                                 table.columns[from[0]].title + " code '" + code + "'");
}

const bool registered_country = Register(
    {"country", "translate a country code (FIPS 10-4, ISO alpha-2, alpha-3, numeric)",
     "usage: qvtool country CODE [--from fips|a2|a3|num] [--to fips|a2|a3|num]\n"
     "Finds CODE in the device's table /zelgrot/share/iso-3166-1.txt, in upper or lower case,\n"
     "and prints the country's four codes, or with --to only that one. Without --from the\n"
     "code's shape decides: digits are numeric, three letters alpha-3, two letters alpha-2 (a\n"
     "FIPS code needs --from fips: \"GM\" is Germany in FIPS but Gambia in alpha-2). An empty\n"
     "output line means the country has no code in that system.\n"
     "Exit code 3 when no country has CODE, 1 when the table is missing.\n",
     [](Args& args) { return RunLookup(kCountries, args); }});

const bool registered_language = Register(
    {"language", "translate a language code (ISO 639-2 B/T, ISO 639-1, name)",
     "usage: qvtool language CODE [--from bib|term|a2|name] [--to bib|term|a2|name]\n"
     "Finds CODE in the device's table /zelgrot/share/iso-639-2.txt, in upper or lower case,\n"
     "and prints the language's bibliographic and terminology alpha-3 codes (\"ger\", \"deu\"),\n"
     "its alpha-2 code and English name, or with --to only one of them. Without --from two\n"
     "letters are alpha-2, three are tried as bibliographic and then as terminology code,\n"
     "anything else as the exact English name.\n"
     "Exit code 3 when no language has CODE, 1 when the table is missing.\n",
     [](Args& args) { return RunLookup(kLanguages, args); }});

}  // namespace
}  // namespace qvtool
