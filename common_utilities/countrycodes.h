// CountryCodes: translation between the code systems that store interfaces and book metadata use
// for countries.
//
// The table is "/zelgrot/share/iso-3166-1.txt", read once when the singleton is first used: one
// country a line, the columns FIPS 10-4, ISO 3166-1 alpha-2, alpha-3 and numeric-3, each ended by
// ",", anything behind the fourth comma ignored (the device's file puts the English name there).
// "#" begins a comment line; a line with fewer than four commas is skipped. FIPS 10-4 has no code
// for a few ISO entries (the Åland Islands, Bonaire, Palestine, the US minor islands): their
// FIPS column is empty.
//
// A code matches as given, in upper case or in lower case ("deU" finds "DEU"); an entry that the
// table holds in mixed case ("Cd") is found only by that exact text. Nothing found gives an empty
// text, and so does a missing table, which is logged once as "Can't find or parse file <path>".
// An empty code matches the first row whose column is empty.
//
// The table is read-only once loaded, so any thread may ask.
#pragma once

#include <memory>
#include <string>

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace utilities {

class CodeTable;

class QV_EXPORT CountryCodes {
public:
    enum eCode { eFips = 0, eAlpha2 = 1, eAlpha3 = 2, eNumeric3 = 3 };

    static CountryCodes& GetInstance();

    std::string FindCode(eCode from, const std::string& code, eCode to) const;
    // The `kind` column of `row` (file order, comments and skipped lines not counted); empty when
    // either is out of range.
    std::string GetCode(eCode kind, unsigned int row) const;

    static std::string GetFipsFromAlpha2(const std::string& code);
    static std::string GetFipsFromAlpha3(const std::string& code);
    static std::string GetFipsFromNumeric3(const std::string& code);
    static std::string GetAlpha2FromFips(const std::string& code);
    static std::string GetAlpha2FromAlpha3(const std::string& code);
    static std::string GetAlpha2FromNumeric3(const std::string& code);
    static std::string GetAlpha3FromFips(const std::string& code);
    static std::string GetAlpha3FromAlpha2(const std::string& code);
    static std::string GetAlpha3FromNumeric3(const std::string& code);
    static std::string GetNumeric3FromFips(const std::string& code);
    static std::string GetNumeric3FromAlpha2(const std::string& code);
    static std::string GetNumeric3FromAlpha3(const std::string& code);

    CountryCodes(const CountryCodes&) = delete;
    CountryCodes& operator=(const CountryCodes&) = delete;

private:
    CountryCodes();
    ~CountryCodes();

    std::unique_ptr<const CodeTable> table_;
};

}  // namespace utilities
}  // namespace quorvel
