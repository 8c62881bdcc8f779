#include "common_utilities/sharedmemorysegment.h"

#include <semaphore.h>
#include <sys/mman.h>

#include <cstdlib>
#include <cstring>
#include <limits>

#include "common_utilities/shared_memory_map.h"

namespace quorvel {
namespace utilities {

namespace {

constexpr int kNameTries = 5;
constexpr int kNameLetters = 10;
constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyz";

}  // namespace

SharedMemorySegmentImpl::~SharedMemorySegmentImpl() {
    if (!base_) return;
    Clear();
    int res = shm_unlink(name_.c_str());
    QV_RETURN_VOID_IF(res < 0);
}

int SharedMemorySegmentImpl::Init(std::string name, size_t size) {
    return Map(name, size, false);
}

int SharedMemorySegmentImpl::Init(std::string* name, size_t size) {
    int result = QV_FAILED;
    for (int i = 0; i < kNameTries && result != QV_OK; ++i) {
        *name = "/" + generateRandomString(kNameLetters);
        result = Map(*name, size, true);
    }
    if (result == QV_OK) QV_LOG_INFO("");
    return result;
}

int SharedMemorySegmentImpl::Map(const std::string& name, size_t size, bool exclusive) {
    QV_LOG_INFO("%s %d", name.c_str(), static_cast<int>(size));
    // The header holds the size in 32 bits: a larger one would be read back wrong by everyone.
    QV_RETURN_IF(size > std::numeric_limits<uint32_t>::max() - kHeaderSize, QV_FAILED);
    if (base_) {
        Clear();
        if (name != name_) {
            int res = shm_unlink(name.c_str());
            QV_RETURN_IF(res < 0, QV_FAILED);
        }
    }
    SharedMapping mapping;
    MapStep step = MapSharedObject(name, size + kHeaderSize, exclusive, &mapping);
    if (CheckMapStep(step, mapping, name) != QV_OK) return QV_FAILED;
    int err = sem_init(static_cast<sem_t*>(mapping.base), 1, 1);
    if (-1 == err) munmap(mapping.base, size + kHeaderSize);
    QV_RETURN_IF(-1 == err, QV_FAILED);

    auto header = static_cast<uint32_t>(size);
    __atomic_store_n(reinterpret_cast<uint32_t*>(static_cast<char*>(mapping.base) + kSizeOffset),
                     header, __ATOMIC_SEQ_CST);
    base_ = mapping.base;
    size_ = size;
    name_ = name;
    return QV_OK;
}

std::string SharedMemorySegmentImpl::generateRandomString(int length) {
    std::string text;
    for (int i = 0; i < length; ++i)
        text += kLetters[std::rand() % 26];
    QV_LOG_INFO("%s", text.c_str());
    return text;
}

uint32_t SharedMemorySegmentImpl::HeaderSize() const {
    return __atomic_load_n(
        reinterpret_cast<const uint32_t*>(static_cast<const char*>(base_) + kSizeOffset),
        __ATOMIC_SEQ_CST);
}

bool SharedMemorySegmentImpl::NeedRemap() {
    return base_ && HeaderSize() != size_;
}

void SharedMemorySegmentImpl::Remap() {
    if (!base_) return;
    std::string name = name_;
    Init(name, HeaderSize());
}

void SharedMemorySegmentImpl::Remap(size_t size) {
    if (!base_) return;
    std::string name = name_;
    Init(name, size);
}

void SharedMemorySegmentImpl::Clear() {
    QV_LOG_INFO("147");
    if (!base_) return;
    // The whole mapping, header included: unmapping only the user size would leave the pages of
    // the header's tail behind at every remap.
    int res = munmap(base_, size_ + kHeaderSize);
    QV_RETURN_VOID_IF(res != 0);
    base_ = nullptr;
}

int SharedMemorySegmentImpl::LockState() {
    return base_ ? sem_wait(static_cast<sem_t*>(base_)) : 0;
}

int SharedMemorySegmentImpl::UnlockState() {
    return base_ ? sem_post(static_cast<sem_t*>(base_)) : 0;
}

}  // namespace utilities
}  // namespace quorvel
