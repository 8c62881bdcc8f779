#include "failure_reason.h"

#include <curl/curl.h>

#include "moorglass.h"
#include "moorglass_host.h"

namespace qvtool {

FailureReason::FailureReason(std::string curl_code_pattern) : curl_code_(curl_code_pattern) {
    qvhost_set_log_sink(&FailureReason::Sink, this);
}

FailureReason::~FailureReason() {
    qvhost_set_log_sink(nullptr, nullptr);
}

std::string FailureReason::Describe() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::smatch match;
    if (std::regex_search(last_error_, match, curl_code_)) {
        int code = std::stoi(match[1]);
        return std::string(curl_easy_strerror(static_cast<CURLcode>(code))) + " (curl code " +
               std::to_string(code) + ")";
    }
    return last_error_.empty() ? "see --verbose for the library's log" : last_error_;
}

void FailureReason::Sink(void* user, int level, const char*, const char*, int, const char*,
                         const char* message) {
    if (level != QV_LOG_ERROR) return;
    auto* self = static_cast<FailureReason*>(user);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->last_error_ = message;
}

}  // namespace qvtool
