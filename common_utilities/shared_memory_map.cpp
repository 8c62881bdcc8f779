#include "common_utilities/shared_memory_map.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

namespace quorvel {
namespace utilities {

MapStep MapSharedObject(const std::string& name, size_t total, bool exclusive,
                        SharedMapping* mapping) {
    int flags = O_RDWR | O_CREAT | (exclusive ? O_EXCL : 0);
    int fd = ::shm_open(name.c_str(), flags, 0777);
    if (fd == -1) {
        mapping->error = errno;
        return MapStep::kOpen;
    }
    off_t end = ::lseek(fd, 0, SEEK_END);
    mapping->old_size = end > 0 ? static_cast<size_t>(end) : 0;
    if (mapping->old_size < total && ::ftruncate(fd, static_cast<off_t>(total)) == -1) {
        mapping->error = errno;
        ::close(fd);
        return MapStep::kTruncate;
    }
    void* base = ::mmap(nullptr, total, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    mapping->error = errno;
    ::close(fd);
    if (base == MAP_FAILED) return MapStep::kMap;
    mapping->base = base;
    return MapStep::kDone;
}

}  // namespace utilities
}  // namespace quorvel
