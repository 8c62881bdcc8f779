// Theme values and dates of the host platform. The theme is the device image's
// "/zelgrot/config/theme.cfg", a configuration file of key=value lines, read once per process.

#include <cstdlib>
#include <ctime>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include "config_file.h"
#include "moorglass.h"

namespace {

constexpr const char* kThemePath = "/zelgrot/config/theme.cfg";

class Theme {
public:
    static Theme& Instance() {
        static Theme theme;
        return theme;
    }

    const std::string* Find(const std::string& key) const {
        auto it = values_.find(key);
        return it == values_.end() ? nullptr : &it->second;
    }

private:
    Theme() {
        qvhost::ConfigDocument::Parse(qvhost::LoadConfigText(kThemePath))
            .ForEach([this](const std::string& key, const qvhost::ConfigValue& value) {
                if (value.kind == qvhost::ValueKind::kPlain) values_[key] = value.text;
            });
    }
    std::map<std::string, std::string> values_;
};

// The date forms of the interface languages; English for any other.
const char* DateFormat() {
    std::string language = mgstate && mgstate->language ? mgstate->language : "en";
    if (language.compare(0, 2, "de") == 0 || language.compare(0, 2, "ru") == 0) return "%d.%m.%Y";
    return "%m/%d/%Y";
}

}  // namespace

extern "C" {

int GetThemeInt(const char* name, int default_value) {
    const std::string* value = name ? Theme::Instance().Find(name) : nullptr;
    if (value == nullptr) return default_value;
    char* end = nullptr;
    long number = std::strtol(value->c_str(), &end, 10);
    return end == value->c_str() ? default_value : static_cast<int>(number);
}

const char* GetThemeString(const char* name, const char* default_value) {
    const std::string* value = name ? Theme::Instance().Find(name) : nullptr;
    return value ? value->c_str() : default_value;
}

const char* DateStr(time_t t) {
    static thread_local char text[64];
    struct tm local;
    if (localtime_r(&t, &local) == nullptr ||
        std::strftime(text, sizeof text, DateFormat(), &local) == 0) {
        text[0] = '\0';
    }
    return text;
}

}  // extern "C"
