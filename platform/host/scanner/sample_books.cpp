#include "sample_books.h"

#include <sys/stat.h>
#include <zip.h>
#include <zlib.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <vector>

#include "cover_maker.h"

namespace qvhost {
namespace {

void MakeParentDirs(const std::string& path) {
    for (size_t pos = 1; pos < path.size(); ++pos) {
        if (path[pos] == '/') ::mkdir(path.substr(0, pos).c_str(), 0755);
    }
}

unsigned Colour(unsigned seed) {
    // Spread the seeds over clearly different, not too dark colours.
    unsigned h = seed * 2654435761u;
    return 0x404040u | (h & 0xBFBFBFu);
}

void PutBig32(std::string* out, uint32_t n) {
    for (int shift = 24; shift >= 0; shift -= 8)
        out->push_back(static_cast<char>((n >> shift) & 0xFF));
}

void PutChunk(std::string* png, const char* type, const std::string& data) {
    PutBig32(png, static_cast<uint32_t>(data.size()));
    std::string body = std::string(type, 4) + data;
    png->append(body);
    PutBig32(png, static_cast<uint32_t>(crc32(0, reinterpret_cast<const Bytef*>(body.data()),
                                              static_cast<uInt>(body.size()))));
}

std::string SolidPng(int width, int height, unsigned rgb) {
    std::string raw;
    raw.reserve(static_cast<size_t>(height) * (1 + 3 * static_cast<size_t>(width)));
    for (int y = 0; y < height; ++y) {
        raw.push_back(0);  // no filter
        for (int x = 0; x < width; ++x) {
            raw.push_back(static_cast<char>(rgb >> 16));
            raw.push_back(static_cast<char>(rgb >> 8));
            raw.push_back(static_cast<char>(rgb));
        }
    }
    uLongf size = compressBound(static_cast<uLong>(raw.size()));
    std::string packed(size, '\0');
    compress(reinterpret_cast<Bytef*>(&packed[0]), &size,
             reinterpret_cast<const Bytef*>(raw.data()), static_cast<uLong>(raw.size()));
    packed.resize(size);
    std::string header;
    PutBig32(&header, static_cast<uint32_t>(width));
    PutBig32(&header, static_cast<uint32_t>(height));
    header += std::string("\x08\x02\x00\x00\x00", 5);  // 8 bits, RGB
    std::string png = "\x89PNG\r\n\x1a\n";
    PutChunk(&png, "IHDR", header);
    PutChunk(&png, "IDAT", packed);
    PutChunk(&png, "IEND", "");
    return png;
}

bool WriteFile(const std::string& path, const std::string& data) {
    MakeParentDirs(path);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << data;
    return static_cast<bool>(out.flush());
}

// Text for a PDF string: the characters that need it escaped, anything beyond ASCII dropped.
std::string PdfText(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '(' || c == ')' || c == '\\') out += '\\';
        if (static_cast<unsigned char>(c) >= 32 && static_cast<unsigned char>(c) < 127) out += c;
    }
    return out;
}

std::string Pdf(const std::string& title, int width, int height, unsigned rgb) {
    char colour[64];
    std::snprintf(colour, sizeof colour, "%.3f %.3f %.3f rg", ((rgb >> 16) & 255) / 255.0,
                  ((rgb >> 8) & 255) / 255.0, (rgb & 255) / 255.0);
    std::ostringstream content;
    content << colour << " 0 0 " << width << " " << height << " re f 0 g BT /F1 "
            << std::max(6, width / 12) << " Tf " << width / 10 << " " << height * 3 / 4 << " Td ("
            << PdfText(title) << ") Tj ET";
    std::string stream = content.str();
    std::vector<std::string> objects = {
        "<< /Type /Catalog /Pages 2 0 R >>",
        "<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 " + std::to_string(width) + " " +
            std::to_string(height) + "] /Contents 4 0 R /Resources << /Font << /F1 5 0 R >> >> >>",
        "<< /Length " + std::to_string(stream.size()) + " >>\nstream\n" + stream + "\nendstream",
        "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>",
        "<< /Title (" + PdfText(title) + ") /Author (Sample Press) >>",
    };
    std::string pdf = "%PDF-1.4\n";
    std::vector<size_t> offsets;
    for (size_t i = 0; i < objects.size(); ++i) {
        offsets.push_back(pdf.size());
        pdf += std::to_string(i + 1) + " 0 obj\n" + objects[i] + "\nendobj\n";
    }
    size_t xref = pdf.size();
    pdf += "xref\n0 " + std::to_string(objects.size() + 1) + "\n0000000000 65535 f \n";
    for (size_t offset : offsets) {
        char entry[32];
        std::snprintf(entry, sizeof entry, "%010zu 00000 n \n", offset);
        pdf += entry;
    }
    pdf += "trailer\n<< /Size " + std::to_string(objects.size() + 1) +
           " /Root 1 0 R /Info 6 0 R >>\nstartxref\n" + std::to_string(xref) + "\n%%EOF\n";
    return pdf;
}

bool AddMember(zipFile zip, const std::string& name, const std::string& data, bool store) {
    zip_fileinfo info = {};
    if (zipOpenNewFileInZip(zip, name.c_str(), &info, nullptr, 0, nullptr, 0, nullptr,
                            store ? 0 : Z_DEFLATED, store ? 0 : Z_DEFAULT_COMPRESSION) != ZIP_OK) {
        return false;
    }
    bool ok = zipWriteInFileInZip(zip, data.data(), static_cast<unsigned>(data.size())) == ZIP_OK;
    return zipCloseFileInZip(zip) == ZIP_OK && ok;
}

std::string XmlText(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '&')
            out += "&amp;";
        else if (c == '<')
            out += "&lt;";
        else if (c == '>')
            out += "&gt;";
        else if (c == '"')
            out += "&quot;";
        else
            out += c;
    }
    return out;
}

bool WriteEpub(const std::string& path, const std::string& title, int width, int height,
               unsigned rgb) {
    MakeParentDirs(path);
    zipFile zip = zipOpen64(path.c_str(), APPEND_STATUS_CREATE);
    if (zip == nullptr) return false;
    std::string container =
        "<?xml version=\"1.0\"?>\n<container version=\"1.0\" "
        "xmlns=\"urn:oasis:names:tc:opendocument:xmlns:container\"><rootfiles>"
        "<rootfile full-path=\"OEBPS/content.opf\" media-type=\"application/oebps-package+xml\"/>"
        "</rootfiles></container>\n";
    std::string opf =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<package "
        "xmlns=\"http://www.idpf.org/2007/opf\" "
        "version=\"2.0\" unique-identifier=\"id\"><metadata "
        "xmlns:dc=\"http://purl.org/dc/elements/1.1/\"><dc:title>" +
        XmlText(title) +
        "</dc:title><dc:creator>Sample Press</dc:creator><dc:identifier "
        "id=\"id\">sample</dc:identifier>"
        "<meta name=\"cover\" content=\"cover-image\"/></metadata><manifest>"
        "<item id=\"page\" href=\"text/page.xhtml\" media-type=\"application/xhtml+xml\"/>"
        "<item id=\"cover-image\" href=\"images/cover%20art.png\" media-type=\"image/png\"/>"
        "</manifest><spine><itemref idref=\"page\"/></spine></package>\n";
    std::string page = "<html xmlns=\"http://www.w3.org/1999/xhtml\"><body><h1>" + XmlText(title) +
                       "</h1></body></html>\n";
    bool ok = AddMember(zip, "mimetype", "application/epub+zip", true) &&
              AddMember(zip, "META-INF/container.xml", container, false) &&
              AddMember(zip, "OEBPS/content.opf", opf, false) &&
              AddMember(zip, "OEBPS/text/page.xhtml", page, false) &&
              AddMember(zip, "OEBPS/images/cover art.png", SolidPng(width, height, rgb), true);
    return zipClose(zip, nullptr) == ZIP_OK && ok;
}

std::string Ppm(int width, int height, unsigned rgb) {
    std::string ppm = "P6\n" + std::to_string(width) + " " + std::to_string(height) + "\n255\n";
    for (int i = 0; i < width * height; ++i) {
        ppm.push_back(static_cast<char>(rgb >> 16));
        ppm.push_back(static_cast<char>(rgb >> 8));
        ppm.push_back(static_cast<char>(rgb));
    }
    return ppm;
}

}  // namespace

const char* BookExtension(BookKind kind) {
    switch (kind) {
        case BookKind::kPdf:
            return "pdf";
        case BookKind::kEpub:
            return "epub";
        case BookKind::kDjvu:
            return "djvu";
        case BookKind::kPng:
            return "png";
        case BookKind::kJpeg:
            return "jpg";
    }
    return "";
}

bool WriteSolidPng(const std::string& path, int width, int height, unsigned rgb) {
    return WriteFile(path, SolidPng(width, height, rgb));
}

bool WriteSampleBook(BookKind kind, const std::string& path, const std::string& title, int width,
                     int height, unsigned seed) {
    unsigned rgb = Colour(seed);
    switch (kind) {
        case BookKind::kPdf:
            return WriteFile(path, Pdf(title, width, height, rgb));
        case BookKind::kEpub:
            return WriteEpub(path, title, width, height, rgb);
        case BookKind::kPng:
            return WriteSolidPng(path, width, height, rgb);
        case BookKind::kJpeg:
        case BookKind::kDjvu: {
            std::string ppm = path + ".ppm";
            bool ok =
                WriteFile(ppm, Ppm(width, height, rgb)) &&
                (kind == BookKind::kJpeg ? qvscanner::RunQuietly({"convert", ppm, "JPEG:" + path})
                                         : qvscanner::RunQuietly({"c44", ppm, path}));
            std::remove(ppm.c_str());
            return ok;
        }
    }
    return false;
}

}  // namespace qvhost
