#include "common_utilities/countrycodes.h"

#include "common_utilities/code_table.h"

namespace quorvel {
namespace utilities {

CountryCodes::CountryCodes()
    : table_(std::make_unique<CodeTable>("/zelgrot/share/iso-3166-1.txt", ',')) {}

CountryCodes::~CountryCodes() = default;

CountryCodes& CountryCodes::GetInstance() {
    // Never destroyed: a thread of the application may still translate while the process exits.
    static CountryCodes* instance = new CountryCodes();
    return *instance;
}

std::string CountryCodes::FindCode(eCode from, const std::string& code, eCode to) const {
    return table_->FindCode(from, code, to);
}

std::string CountryCodes::GetCode(eCode kind, unsigned int row) const {
    return table_->GetCode(kind, row);
}

#define QV_COUNTRY_SHORTCUT(to, from)                                        \
    std::string CountryCodes::Get##to##From##from(const std::string& code) { \
        return GetInstance().FindCode(e##from, code, e##to);                 \
    }

QV_COUNTRY_SHORTCUT(Fips, Alpha2)
QV_COUNTRY_SHORTCUT(Fips, Alpha3)
QV_COUNTRY_SHORTCUT(Fips, Numeric3)
QV_COUNTRY_SHORTCUT(Alpha2, Fips)
QV_COUNTRY_SHORTCUT(Alpha2, Alpha3)
QV_COUNTRY_SHORTCUT(Alpha2, Numeric3)
QV_COUNTRY_SHORTCUT(Alpha3, Fips)
QV_COUNTRY_SHORTCUT(Alpha3, Alpha2)
QV_COUNTRY_SHORTCUT(Alpha3, Numeric3)
QV_COUNTRY_SHORTCUT(Numeric3, Fips)
QV_COUNTRY_SHORTCUT(Numeric3, Alpha2)
QV_COUNTRY_SHORTCUT(Numeric3, Alpha3)

#undef QV_COUNTRY_SHORTCUT

}  // namespace utilities
}  // namespace quorvel
