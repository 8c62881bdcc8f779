#include "common_utilities/shared_state.h"

#include <semaphore.h>
#include <sys/mman.h>

#include "common_utilities/shared_memory_map.h"

namespace quorvel {
namespace utilities {

SharedStateImpl::~SharedStateImpl() {
    if (!base_) return;
    sem_destroy(static_cast<sem_t*>(base_));
    Unmap();
    shm_unlink(name_.c_str());
}

void SharedStateImpl::Unmap() {
    munmap(base_, size_ + kHeaderSize);
    base_ = nullptr;
}

int SharedStateImpl::Init(std::string name, size_t size) {
    // A second Init maps anew; the old mapping would otherwise stay behind for good.
    if (base_) Unmap();
    SharedMapping mapping;
    MapStep step = MapSharedObject(name, size + kHeaderSize, false, &mapping);
    if (CheckMapStep(step, mapping, name) != QV_OK) return QV_FAILED;
    if (mapping.old_size == 0) {
        int err = sem_init(static_cast<sem_t*>(mapping.base), 1, 1);
        if (-1 == err) munmap(mapping.base, size + kHeaderSize);
        QV_RETURN_IF(-1 == err, QV_FAILED);
    }
    name_ = name;
    base_ = mapping.base;
    size_ = size;
    return QV_OK;
}

int SharedStateImpl::LockState() {
    return base_ ? sem_wait(static_cast<sem_t*>(base_)) : 0;
}

int SharedStateImpl::UnlockState() {
    return base_ ? sem_post(static_cast<sem_t*>(base_)) : 0;
}

}  // namespace utilities
}  // namespace quorvel
