// The shared control block of the host: a file of the state directory that every process of the
// device maps shared, so that the mailbox an application writes is the one the host shell reads.
// A fresh device has a zeroed block, the mailbox free.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "host_state.h"
#include "moorglass.h"
#include "moorglass_host.h"

namespace {

mgmpc_s* MapBlock() {
    qvhost::EnsureStateDir();
    int fd = ::open(qvhost_mgmpc_path(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) return nullptr;
    // Growing an existing block of the right size changes nothing; a new file comes zeroed.
    void* block = MAP_FAILED;
    if (::ftruncate(fd, sizeof(mgmpc_s)) == 0) {
        block = ::mmap(nullptr, sizeof(mgmpc_s), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    }
    ::close(fd);
    return block == MAP_FAILED ? nullptr : static_cast<mgmpc_s*>(block);
}

// Mapped before the application's code runs, as the device's shell maps it before it starts an
// application. QV_HOST_NO_SHELL_BLOCK leaves it unmapped: a device without the shell.
__attribute__((constructor)) void MapControlBlock() {
    const char* off = std::getenv("QV_HOST_NO_SHELL_BLOCK");
    if (off && *off && std::strcmp(off, "0") != 0) return;
    mgmpc = MapBlock();
}

}  // namespace

extern "C" {

mgmpc_s* mgmpc = nullptr;

const char* qvhost_mgmpc_path(void) {
    static thread_local std::string path;
    path = qvhost::StatePath("mgmpc");
    return path.c_str();
}

int PackParameters(int count, char** list, char** buffer, int* size) {
    if (count < 0 || (count > 0 && list == nullptr) || buffer == nullptr || size == nullptr) {
        return -1;
    }
    std::string block(sizeof(int32_t), '\0');
    int32_t n = count;
    std::memcpy(&block[0], &n, sizeof n);
    for (int i = 0; i < count; ++i) {
        if (list[i] == nullptr) return -1;
        block.append(list[i], std::strlen(list[i]) + 1);
    }
    char* out = static_cast<char*>(std::malloc(block.size()));
    if (out == nullptr) return -1;
    std::memcpy(out, block.data(), block.size());
    *buffer = out;
    *size = static_cast<int>(block.size());
    return 0;
}

int qvhost_unpack_parameters(const void* block, int size, char*** list) {
    if (block == nullptr || list == nullptr || size < static_cast<int>(sizeof(int32_t))) return -1;
    const char* bytes = static_cast<const char*>(block);
    int32_t count = 0;
    std::memcpy(&count, bytes, sizeof count);
    // Every string needs at least its terminator: a count beyond that is a damaged block.
    if (count < 0 || count > size) return -1;
    char** out = static_cast<char**>(std::calloc(static_cast<size_t>(count) + 1, sizeof(char*)));
    if (out == nullptr) return -1;
    size_t pos = sizeof(int32_t);
    for (int32_t i = 0; i < count; ++i) {
        const void* end = pos < static_cast<size_t>(size)
                              ? std::memchr(bytes + pos, '\0', static_cast<size_t>(size) - pos)
                              : nullptr;
        if (end == nullptr) {
            qvhost_free_parameters(out);
            return -1;
        }
        out[i] = ::strdup(bytes + pos);
        pos = static_cast<size_t>(static_cast<const char*>(end) - bytes) + 1;
    }
    *list = out;
    return count;
}

void qvhost_free_parameters(char** list) {
    if (list == nullptr) return;
    for (char** entry = list; *entry; ++entry)
        std::free(*entry);
    std::free(list);
}

}  // extern "C"
