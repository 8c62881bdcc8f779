#include "common_utilities/shared_memory_map.h"

#include "common_utilities/common_utilities.h"

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

int CheckMapStep(MapStep step, const SharedMapping& mapping, const std::string& name) {
    int fd = step == MapStep::kOpen ? -1 : 0;
    QV_RETURN_IF(-1 == fd, QV_FAILED);
    if (step == MapStep::kDone) return QV_OK;
    if (step == MapStep::kTruncate) {
        QV_LOG_ERROR("ftruncate failed with %d", mapping.error);
    } else {
        QV_LOG_ERROR("mmap failed with %d", mapping.error);
    }
    ::shm_unlink(name.c_str());
    return QV_FAILED;
}

}  // namespace utilities
}  // namespace quorvel
