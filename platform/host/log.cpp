// Logging of the host platform: lines go to the standard error stream, filtered by level, and to
// an optional in-process sink that sees every line (tests assert on them).

#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <string>

#include "moorglass.h"
#include "moorglass_host.h"

int g_process_pid = 0;

namespace {

std::mutex g_sink_mutex;
qvhost_log_sink g_sink = nullptr;
void* g_sink_user = nullptr;
int g_stderr_level = QV_LOG_WARNING;

int LevelFromEnvironment() {
    const char* env = std::getenv("QV_LOG_LEVEL");
    if (!env || !*env) return QV_LOG_WARNING;
    char* end = nullptr;
    long level = std::strtol(env, &end, 10);
    if (*end != '\0' || level < 0) return QV_LOG_WARNING;
    return level > QV_LOG_TRACE ? QV_LOG_TRACE : static_cast<int>(level);
}

// A forked child is a process of its own; its lines must carry its own pid.
void RefreshPidInChild() {
    g_process_pid = static_cast<int>(::getpid());
}

__attribute__((constructor)) void InitLogging() {
    g_process_pid = static_cast<int>(::getpid());
    g_stderr_level = LevelFromEnvironment();
    pthread_atfork(nullptr, nullptr, RefreshPidInChild);
}

char LevelLetter(int level) {
    switch (level) {
        case QV_LOG_ERROR:
            return 'E';
        case QV_LOG_WARNING:
            return 'W';
        case QV_LOG_NOTICE:
            return 'N';
        case QV_LOG_INFO:
            return 'I';
        default:
            return 'T';
    }
}

std::string Format(const char* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    char small[512];
    int n = std::vsnprintf(small, sizeof small, format, copy);
    va_end(copy);
    if (n < 0) return format;
    if (static_cast<size_t>(n) < sizeof small) return std::string(small, n);
    std::string text(static_cast<size_t>(n), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, args);
    return text;
}

void WriteToStderr(int level, const char* module, const char* file, int line, const char* function,
                   const std::string& message) {
    timeval now{};
    ::gettimeofday(&now, nullptr);
    tm local{};
    ::localtime_r(&now.tv_sec, &local);
    char stamp[16];
    std::strftime(stamp, sizeof stamp, "%H:%M:%S", &local);
    // One fprintf per line: stdio locks the stream, so lines of threads never interleave.
    std::fprintf(stderr, "%c %s.%03ld %s%s%s%s:%d %s: %s\n", LevelLetter(level), stamp,
                 static_cast<long>(now.tv_usec / 1000), module ? "[" : "", module ? module : "",
                 module ? "] " : "", file ? file : "?", line, function ? function : "?",
                 message.c_str());
}

void Emit(int level, const char* module, const char* file, int line, const char* function,
          const char* format, va_list args) {
    std::unique_lock<std::mutex> lock(g_sink_mutex);
    bool to_stderr = level <= g_stderr_level;
    if (!to_stderr && !g_sink) return;
    std::string message = Format(format ? format : "", args);
    if (g_sink) g_sink(g_sink_user, level, module, file, line, function, message.c_str());
    lock.unlock();
    if (to_stderr) WriteToStderr(level, module, file, line, function, message);
}

}  // namespace

extern "C" {

void qv_print_log2(int level, const char* file, int line, const char* function, const char* format,
                   ...) {
    va_list args;
    va_start(args, format);
    Emit(level, nullptr, file, line, function, format, args);
    va_end(args);
}

void qv_print_log2_with_module(int level, const char* module, const char* file, int line,
                               const char* function, const char* format, ...) {
    va_list args;
    va_start(args, format);
    Emit(level, module, file, line, function, format, args);
    va_end(args);
}

void qvhost_set_log_sink(qvhost_log_sink sink, void* user) {
    std::lock_guard<std::mutex> lock(g_sink_mutex);
    g_sink = sink;
    g_sink_user = user;
}

void qvhost_set_log_level(int level) {
    std::lock_guard<std::mutex> lock(g_sink_mutex);
    g_stderr_level = level;
}

int qvhost_log_level(void) {
    std::lock_guard<std::mutex> lock(g_sink_mutex);
    return g_stderr_level;
}

}  // extern "C"
