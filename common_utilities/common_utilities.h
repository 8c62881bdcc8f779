// Shared definitions of the common utility library: result codes, the export marker, the logging
// and check macros, and the text helpers every unit uses.
#pragma once

#include <string>

#include "moorglass.h"

// Marks what libcommon_utilities.so exports; everything else stays inside the library.
#define QV_EXPORT __attribute__((visibility("default")))

// Result codes of functions that report by an integer. The database layer returns SQLite codes
// instead. The spelling of QV_NOT_IMPEMENTED is part of the interface.
enum : int {
    QV_OK = 0,
    QV_FAILED = -1,
    QV_INVAL = -2,
    QV_WRONG_STATE = -3,
    QV_NOT_INITIALIZED = -4,
    QV_BUSY = -5,
    QV_NOT_IMPEMENTED = -7,
    QV_TIMEOUT = -8,
};

// The longest string the stream form carries.
#define MAX_INT16 32767

// ---- Logging --------------------------------------------------------------------------------
// Every line begins with "[pid:%d]"; file, line and function are the caller's.

#define QV_LOG(level, fmt, ...)                                                                    \
    qv_print_log2((level), __FILE__, __LINE__, __PRETTY_FUNCTION__, "[pid:%d]" fmt, g_process_pid, \
                  ##__VA_ARGS__)

#define QV_LOG_MODULE(level, module, fmt, ...)                                            \
    qv_print_log2_with_module((level), (module), __FILE__, __LINE__, __PRETTY_FUNCTION__, \
                              "[pid:%d]" fmt, g_process_pid, ##__VA_ARGS__)

#define QV_LOG_ERROR(fmt, ...) QV_LOG(QV_LOG_ERROR, fmt, ##__VA_ARGS__)
#define QV_LOG_INFO(fmt, ...) QV_LOG(QV_LOG_INFO, fmt, ##__VA_ARGS__)
#define QV_LOG_TRACE(fmt, ...) QV_LOG(QV_LOG_TRACE, fmt, ##__VA_ARGS__)

// ---- Check macros ---------------------------------------------------------------------------
// Each writes one line at level 1 and then acts. The condition and result texts are the source
// text at the call; an optional printf-style message (a string literal, then its arguments)
// follows the line's fixed part.
//
// The line names the condition as written at the call, so both polarities exist: _IF acts when
// the condition holds (`QV_RETURN_IF(!value, QV_INVAL)`), _UNLESS when it does not
// (`QV_RETURN_UNLESS(stream.good(), QV_FAILED)`).

// Every macro below stringifies its own arguments: a condition handed on to another macro would
// have its macros expanded first ("MAX_INT16" turning into "32767").
#define QV_CONDITION_LINE_(cond_text, result_text, ...) \
    QV_LOG_ERROR("Condition: \"" cond_text "\", return(\"" result_text "\")]" __VA_ARGS__)

// Log only: `[pid:%d]Condition: "<cond>", return("<result>")]<message>`; true when it fired.
#define QV_REPORT_IF(cond, result, ...) \
    ((cond) ? (QV_CONDITION_LINE_(#cond, #result, ##__VA_ARGS__), true) : false)
#define QV_REPORT_UNLESS(cond, result, ...) \
    (!(cond) ? (QV_CONDITION_LINE_(#cond, #result, ##__VA_ARGS__), true) : false)

// Log and return `result`.
#define QV_RETURN_IF(cond, result, ...)                        \
    do {                                                       \
        if (cond) {                                            \
            QV_CONDITION_LINE_(#cond, #result, ##__VA_ARGS__); \
            return result;                                     \
        }                                                      \
    } while (0)
#define QV_RETURN_UNLESS(cond, result, ...)                    \
    do {                                                       \
        if (!(cond)) {                                         \
            QV_CONDITION_LINE_(#cond, #result, ##__VA_ARGS__); \
            return result;                                     \
        }                                                      \
    } while (0)

// Log `[pid:%d]Condition: "<cond>", return]<message>` and return from a void function.
#define QV_RETURN_VOID_IF(cond, ...)                                       \
    do {                                                                   \
        if (cond) {                                                        \
            QV_LOG_ERROR("Condition: \"" #cond "\", return]" __VA_ARGS__); \
            return;                                                        \
        }                                                                  \
    } while (0)
#define QV_RETURN_VOID_UNLESS(cond, ...)                                   \
    do {                                                                   \
        if (!(cond)) {                                                     \
            QV_LOG_ERROR("Condition: \"" #cond "\", return]" __VA_ARGS__); \
            return;                                                        \
        }                                                                  \
    } while (0)

// For checks followed by a clean-up: logs `[pid:%d]Condition %s failed. <message>` with the
// condition text as %s when `cond` does not hold, and is then true, so the caller cleans up:
//     if (QV_CLEANUP_UNLESS(0 == err, "bind failed with [%d]", errno)) { close(fd); ... }
#define QV_CLEANUP_UNLESS(cond, fmt, ...) \
    (!(cond) ? (QV_LOG_ERROR("Condition %s failed. " fmt, #cond, ##__VA_ARGS__), true) : false)

// `[pid:%d]Failed with [%d] <message>`: a failed call whose code the caller returns.
#define QV_LOG_FAILED(code, fmt, ...) QV_LOG_ERROR("Failed with [%d] " fmt, (code), ##__VA_ARGS__)

// `[pid:%d] err:[%d] ` (and the variant without the space that some units write).
#define QV_LOG_ERR(code) QV_LOG_ERROR(" err:[%d] ", (code))
#define QV_LOG_ERR_TIGHT(code) QV_LOG_ERROR("err:[%d] ", (code))

namespace quorvel {
namespace utilities {

// The text in lower or upper case, non-ASCII letters included; the text as it stands when the
// platform can't map it.
QV_EXPORT std::string ToLower(const std::string& text);
QV_EXPORT std::string ToUpper(const std::string& text);

}  // namespace utilities
}  // namespace quorvel

// ---- Check lines of units that log under a module name (the HTTP runners) ----------------------
// As QV_CLEANUP_UNLESS, through qv_print_log2_with_module.
#define QV_CLEANUP_UNLESS_MODULE(module, cond, fmt, ...)                                     \
    (!(cond) ? (QV_LOG_MODULE(QV_LOG_ERROR, (module), "Condition %s failed. " fmt, #cond, \
                              ##__VA_ARGS__),                                               \
                true)                                                                       \
             : false)
