// Note: the record of one note, its tags and the JSON bodies the reading application stores.

#include <json/json.h>

#include <cstdio>

#include "common_utilities/reader_db_manager.h"

namespace quorvel {
namespace utilities {
namespace {

// The member as the reading application's own code formats it, the C formats included.
std::string ElementText(const Json::Value& element) {
    char buffer[64];
    switch (element.type()) {
        case Json::booleanValue:
            return element.asBool() ? "true" : "false";
        case Json::stringValue:
            return element.asString();
        // 64 bits on every architecture: a 32-bit long would cut a large number down to another
        // one without a sign of it.
        case Json::intValue:
            std::snprintf(buffer, sizeof buffer, "%lld", static_cast<long long>(element.asInt64()));
            return buffer;
        case Json::uintValue:
            std::snprintf(buffer, sizeof buffer, "%llu",
                          static_cast<unsigned long long>(element.asUInt64()));
            return buffer;
        case Json::realValue:
            std::snprintf(buffer, sizeof buffer, "%lg", element.asDouble());
            return buffer;
        default:
            return "";
    }
}

// The parser that takes a range and keeps what it read of a body that then turned out broken:
// stored notes are read the way the reading application reads them.
Json::Value ParseWithoutLastCharacter(const std::string& value) {
    Json::Value root;
    if (value.empty()) return root;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    Json::Reader reader;
#pragma GCC diagnostic pop
    reader.parse(value.data(), value.data() + value.size() - 1, root, true);
    return root;
}

// The styled form of toStyledString (tab indents, " : ", a final line break), but with letters
// beyond ASCII written as they are: escaped as \uXXXX, as the styled writer of this JSON library
// does, they could never be found by a text search typed by a user.
std::string StyledTextObject(const std::string& text) {
    Json::Value object(Json::objectValue);
    object["text"] = text;
    Json::StreamWriterBuilder builder;
    builder["emitUTF8"] = true;
    return Json::writeString(builder, object) + '\n';
}

}  // namespace

Note::TagsTypes Note::getTagType(Tags tag) {
    switch (tag) {
        case Anchor:
        case Quotation:
        case Comment:
            return JsonText;
        case Tag108:
        case Image:
            return BinaryData;
        default:
            return PlainText;
    }
}

void Note::setTag(Tags tag, const std::string& value, time_t time) {
    tags[tag] = {value, time};
}

std::string Note::getTag(Tags tag) const {
    auto it = tags.find(tag);
    return it == tags.end() ? std::string() : it->second.first;
}

time_t Note::getTagTimeStamp(Tags tag) const {
    auto it = tags.find(tag);
    return it == tags.end() ? 0 : it->second.second;
}

void Note::setText(const std::string& text, long long time) {
    setTag(Quotation, StyledTextObject(text), static_cast<time_t>(time));
}

void Note::setNote(const std::string& text, long long time) {
    setTag(Comment, StyledTextObject(text), static_cast<time_t>(time));
}

std::string Note::getJsonTagElement(Tags tag, const std::string& key) const {
    auto it = tags.find(tag);
    if (it == tags.end()) return "";
    const Json::Value root = ParseWithoutLastCharacter(it->second.first);
    // A damaged body may parse into an array or a bare value, whose member lookup would throw
    // out of the caller; it has no members to give.
    if (!root.isObject()) return "";
    return ElementText(root[key]);
}

std::string Note::getText() const {
    return getJsonTagElement(Quotation, "text");
}
std::string Note::getNote() const {
    return getJsonTagElement(Comment, "text");
}
std::string Note::getStartUri() const {
    return getJsonTagElement(Quotation, "begin");
}
std::string Note::getEndUri() const {
    return getJsonTagElement(Quotation, "end");
}
std::string Note::getAnchorUri() const {
    return getJsonTagElement(Anchor, "anchor");
}

std::string Note::getType() const {
    return getTag(Type);
}
std::string Note::getPrimaryType() const {
    return getTag(Type);
}
std::string Note::getColor() const {
    return getTag(Color);
}
std::string Note::getIcon() const {
    return getTag(Icon);
}
std::string Note::getImage() const {
    return getTag(Image);
}
std::string Note::getDraws() const {
    return getTag(Draws);
}

}  // namespace utilities
}  // namespace quorvel
