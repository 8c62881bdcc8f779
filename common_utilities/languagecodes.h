// LanguageCodes: translation between the code systems that store interfaces and book metadata
// use for languages.
//
// The table is "/zelgrot/share/iso-639-2.txt", read once when the singleton is first used: one
// language a line, four columns each ended by "|", anything behind the fourth ignored. The
// device's file holds ISO 639-2 bibliographic alpha-3 ("ger"), terminology alpha-3 ("deu"),
// ISO 639-1 alpha-2 ("de", empty for most languages) and the English name; both alpha-3 columns
// are filled for every language, the same code where the two kinds agree. "#" begins a comment
// line; a line with fewer than four "|" is skipped.
//
// Matching, empty results and the log line of a missing table are those of CountryCodes. The
// table is read-only once loaded, so any thread may ask.
#pragma once

#include <memory>
#include <string>

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace utilities {

class CodeTable;

class QV_EXPORT LanguageCodes {
public:
    // The four columns of the file, in order.
    enum eCode { eAlpha3Bibliographic = 0, eAlpha3Terminology = 1, eAlpha2 = 2, eName = 3 };

    static LanguageCodes& GetInstance();

    static std::string FindCode(eCode from, const std::string& code, eCode to);
    // The `kind` column of `row` (file order); empty when either is out of range.
    std::string GetCode(eCode kind, unsigned int row) const;

    LanguageCodes(const LanguageCodes&) = delete;
    LanguageCodes& operator=(const LanguageCodes&) = delete;

private:
    LanguageCodes();
    ~LanguageCodes();

    std::unique_ptr<const CodeTable> table_;
};

}  // namespace utilities
}  // namespace quorvel
