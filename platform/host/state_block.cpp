// The state block of the host platform. On the device the system shell keeps it current; on the
// host it is filled from the global configuration when the platform loads, and again when a test
// or a tool asks after changing that file.

#include <cstring>
#include <string>

#include "config_file.h"
#include "moorglass.h"
#include "moorglass_host.h"

namespace {

constexpr const char* kGlobalConfigPath = "/mnt/ext1/system/config/global.cfg";
constexpr const char* kDefaultLanguage = "en";

// Plain storage, constant-initialised: the block is valid before any constructor runs, whatever
// the order in which the libraries of a process are initialised. Locale names are short; a longer
// text is cut rather than refused.
char g_language[64];
mgstate_s g_state = {nullptr};

void SetLanguage(const char* language) {
    if (!language) {
        g_state.language = nullptr;
        return;
    }
    std::strncpy(g_language, language, sizeof g_language - 1);
    g_language[sizeof g_language - 1] = '\0';
    g_state.language = g_language;
}

// The file is read directly rather than through OpenConfig: this runs while the platform library
// is still being initialised.
std::string ConfiguredLanguage() {
    std::string language;
    qvhost::ConfigDocument::Parse(qvhost::LoadConfigText(kGlobalConfigPath))
        .ForEach([&language](const std::string& key, const qvhost::ConfigValue& value) {
            if (key == "language" && value.kind == qvhost::ValueKind::kPlain) language = value.text;
        });
    return language.empty() ? kDefaultLanguage : language;
}

__attribute__((constructor)) void LoadStateBlock() {
    SetLanguage(ConfiguredLanguage().c_str());
}

}  // namespace

extern "C" {

mgstate_s* mgstate = &g_state;

void qvhost_reload_state(void) {
    SetLanguage(ConfiguredLanguage().c_str());
}

void qvhost_set_state_language(const char* language) {
    SetLanguage(language);
}

}  // extern "C"
