// The SQL function icu_load_collation of the host platform. The device's SQLite is built with it;
// the host's is not, so the platform library registers it as an automatic extension when it
// loads: every connection opened in the process afterwards has it, whoever opens it.
//
// icu_load_collation(locale, name) defines on the calling connection a collation `name` that
// compares UTF-8 text with an ICU collator of `locale`. Each connection owns its collator, closed
// with the connection. A name can be defined once per connection: SQLite refuses to replace a
// collation while a statement runs, and the defining statement is one.

#include <sqlite3.h>
#include <unicode/ucol.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>

#include "moorglass.h"
#include "moorglass_host.h"

namespace {

std::atomic<bool> g_enabled{true};

bool DisabledByEnvironment() {
    const char* value = std::getenv("QV_HOST_NO_ICU_COLLATION");
    return value && *value && std::strcmp(value, "0") != 0;
}

int CompareUtf8(void* collator, int left_length, const void* left, int right_length,
                const void* right) {
    UErrorCode status = U_ZERO_ERROR;
    UCollationResult result =
        ucol_strcollUTF8(static_cast<UCollator*>(collator), static_cast<const char*>(left),
                         left_length, static_cast<const char*>(right), right_length, &status);
    if (U_SUCCESS(status)) return static_cast<int>(result);
    // Invalid UTF-8 still needs a total order, or SQLite's sorting goes wrong: bytes decide.
    int common = std::memcmp(left, right, static_cast<size_t>(std::min(left_length, right_length)));
    return common != 0 ? common : left_length - right_length;
}

void CloseCollator(void* collator) {
    ucol_close(static_cast<UCollator*>(collator));
}

void LoadCollation(sqlite3_context* context, int, sqlite3_value** args) {
    const auto* locale = reinterpret_cast<const char*>(sqlite3_value_text(args[0]));
    const auto* name = reinterpret_cast<const char*>(sqlite3_value_text(args[1]));
    if (!locale || !name || !*name) {
        sqlite3_result_error(context,
                             "icu_load_collation: a locale and a collation name are needed", -1);
        return;
    }
    UErrorCode status = U_ZERO_ERROR;
    UCollator* collator = ucol_open(locale, &status);
    if (U_FAILURE(status)) {
        std::string message = std::string("icu_load_collation: no collator for '") + locale +
                              "': " + u_errorName(status);
        sqlite3_result_error(context, message.c_str(), -1);
        return;
    }
    int rc = sqlite3_create_collation_v2(sqlite3_context_db_handle(context), name, SQLITE_UTF8,
                                         collator, &CompareUtf8, &CloseCollator);
    if (rc != SQLITE_OK) {
        // SQLite calls the destructor only for collations it accepted. Its code is not passed on:
        // a name already defined can't be replaced while a statement (this one) runs, which SQLite
        // reports as busy, and a busy statement is one the caller would retry for ever.
        ucol_close(collator);
        std::string message = std::string("icu_load_collation: can't define '") + name +
                              "': " + sqlite3_errmsg(sqlite3_context_db_handle(context));
        sqlite3_result_error(context, message.c_str(), -1);
        return;
    }
    sqlite3_result_null(context);
}

int RegisterOnConnection(sqlite3* db, char**, const sqlite3_api_routines*) {
    if (!g_enabled.load()) return SQLITE_OK;
    return sqlite3_create_function_v2(db, "icu_load_collation", 2, SQLITE_UTF8, nullptr,
                                      &LoadCollation, nullptr, nullptr, nullptr);
}

// Registering the extension initialises SQLite, after which its threading mode can no longer
// change: the platform then configures it first, serialized, so that a connection can be shared
// between threads. A platform whose SQLite has no ICU collation (QV_HOST_NO_ICU_COLLATION) leaves
// SQLite untouched until it is asked for the collation, so the first open of a process is the one
// that configures it.
void RegisterOnce() {
    static const bool registered = [] {
        sqlite3_config(SQLITE_CONFIG_SERIALIZED);
        return sqlite3_auto_extension(reinterpret_cast<void (*)(void)>(&RegisterOnConnection)) ==
               SQLITE_OK;
    }();
    static_cast<void>(registered);
}

__attribute__((constructor)) void InstallIcuCollation() {
    g_enabled = !DisabledByEnvironment();
    if (g_enabled) RegisterOnce();
}

}  // namespace

extern "C" {

void qvhost_set_icu_collation_enabled(int enabled) {
    g_enabled = enabled != 0;
    if (enabled) RegisterOnce();
}

int qvhost_icu_collation_enabled(void) {
    return g_enabled.load() ? 1 : 0;
}

}  // extern "C"
