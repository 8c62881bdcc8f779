#include "common_utilities/languagecodes.h"

#include "common_utilities/code_table.h"

namespace quorvel {
namespace utilities {

LanguageCodes::LanguageCodes()
    : table_(std::make_unique<CodeTable>("/zelgrot/share/iso-639-2.txt", '|')) {}

LanguageCodes::~LanguageCodes() = default;

LanguageCodes& LanguageCodes::GetInstance() {
    // Never destroyed: a thread of the application may still translate while the process exits.
    static LanguageCodes* instance = new LanguageCodes();
    return *instance;
}

std::string LanguageCodes::FindCode(eCode from, const std::string& code, eCode to) {
    return GetInstance().table_->FindCode(from, code, to);
}

std::string LanguageCodes::GetCode(eCode kind, unsigned int row) const {
    return table_->GetCode(kind, row);
}

}  // namespace utilities
}  // namespace quorvel
