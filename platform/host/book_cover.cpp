// Covers the platform reads from books itself: FictionBook files (".fb2"), whose cover is an
// image inside the file, named by the <coverpage> and held in a <binary> element as Base64. Other
// formats have no cover the platform can read (NULL): the scanner application makes theirs.

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "moorglass.h"

namespace {

constexpr std::streamoff kMaxBook = 64 << 20;

std::string Lower(std::string text) {
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

std::string ReadBook(const std::string& path) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in || in.tellg() > kMaxBook) return "";
    std::string data(static_cast<size_t>(in.tellg()), '\0');
    in.seekg(0);
    in.read(&data[0], static_cast<std::streamsize>(data.size()));
    return in ? data : "";
}

// The value of attribute `name` (any namespace prefix) in the tag that starts at `from`.
std::string Attribute(const std::string& xml, size_t from, const std::string& name) {
    size_t end = xml.find('>', from);
    std::string tag = xml.substr(from, end == std::string::npos ? std::string::npos : end - from);
    for (size_t pos = tag.find(name + "=\""); pos != std::string::npos;
         pos = tag.find(name + "=\"", pos + 1)) {
        char before = pos > 0 ? tag[pos - 1] : ' ';
        if (before != ' ' && before != ':' && before != '\t' && before != '\n') continue;
        size_t start = pos + name.size() + 2;
        return tag.substr(start, tag.find('"', start) - start);
    }
    return "";
}

std::string DecodeBase64(const std::string& text) {
    static const std::string kAlphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    unsigned buffer = 0;
    int bits = 0;
    for (char c : text) {
        size_t value = kAlphabet.find(c);
        if (c == '=') break;
        if (value == std::string::npos) continue;  // line breaks and blanks
        buffer = (buffer << 6) | static_cast<unsigned>(value);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(static_cast<char>((buffer >> bits) & 0xFF));
        }
    }
    return out;
}

// The cover image of a FictionBook and its content type; empty when it has none.
std::string FictionBookCover(const std::string& xml, std::string* type) {
    size_t coverpage = xml.find("<coverpage");
    size_t image = coverpage == std::string::npos ? coverpage : xml.find("<image", coverpage);
    if (image == std::string::npos) return "";
    std::string href = Attribute(xml, image, "href");
    if (href.size() < 2 || href[0] != '#') return "";
    std::string id = href.substr(1);
    for (size_t pos = xml.find("<binary"); pos != std::string::npos;
         pos = xml.find("<binary", pos + 1)) {
        if (Attribute(xml, pos, "id") != id) continue;
        *type = Lower(Attribute(xml, pos, "content-type"));
        size_t start = xml.find('>', pos);
        size_t end = start == std::string::npos ? start : xml.find("</binary>", start);
        if (end == std::string::npos) return "";
        return DecodeBase64(xml.substr(start + 1, end - start - 1));
    }
    return "";
}

ibitmap* Decode(const std::string& image, const std::string& type, int width, int height) {
    char path[] = "/tmp/bookcover.XXXXXX";
    int fd = ::mkstemp(path);
    if (fd < 0) return nullptr;
    bool written = ::write(fd, image.data(), image.size()) == static_cast<ssize_t>(image.size());
    ::close(fd);
    ibitmap* bitmap = nullptr;
    if (written && type == "image/png") {
        bitmap = (width > 0 && height > 0) ? LoadPNGStretch(path, width, height, 0, 1)
                                           : LoadPNG(path, 0);
    } else if (written && (type == "image/jpeg" || type == "image/jpg")) {
        bitmap = LoadJPEG(path, width, height, 100, 100, 1);
    }
    ::unlink(path);
    return bitmap;
}

}  // namespace

extern "C" {

ibitmap* GetBookCover(const char* path, int width, int height) {
    if (path == nullptr) return nullptr;
    std::string name = Lower(path);
    if (name.size() < 4 || name.compare(name.size() - 4, 4, ".fb2") != 0) return nullptr;
    std::string type;
    std::string image = FictionBookCover(ReadBook(path), &type);
    return image.empty() ? nullptr : Decode(image, type, width, height);
}

}  // extern "C"
