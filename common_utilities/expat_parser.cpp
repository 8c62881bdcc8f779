#include "common_utilities/expat_parser.h"

namespace quorvel {
namespace utilities {

ExpatParser::ExpatParser(IParser* handler)
    : parser_(XML_ParserCreate(nullptr)), handler_(handler) {}

ExpatParser::~ExpatParser() {
    if (parser_) XML_ParserFree(parser_);
}

void ExpatParser::init(const char* encoding) {
    if (!parser_) return;
    XML_ParserReset(parser_, nullptr);
    XML_SetUserData(parser_, this);
    if (encoding) XML_SetEncoding(parser_, encoding);
    XML_SetElementHandler(parser_, fStartElementHandler, fEndElementHandler);
    XML_SetCharacterDataHandler(parser_, fCharacterDataHandler);
    XML_SetUnknownEncodingHandler(parser_, fUnknownEncodingHandler, this);
    if (handler_) handler_->reset();
}

bool ExpatParser::parse(const char* data, unsigned int length) {
    if (!parser_ || !handler_) return false;
    return XML_Parse(parser_, data, static_cast<int>(length), 0) != XML_STATUS_ERROR;
}

void ExpatParser::fStartElementHandler(void* user, const XML_Char* name,
                                       const XML_Char** attributes) {
    auto* self = static_cast<ExpatParser*>(user);
    IParser::Attributes map;
    for (int i = 0; attributes[i]; i += 2)
        map[attributes[i]] = attributes[i + 1];
    self->handler_->startElement(name, map);
}

void ExpatParser::fEndElementHandler(void* user, const XML_Char* name) {
    static_cast<ExpatParser*>(user)->handler_->endElement(name);
}

void ExpatParser::fCharacterDataHandler(void* user, const XML_Char* text, int length) {
    static_cast<ExpatParser*>(user)->handler_->characterData(
        std::string(text, static_cast<size_t>(length)));
}

int ExpatParser::fUnknownEncodingHandler(void*, const XML_Char*, XML_Encoding*) {
    return XML_STATUS_ERROR;
}

}  // namespace utilities
}  // namespace quorvel
