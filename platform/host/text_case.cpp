// Unicode case mapping and case-insensitive comparison of the host platform, through ICU.

#include <unicode/ucasemap.h>
#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "moorglass.h"

namespace {

using CaseMap = std::unique_ptr<UCaseMap, decltype(&ucasemap_close)>;

using Mapper = int32_t (*)(const UCaseMap*, char*, int32_t, const char*, int32_t, UErrorCode*);

bool IsValidUtf8(const char* text, int32_t length) {
    const auto* s = reinterpret_cast<const uint8_t*>(text);
    for (int32_t i = 0; i < length;) {
        UChar32 c = 0;
        U8_NEXT(s, i, length, c);
        if (c < 0) return false;
    }
    return true;
}

// Runs an ICU UTF-8 case mapping into a malloc'ed buffer; NULL on invalid input.
char* MapCase(const char* text, Mapper mapper) {
    if (!text) return nullptr;
    auto length = static_cast<int32_t>(std::strlen(text));
    if (!IsValidUtf8(text, length)) return nullptr;
    UErrorCode status = U_ZERO_ERROR;
    // The root locale: the device's texts mix languages, and no locale's special rules (Turkish
    // dotless i) should apply to all of them.
    CaseMap map(ucasemap_open("", U_FOLD_CASE_DEFAULT, &status), &ucasemap_close);
    if (U_FAILURE(status)) return nullptr;
    int32_t needed = mapper(map.get(), nullptr, 0, text, length, &status);
    if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) return nullptr;
    status = U_ZERO_ERROR;
    char* out = static_cast<char*>(std::malloc(static_cast<size_t>(needed) + 1));
    if (!out) return nullptr;
    mapper(map.get(), out, needed + 1, text, length, &status);
    if (U_FAILURE(status)) {
        std::free(out);
        return nullptr;
    }
    out[needed] = '\0';
    return out;
}

// Compares two UTF-8 texts code point by code point after simple case folding, reading at most
// `limit` bytes of each. Invalid bytes compare as themselves.
int FoldCompare(const char* a, const char* b, size_t limit) {
    const auto* sa = reinterpret_cast<const uint8_t*>(a);
    const auto* sb = reinterpret_cast<const uint8_t*>(b);
    auto la = static_cast<int32_t>(strnlen(a, limit));
    auto lb = static_cast<int32_t>(strnlen(b, limit));
    int32_t ia = 0;
    int32_t ib = 0;
    while (ia < la && ib < lb) {
        UChar32 ca = 0;
        UChar32 cb = 0;
        U8_NEXT(sa, ia, la, ca);
        U8_NEXT(sb, ib, lb, cb);
        UChar32 fa = ca < 0 ? ca : u_foldCase(ca, U_FOLD_CASE_DEFAULT);
        UChar32 fb = cb < 0 ? cb : u_foldCase(cb, U_FOLD_CASE_DEFAULT);
        if (fa != fb) return fa < fb ? -1 : 1;
    }
    if (ia < la) return 1;
    if (ib < lb) return -1;
    return 0;
}

}  // namespace

extern "C" {

char* utf_tolower_ext(const char* text) {
    return MapCase(text, &ucasemap_utf8ToLower);
}

char* utf_toupper_ext(const char* text) {
    return MapCase(text, &ucasemap_utf8ToUpper);
}

int mg_strcasecmp(const char* a, const char* b) {
    if (!a || !b) return a == b ? 0 : (a ? 1 : -1);
    return FoldCompare(a, b, static_cast<size_t>(-1));
}

int mg_strncasecmp(const char* a, const char* b, size_t n) {
    if (!a || !b) return a == b ? 0 : (a ? 1 : -1);
    return FoldCompare(a, b, n);
}

}  // extern "C"
