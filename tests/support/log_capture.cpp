#include "log_capture.h"

#include <unistd.h>

#include "moorglass_host.h"

namespace qvtest {

LogCapture::LogCapture() {
    qvhost_set_log_sink(&LogCapture::Sink, this);
}

LogCapture::~LogCapture() {
    qvhost_set_log_sink(nullptr, nullptr);
}

void LogCapture::Sink(void* user, int level, const char* module, const char* file, int line,
                      const char* function, const char* message) {
    auto* self = static_cast<LogCapture*>(user);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->lines_.push_back({level, module ? module : "", file ? file : "", line,
                            function ? function : "", message ? message : ""});
}

std::vector<LogLine> LogCapture::Lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
}

std::vector<std::string> LogCapture::Messages(int level) const {
    std::vector<std::string> messages;
    for (const auto& line : Lines()) {
        if (level == 0 || line.level == level) messages.push_back(line.message);
    }
    return messages;
}

bool LogCapture::Has(int level, const std::string& message) const {
    for (const auto& text : Messages(level)) {
        if (text == message) return true;
    }
    return false;
}

bool LogCapture::HasFragment(int level, const std::string& fragment) const {
    for (const auto& text : Messages(level)) {
        if (text.find(fragment) != std::string::npos) return true;
    }
    return false;
}

void LogCapture::Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
}

std::string PidLine(const std::string& rest) {
    return "[pid:" + std::to_string(::getpid()) + "]" + rest;
}

}  // namespace qvtest
