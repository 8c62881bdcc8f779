// Books of the audiobook library as qvtool's commands find and show them.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

#include "cli.h"
#include "common_utilities/audio/audio_books_manager.h"

namespace qvtool {

using BookPtr = std::shared_ptr<quorvel::audio::AudioBook>;

// "0:04:07", "12:00:00"; negative times keep their sign.
inline std::string Clock(long long seconds) {
    const char* sign = seconds < 0 ? "-" : "";
    if (seconds < 0) seconds = -seconds;
    char text[32];
    std::snprintf(text, sizeof text, "%s%lld:%02lld:%02lld", sign, seconds / 3600,
                  seconds / 60 % 60, seconds % 60);
    return text;
}

inline long long ParseId(Args& args, const std::string& what) {
    long long id = ParseInteger(args.Next(what), what);
    if (id <= 0) throw Failure(kNotFound, "no " + what + " " + std::to_string(id));
    return id;
}

// The book with its chapters, ready for conversions; kNotFound when there is none.
inline BookPtr LoadBook(quorvel::audio::AudioBooksManager& library, long long id) {
    for (auto& book : library.getAudioBooks(quorvel::audio::AudioBooksManager::OrderByTitle)) {
        if (book->getId() != id) continue;
        book->setChapters(library.getBookChapters(id));
        return book;
    }
    throw Failure(kNotFound, "no book " + std::to_string(id));
}

}  // namespace qvtool
