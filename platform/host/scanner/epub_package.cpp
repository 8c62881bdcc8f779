#include "epub_package.h"

#include <expat.h>
#include <unzip.h>

#include <cstring>
#include <map>
#include <vector>

namespace qvscanner {
namespace {

constexpr size_t kMaxMember = 64u << 20;  // a cover or a package larger than this is damage

using Attributes = std::map<std::string, std::string>;

// The local name of an element ("opf:item" and "item" are the same element).
std::string LocalName(const char* name) {
    const char* colon = std::strrchr(name, ':');
    return colon ? colon + 1 : name;
}

// The elements of an XML document with their attributes and text, in document order; enough
// for the two small documents of a package.
struct Element {
    std::string name;
    Attributes attributes;
    std::string text;
};

std::optional<std::vector<Element>> ParseElements(const std::string& xml) {
    struct Collector {
        std::vector<Element> elements;
        std::vector<size_t> open;
    } collector;
    XML_Parser parser = XML_ParserCreateNS(nullptr, ':');
    if (parser == nullptr) return std::nullopt;
    XML_SetUserData(parser, &collector);
    XML_SetElementHandler(
        parser,
        [](void* data, const XML_Char* name, const XML_Char** attributes) {
            auto* c = static_cast<Collector*>(data);
            Element element{LocalName(name), {}, {}};
            for (int i = 0; attributes[i]; i += 2) {
                element.attributes[LocalName(attributes[i])] = attributes[i + 1];
            }
            c->open.push_back(c->elements.size());
            c->elements.push_back(std::move(element));
        },
        [](void* data, const XML_Char*) { static_cast<Collector*>(data)->open.pop_back(); });
    XML_SetCharacterDataHandler(parser, [](void* data, const XML_Char* text, int length) {
        auto* c = static_cast<Collector*>(data);
        if (!c->open.empty()) c->elements[c->open.back()].text.append(text, length);
    });
    bool ok = XML_Parse(parser, xml.data(), static_cast<int>(xml.size()), 1) == XML_STATUS_OK;
    XML_ParserFree(parser);
    if (!ok) return std::nullopt;
    return collector.elements;
}

std::string PercentDecode(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() &&
            std::isxdigit(static_cast<unsigned char>(text[i + 1])) &&
            std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
            out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

// `href` of the package, relative to the package's folder, as a path inside the archive.
std::string ResolveHref(const std::string& package_path, const std::string& href) {
    std::string base = package_path.substr(0, package_path.rfind('/') + 1);
    std::vector<std::string> parts;
    std::string joined = base + PercentDecode(href.substr(0, href.find('#'))) + "/";
    std::string part;
    for (char c : joined) {
        if (c != '/') {
            part += c;
            continue;
        }
        if (part == "..") {
            if (!parts.empty()) parts.pop_back();
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        part.clear();
    }
    std::string path;
    for (const std::string& p : parts)
        path += (path.empty() ? "" : "/") + p;
    return path;
}

bool IsImage(const Attributes& item) {
    auto type = item.find("media-type");
    return type != item.end() && type->second.compare(0, 6, "image/") == 0;
}

// The cover's manifest item: the EPUB 3 "cover-image" property, else the EPUB 2 meta named
// "cover", else an image whose id or name says cover, else the first image.
std::string FindCoverHref(const std::vector<Element>& elements) {
    std::string cover_id;
    std::vector<const Attributes*> images;
    for (const Element& e : elements) {
        if (e.name == "meta" && e.attributes.count("name") && e.attributes.at("name") == "cover") {
            cover_id = e.attributes.count("content") ? e.attributes.at("content") : "";
        }
        if (e.name == "item" && IsImage(e.attributes)) images.push_back(&e.attributes);
    }
    auto get = [](const Attributes* a, const char* key) {
        auto it = a->find(key);
        return it == a->end() ? std::string() : it->second;
    };
    for (const Attributes* item : images) {
        if (get(item, "properties").find("cover-image") != std::string::npos)
            return get(item, "href");
    }
    for (const Attributes* item : images) {
        if (!cover_id.empty() && get(item, "id") == cover_id) return get(item, "href");
    }
    for (const Attributes* item : images) {
        std::string id = get(item, "id") + " " + get(item, "href");
        for (char& c : id)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        if (id.find("cover") != std::string::npos) return get(item, "href");
    }
    return images.empty() ? std::string() : get(images.front(), "href");
}

}  // namespace

std::optional<std::string> ReadZipMember(const std::string& archive, const std::string& member) {
    unzFile zip = unzOpen64(archive.c_str());
    if (zip == nullptr) return std::nullopt;
    std::optional<std::string> result;
    unz_file_info64 info;
    if (unzLocateFile(zip, member.c_str(), 2) == UNZ_OK &&
        unzGetCurrentFileInfo64(zip, &info, nullptr, 0, nullptr, 0, nullptr, 0) == UNZ_OK &&
        info.uncompressed_size <= kMaxMember && unzOpenCurrentFile(zip) == UNZ_OK) {
        std::string data(static_cast<size_t>(info.uncompressed_size), '\0');
        int read = data.empty()
                       ? 0
                       : unzReadCurrentFile(zip, &data[0], static_cast<unsigned>(data.size()));
        if (read == static_cast<int>(data.size()) && unzCloseCurrentFile(zip) == UNZ_OK) {
            result = std::move(data);
        }
    }
    unzClose(zip);
    return result;
}

std::optional<EpubPackage> ReadEpubPackage(const std::string& path) {
    auto container = ReadZipMember(path, "META-INF/container.xml");
    if (!container) return std::nullopt;
    auto container_elements = ParseElements(*container);
    if (!container_elements) return std::nullopt;
    std::string package_path;
    for (const Element& e : *container_elements) {
        if (e.name == "rootfile" && e.attributes.count("full-path")) {
            package_path = e.attributes.at("full-path");
            break;
        }
    }
    auto package = package_path.empty() ? std::nullopt : ReadZipMember(path, package_path);
    auto elements = package ? ParseElements(*package) : std::nullopt;
    if (!elements) return std::nullopt;
    EpubPackage result;
    for (const Element& e : *elements) {
        if (e.name == "title" && result.title.empty()) result.title = e.text;
        if (e.name == "creator" && result.author.empty()) result.author = e.text;
    }
    std::string href = FindCoverHref(*elements);
    if (!href.empty()) result.cover_path = ResolveHref(package_path, href);
    return result;
}

}  // namespace qvscanner
