// The scanner application of the device ("/zelgrot/bin/adobescanner.app"), which makes the covers
// (and reads the metadata) of the books only it can open, and the texts of its errors.
#pragma once

#include <string>

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace utilities {

// Hands `book` to the scanner: its cover, fitted in `width` x `height`, goes to `cache_path`
// (and its metadata beside it when `metadata` is set; PDF files always get it). Starts the
// scanner, or queues the job when it runs already. 0 when handed over, 1 when not.
QV_EXPORT int RunAdobeScanner(const std::string& book, const std::string& cache_path, int width,
                              int height, bool metadata);

// The scanner's errors are codes among words ("_ADEPT_CORE_EXPIRED ..." or "AUTHNOTREADY"): the
// translation of the first code that the interface has one for, else the text as it stands.
QV_EXPORT std::string ConvertAdobeError(const std::string& text);

}  // namespace utilities
}  // namespace quorvel
