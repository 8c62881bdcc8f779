/* Directory reading for 32-bit programs under user-mode emulation.
 *
 * The device's 32-bit kernel hands a 32-bit program directory positions that fit its 32-bit
 * off_t (ext4 gives such a program 32-bit hashes). An emulated program runs inside a 64-bit
 * emulator process instead, so ext4 gives it 64-bit hashes, and glibc's readdir without large
 * file support then fails with EOVERFLOW on every directory of the host's disk: a fault of the
 * emulation that the device never shows. Preloaded into every emulated program by
 * `./run device-test`, this readdir reads the 64-bit entry and hands it on with the position the
 * device's kernel would give. Inode numbers that do not fit still fail as they would there.
 * Positions from telldir are the emulator's, so seekdir stays unsupported, as it is unused. */
#define _GNU_SOURCE
#include <dirent.h>
#include <errno.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/types.h>

#if !defined(__arm__) || defined(__USE_FILE_OFFSET64)
#error "only for 32-bit ARM programs built without large file support"
#endif

static __thread struct dirent entry;

struct dirent* readdir(DIR* dir) {
    const struct dirent64* wide = readdir64(dir);
    if (wide == NULL) return NULL;
    if ((uint64_t)wide->d_ino > UINT32_MAX) {
        errno = EOVERFLOW;
        return NULL;
    }
    entry.d_ino = (ino_t)wide->d_ino;
    /* The hash a 32-bit caller gets is the high half of the 64-bit position. */
    const int64_t position = wide->d_off;
    entry.d_off = (off_t)(position == (int32_t)position ? position : position >> 32);
    entry.d_type = wide->d_type;
    size_t length = strnlen(wide->d_name, sizeof entry.d_name - 1);
    memcpy(entry.d_name, wide->d_name, length);
    entry.d_name[length] = '\0';
    entry.d_reclen = (unsigned short)(offsetof(struct dirent, d_name) + length + 1);
    return &entry;
}
