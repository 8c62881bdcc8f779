// A cursor over a JSON document (json-c): members of the current object are read as text, lists
// or integers, and the cursor descends into members and walks arrays. Used from one thread.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "common_utilities/common_utilities.h"

struct json_object;

namespace quorvel {
namespace system {
class NetworkParser;
}

namespace utilities {

class QV_EXPORT JsonParser {
public:
    // Results of the member reads besides 0.
    static constexpr int kNotAnObject = -2;  // no current object, or not the kind asked for
    static constexpr int kNoMember = -8;     // missing, or JSON null

    JsonParser() = default;
    ~JsonParser();
    JsonParser(const JsonParser&) = delete;
    JsonParser& operator=(const JsonParser&) = delete;

    // Parses `text`; the root becomes current. QV_FAILED when it isn't JSON.
    int Init(const std::string& text);

    // A member as text (a number in decimal); `out` is untouched on failure.
    int Parse(const std::string& key, std::string* out);
    // An array member, its elements as text, empty ones skipped.
    int Parse(const std::string& key, std::vector<std::string>* out);
    // An integer member; true when it was there (`out` keeps its value otherwise).
    bool ParseInt(const std::string& key, int* out);
    // Makes a member the current object; the level is left by the caller.
    int PushKey(const std::string& key);
    // Calls `functor` with each element of the current array as current, in order.
    int ParseArrayConstFunctor(const std::function<int(JsonParser&)>& functor);

private:
    friend class system::NetworkParser;

    // Leaves the level entered by the last PushKey.
    void PopKey();
    // The member of the current object, or null with the reason in `rc`.
    json_object* Member(const std::string& key, int* rc) const;

    json_object* root_obj_ = nullptr;
    json_object* current_ = nullptr;
    std::vector<json_object*> stack_;
};

}  // namespace utilities
}  // namespace quorvel
