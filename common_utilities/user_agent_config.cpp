#include "common_utilities/user_agent_config.h"

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid.hpp>
#include <boost/uuid/uuid_io.hpp>

#include <fstream>
#include <utility>

#include "boardprofile.h"

namespace quorvel {
namespace utilities {
namespace {

constexpr const char* kRuntimeDeviceConfig = "/var/run/device.cfg";
constexpr const char* kShippedDeviceConfig = "/zelgrot/config/device.cfg";
constexpr const char* kGlobalConfig = "/mnt/ext1/system/config/global.cfg";
constexpr const char* kDefaultFragment = "default";

// Interface language to keyboard layout and locale, as the device's browser names them.
constexpr std::pair<const char*, const char*> kLayouts[] = {
    {"en", "en_US"}, {"ar", "ar_AE"}, {"az", "az_AZ"}, {"be", "be_BY"}, {"bg", "bg_BG"},
    {"cs", "cs_CZ"}, {"de", "de_DE"}, {"el", "el_GR"}, {"es", "es_ES"}, {"et", "et_EE"},
    {"fi", "fi_FI"}, {"fr", "fr_FR"}, {"gr", "ka_GE"}, {"he", "he_IL"}, {"it", "it_IT"},
    {"kk", "kk_KZ"}, {"lt", "lt_LT"}, {"lv", "lv_LV"}, {"nl", "nl_NL"}, {"pl", "pl_PL"},
    {"pt", "pt_PT"}, {"ro", "ro_RO"}, {"ru", "ru_RU"}, {"sk", "sk_SK"}, {"tr", "tr_TR"},
    {"uk", "uk_UA"}, {"zh", "zh_CN"},
};

std::string KeyPrefix(const std::string& type) {
    return "useragent_" + type + "_";
}

// Every occurrence, left to right; what was put in is not searched again.
void ReplaceAll(std::string& text, const std::string& from, const std::string& to) {
    if (from.empty()) return;
    for (size_t at = text.find(from); at != std::string::npos;
         at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
}

std::string OrEmpty(const char* text) {
    return text ? text : std::string();
}

}  // namespace

UserAgentConfig::UserAgentConfig(const std::string& type, const std::string& webengine_version)
    : type_(type), webengine_version_(webengine_version) {
    fillSubstituteParams();
    loadUserAgentConfig();
    initDefaultUserAgent();
}

std::string UserAgentConfig::userAgentForHost(const std::string& host) const {
    return SubstituteTemplateParameters(getTemplateForHost(host));
}

std::string UserAgentConfig::getTemplateForHost(const std::string& host) const {
    // Key order, not the length of the match, settles which fragment wins.
    for (const auto& [fragment, text] : host_templates_) {
        if (host.find(fragment) != std::string::npos) return text;
    }
    auto fallback = host_templates_.find(kDefaultFragment);
    if (fallback != host_templates_.end()) return fallback->second;
    return default_template_;
}

std::string UserAgentConfig::SubstituteTemplateParameters(const std::string& text) const {
    std::string result = text;
    for (const auto& [placeholder, value] : substitutions_)
        ReplaceAll(result, placeholder, value);
    return result;
}

void UserAgentConfig::AddUserAgentConfig(const std::string& host, const std::string& text) {
    QV_LOG_INFO("AddUserAgentConfig [%s]=[%s]", host.c_str(), text.c_str());
    host_templates_[host] = text;
}

std::string UserAgentConfig::languageToLayout(const std::string& language) {
    for (const auto& [code, layout] : kLayouts) {
        if (language == code) return layout;
    }
    return std::string();
}

std::string UserAgentConfig::getConfigInterfaceLanguage() {
    // Filled once; an empty value (no file, an empty setting) is asked again next time.
    static std::string language;
    if (language.empty()) {
        if (iconfig* global = OpenConfig(kGlobalConfig, 0)) {
            language = OrEmpty(ReadString(global, "language", "en"));
            CloseConfig(global);
        }
    }
    return language;
}

std::string UserAgentConfig::browserLangString() {
    return languageToLayout(getConfigInterfaceLanguage());
}

std::string UserAgentConfig::ResolutionScreenString() {
    return std::to_string(ScreenWidth()) + "x" + std::to_string(ScreenHeight());
}

std::string UserAgentConfig::GetModelNumber() {
    static constexpr const char* kDigits = "0123456789";
    const std::string model = OrEmpty(GetDeviceModel());
    size_t first = model.find_first_of(kDigits);
    if (first == std::string::npos) return std::string();
    size_t end = model.find_first_not_of(kDigits, first);
    return model.substr(first, end == std::string::npos ? std::string::npos : end - first);
}

void UserAgentConfig::fillSubstituteParams() {
    substitutions_["[locale]"] = browserLangString();
    substitutions_["[webengine_ver]"] = webengine_version_;
    substitutions_["[resolution]"] = ResolutionScreenString();
    substitutions_["[device_name]"] = GetModelNumber();
    substitutions_["[fw]"] = OrEmpty(GetSoftwareVersion());
}

void UserAgentConfig::loadUserAgentConfig() {
    // Plain lines rather than the platform's reader: a template may hold anything behind the
    // first "=", blanks at either end included, and must come back exactly as written.
    std::ifstream file(kRuntimeDeviceConfig);
    if (!file.is_open()) return;
    const std::string prefix = KeyPrefix(type_);
    QV_LOG_INFO("Open file %s", kRuntimeDeviceConfig);
    std::string line;
    while (std::getline(file, line)) {
        if (line.compare(0, prefix.size(), prefix) != 0) continue;
        size_t equals = line.find('=', prefix.size());
        if (equals == std::string::npos) continue;
        AddUserAgentConfig(line.substr(prefix.size(), equals - prefix.size()),
                           line.substr(equals + 1));
    }
}

void UserAgentConfig::initDefaultUserAgent() {
    default_template_ =
        readFromConfig<std::string>(kShippedDeviceConfig, KeyPrefix(type_) + kDefaultFragment, "");
}

std::string GenerateUUID() {
    // A generator per call draws its bytes from the system at that moment: nothing is kept
    // that a forked child could replay after its parent.
    try {
        boost::uuids::random_generator generator;
        return boost::uuids::to_string(generator());
    } catch (const std::exception& error) {
        QV_LOG_ERROR("No random bytes for a UUID: %s", error.what());
        return std::string();
    }
}

}  // namespace utilities
}  // namespace quorvel
