// Url and HttpRequest: the description of a request. The runner is in http_request_runner.cpp.

#include "common_utilities/http_request.h"

#include <curl/curl.h>

#include <cctype>
#include <memory>

namespace quorvel {
namespace utilities {
namespace {

std::string ToLowerBytes(std::string text) {
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// libcurl's escape, or nothing when it fails (it allocates).
bool Escape(const std::string& text, std::string* out) {
    std::unique_ptr<char, decltype(&curl_free)> escaped(curl_escape(text.c_str(), 0), &curl_free);
    if (!escaped) return false;
    *out = escaped.get();
    return true;
}

// The stream takes no more text once a value could not be escaped.
void WriteEscaped(std::stringstream* out, const std::string& text) {
    std::string escaped;
    if (Escape(text, &escaped)) {
        *out << escaped;
    } else {
        out->setstate(std::ios::failbit);
    }
}

std::string WithQuery(const std::string& base, const std::string& query) {
    return query.empty() ? base : base + "?" + query;
}

template <typename T>
std::string AsText(T value) {
    std::ostringstream text;
    text << value;
    return text.str();
}

}  // namespace

// ---- Url ------------------------------------------------------------------------------------

Url::Url(std::string url) {
    Parse(url);
}

int Url::Parse(const std::string& url) {
    scheme.clear();
    host.clear();
    port.clear();
    path.clear();
    query.clear();

    size_t scheme_end = url.find("://");
    scheme = ToLowerBytes(url.substr(0, scheme_end));
    if (scheme_end == std::string::npos) return -1;

    size_t authority_begin = scheme_end + 3;
    size_t authority_end = url.find('/', authority_begin);
    if (authority_end == std::string::npos) authority_end = url.size();

    // A ":" inside user information is not the port separator.
    size_t at = url.find('@', authority_begin);
    size_t search_from = (at != std::string::npos && at < authority_end) ? at : authority_begin;
    size_t separator = url.find(':', search_from);
    if (separator == std::string::npos || separator >= authority_end) separator = authority_end;

    host = ToLowerBytes(url.substr(authority_begin, separator - authority_begin));
    if (separator < authority_end) port = url.substr(separator + 1, authority_end - separator - 1);

    size_t question = url.find('?', authority_end);
    if (question == std::string::npos) {
        path = url.substr(authority_end);
    } else {
        path = url.substr(authority_end, question - authority_end);
        query = url.substr(question + 1);
    }
    return 0;
}

std::map<std::string, std::string> Url::ParseQuery(const std::string& query) {
    std::map<std::string, std::string> params;
    const std::string usable = query.substr(0, query.find('#'));
    size_t begin = 0;
    while (begin < usable.size()) {
        size_t amp = usable.find('&', begin);
        size_t end = amp == std::string::npos ? usable.size() : amp;
        size_t eq = usable.find('=', begin);
        if (eq == std::string::npos || eq >= end) break;
        params[usable.substr(begin, eq - begin)] = usable.substr(eq + 1, end - eq - 1);
        if (amp == std::string::npos) break;
        begin = amp + 1;
    }
    return params;
}

// ---- HttpRequest ----------------------------------------------------------------------------

HttpRequest::HttpRequest(const std::string& method, const std::string& host,
                         const std::string& path, const std::string& port)
    : method_(method),
      host_(host),
      path_(path),
      port_(port),
      base_url_(host + ":" + port + "/" + path) {}

HttpRequest::HttpRequest(const std::string& method, const std::string& url) : method_(method) {
    SetUrl(url);
}

void HttpRequest::SetUrl(const std::string& url) {
    Url parsed(url);
    host_ = parsed.host;
    path_ = parsed.path;
    port_ = parsed.port;

    base_url_.clear();
    if (!parsed.scheme.empty()) base_url_ += parsed.scheme + "://";
    base_url_ += host_;
    if (!port_.empty()) base_url_ += ":" + port_;
    base_url_ += path_;

    get_params_.clear();
    post_params_.clear();
    for (const auto& [name, value] : Url::ParseQuery(parsed.query))
        AddGetParam(name, value);
}

void HttpRequest::AddGetParam(const std::string& name, const std::string& value) {
    addParam(name, value, true);
}

void HttpRequest::AddGetParam(const std::string& name, int value) {
    addParam(name, AsText(value), true);
}

void HttpRequest::AddGetParam(const std::string& name, double value) {
    addParam(name, AsText(value), true);
}

void HttpRequest::AddPostParam(const std::string& name, const std::string& value) {
    addParam(name, value, false);
}

void HttpRequest::AddPostParam(const std::string& name, int value) {
    addParam(name, AsText(value), false);
}

void HttpRequest::AddPostParam(const std::string& name, double value) {
    addParam(name, AsText(value), false);
}

void HttpRequest::addParam(const std::string& name, const std::string& value, bool get) {
    (get ? get_params_ : post_params_).emplace_back(name, value);
}

void HttpRequest::AddPostData(const std::string& data) {
    post_data_ = data;
}

void HttpRequest::AddHeader(const std::string& name, const std::string& value) {
    headers_[name] = value;
}

void HttpRequest::SetCookie(const std::string& name, const std::string& value) {
    cookie_ = name + "=" + value;
}

void HttpRequest::EnableCookie(bool enable, const std::string& file) {
    cookie_file_ = enable ? file : std::string();
}

std::vector<std::string> HttpRequest::GetHeaders() const {
    std::vector<std::string> lines;
    lines.reserve(headers_.size());
    for (const auto& [name, value] : headers_)
        lines.push_back(name + ": " + value);
    return lines;
}

std::string HttpRequest::GetPostQuery() const {
    if (!post_data_.empty()) return post_data_;
    if (post_params_.empty()) return std::string();
    std::stringstream query;
    buildQuery(&query, post_params_);
    return query.str();
}

std::string HttpRequest::url() const {
    std::stringstream query;
    buildQuery(&query, get_params_);
    return WithQuery(base_url_, query.str());
}

std::string HttpRequest::encoded_url() const {
    if (!raw_url_.empty()) return raw_url_;
    // Servers of the device match parameter names as sent unescaped; only values are escaped.
    // Runners build this twice per request, so it is put together without a stream.
    std::string query;
    for (size_t i = 0; i < get_params_.size(); ++i) {
        if (i > 0) query += '&';
        query += get_params_[i].first;
        query += '=';
        std::string value;
        if (!Escape(get_params_[i].second, &value)) break;  // nothing more, as from buildQuery
        query += value;
    }
    return WithQuery(base_url_, query);
}

void HttpRequest::buildQuery(std::stringstream* out, const Params& params) {
    for (size_t i = 0; i < params.size(); ++i) {
        if (i > 0) *out << '&';
        WriteEscaped(out, params[i].first);
        *out << '=';
        WriteEscaped(out, params[i].second);
    }
}

}  // namespace utilities
}  // namespace quorvel
