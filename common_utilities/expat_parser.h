// A push parser of XML over expat that hands elements and text to an IParser. Data may come in
// pieces: the parser never takes a piece as the last, so a document can be fed as it arrives.
#pragma once

#include <expat.h>

#include <string>
#include <unordered_map>

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace utilities {

class QV_EXPORT IParser {
public:
    using Attributes = std::unordered_map<std::string, std::string>;

    virtual ~IParser() = default;
    // A new document begins.
    virtual void reset() = 0;
    virtual void startElement(const std::string& name, const Attributes& attributes) = 0;
    virtual void endElement(const std::string& name) = 0;
    // Text inside an element, in UTF-8; one run of text may come in several calls.
    virtual void characterData(const std::string& text) = 0;
};

class QV_EXPORT ExpatParser {
public:
    // `handler` stays the caller's.
    explicit ExpatParser(IParser* handler);
    ~ExpatParser();
    ExpatParser(const ExpatParser&) = delete;
    ExpatParser& operator=(const ExpatParser&) = delete;

    // Starts a document; `encoding` (e.g. "ISO-8859-1") overrides the document's own, null
    // keeps it. Encodings expat doesn't know fail the parse.
    void init(const char* encoding);
    // Feeds a piece of the document; false on malformed data or without parser or handler.
    bool parse(const char* data, unsigned int length);

    static void XMLCALL fStartElementHandler(void* user, const XML_Char* name,
                                             const XML_Char** attributes);
    static void XMLCALL fEndElementHandler(void* user, const XML_Char* name);
    static void XMLCALL fCharacterDataHandler(void* user, const XML_Char* text, int length);
    static int XMLCALL fUnknownEncodingHandler(void* data, const XML_Char* name,
                                               XML_Encoding* info);

private:
    XML_Parser parser_;
    IParser* handler_;
};

}  // namespace utilities
}  // namespace quorvel
