// Members of a zip archive read as if they were files: the tag reader and the player open an
// audiobook's "<archive>:#zip(<entry>)" path through this.
//
// One object reads one archive, with one member open at a time; it belongs to one thread. The
// members are decompressed as they are read, never held whole, so a member of any size costs the
// same few kilobytes of memory.
#pragma once

#include <cstddef>
#include <list>
#include <string>

#include "common_utilities/common_utilities.h"

namespace quorvel {

// The reader's own result codes; every operation answers one of these or a count.
enum : int {
    QVZM_OK = 0,
    QVZM_NOT_OPENED = -1,
    QVZM_BAD_FILE_PATH = -2,
    QVZM_RESOURCE_BUSY = -3,
    QVZM_CURRENT_NOT_OPENED = -4,
    QVZM_BAD_INPUT_PARAMS = -5,
    QVZM_ERROR_GET_INFO = -6,
};

class QV_EXPORT QVZipManager {
public:
    QVZipManager() = default;
    ~QVZipManager();
    QVZipManager(const QVZipManager&) = delete;
    QVZipManager& operator=(const QVZipManager&) = delete;

    // Opens the archive and, unless `current_file` is empty, that member. A member that can't be
    // opened answers QVZM_CURRENT_NOT_OPENED and leaves the archive open. Names of members match
    // without regard to ASCII case; of two names differing only in case, the first in the
    // archive's directory wins.
    int Open(const std::string& zip_filepath, const std::string& current_file);
    // QVZM_OK, or QVZM_NOT_OPENED when nothing was open.
    int Close();
    bool IsOpen() const;
    bool IsCurrentOpen() const;

    // Opens another member; on failure none is open.
    int ChangeFile(const std::string& current_file);
    // Decompressed bytes of the open member: the count read (0 at its end), or a negative code
    // (minizip's, for a damaged member). One call reads at most INT_MAX bytes.
    int Read(void* buf, size_t size);
    // Reads and drops up to `size` bytes; the count dropped. A damaged member ends the skip
    // early and silently.
    long Skip(size_t size);
    // Position in the open member's decompressed bytes.
    long Tell() const;
    // Decompressed size of the open member.
    long GetCurrentFileSize() const;
    // The names of all members, in the archive's order, folders included (they end in "/").
    // Closes the open member: read again only after ChangeFile.
    int GetFilesList(std::list<std::string>& out);

private:
    void* zip_f_ = nullptr;  // minizip's unzFile
    std::string zip_filepath;
    std::string current_file;
};

}  // namespace quorvel
