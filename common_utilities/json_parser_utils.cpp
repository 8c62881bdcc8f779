#include "common_utilities/json_parser_utils.h"

#include <json-c/json.h>

#ifndef is_error
#define is_error(ptr) ((ptr) == nullptr)
#endif

namespace quorvel {
namespace utilities {

JsonParser::~JsonParser() {
    if (root_obj_) json_object_put(root_obj_);
}

int JsonParser::Init(const std::string& text) {
    if (root_obj_) json_object_put(root_obj_);
    stack_.clear();
    root_obj_ = json_tokener_parse(text.c_str());
    current_ = root_obj_;
    QV_RETURN_IF(is_error(root_obj_), QV_FAILED);
    return QV_OK;
}

json_object* JsonParser::Member(const std::string& key, int* rc) const {
    json_object* member = nullptr;
    if (!current_ || json_object_get_type(current_) != json_type_object) {
        *rc = kNotAnObject;
    } else if (!json_object_object_get_ex(current_, key.c_str(), &member) || !member) {
        *rc = kNoMember;
        member = nullptr;
    } else {
        *rc = 0;
    }
    return member;
}

int JsonParser::Parse(const std::string& key, std::string* out) {
    int rc = 0;
    json_object* member = Member(key, &rc);
    if (!member) return rc;
    const char* text = json_object_get_string(member);
    if (out) *out = text ? text : "";
    return 0;
}

int JsonParser::Parse(const std::string& key, std::vector<std::string>* out) {
    int rc = 0;
    json_object* member = Member(key, &rc);
    if (!member) return rc;
    if (json_object_get_type(member) != json_type_array) return kNotAnObject;
    size_t count = json_object_array_length(member);
    for (size_t i = 0; i < count; ++i) {
        const char* text = json_object_get_string(json_object_array_get_idx(member, i));
        if (out && text && *text) out->emplace_back(text);
    }
    return 0;
}

bool JsonParser::ParseInt(const std::string& key, int* out) {
    int rc = 0;
    json_object* member = Member(key, &rc);
    if (!member) return false;
    if (out) *out = json_object_get_int(member);
    return true;
}

int JsonParser::PushKey(const std::string& key) {
    int rc = 0;
    json_object* member = Member(key, &rc);
    if (!member) return rc;
    stack_.push_back(current_);
    current_ = member;
    return 0;
}

void JsonParser::PopKey() {
    if (stack_.empty()) return;
    current_ = stack_.back();
    stack_.pop_back();
}

int JsonParser::ParseArrayConstFunctor(const std::function<int(JsonParser&)>& functor) {
    if (!current_ || json_object_get_type(current_) != json_type_array) return kNotAnObject;
    if (!json_object_get_array(current_)) return kNotAnObject;
    json_object* array = current_;
    stack_.push_back(array);
    size_t count = json_object_array_length(array);
    for (size_t i = 0; i < count; ++i) {
        current_ = json_object_array_get_idx(array, i);
        functor(*this);
    }
    // Only the outermost array is walked this way: the cursor stays on its last element.
    stack_.pop_back();
    return 0;
}

}  // namespace utilities
}  // namespace quorvel
