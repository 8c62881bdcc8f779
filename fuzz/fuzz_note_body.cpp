// Note bodies as the reading application leaves them in its database: the JSON values of the
// quotation, comment and anchor tags, read through the getters of Note. The first line of the
// input names a member to ask for as well, since keys come from the application.

#include <string>

#include "common_utilities/reader_db_manager.h"
#include "fuzz_support.h"

using quorvel::utilities::Note;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const size_t line_end = input.find('\n');
    const std::string key = line_end == std::string::npos ? "" : input.substr(0, line_end);
    const std::string body = line_end == std::string::npos ? input : input.substr(line_end + 1);

    Note note;
    for (Note::Tags tag : {Note::Anchor, Note::Quotation, Note::Comment})
        note.setTag(tag, body, 0);
    std::string all = note.getText() + note.getNote() + note.getStartUri() + note.getEndUri() +
                      note.getAnchorUri();
    all += note.getJsonTagElement(Note::Quotation, key);
    // What the library writes, it must read back as it was.
    note.setText(all, 0);
    QVFUZZ_CHECK(note.getText() == all);
    return 0;
}
