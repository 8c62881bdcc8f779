// A fixed-size named area of POSIX shared memory that several processes attach to by an agreed
// name, with a process-shared semaphore in the area itself as its lock.
//
// Layout: the semaphore first, in a slot of sizeof(sem_t) bytes (16 on the device; 32 on a
// 64-bit host, where a 16-byte slot would lay the user's data over the semaphore's storage), then
// the user's data. The first process to map the object sets the
// semaphore up; later ones attach and leave it alone.
//
// The first object destroyed removes the name for everyone: a process that comes later makes a
// new area, while those already attached go on sharing the old one. A process that dies while
// holding the lock leaves it held.
#pragma once

#include <semaphore.h>

#include <cstddef>
#include <string>

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace utilities {

class QV_EXPORT SharedStateImpl {
public:
    static constexpr size_t kHeaderSize = sizeof(sem_t);

    SharedStateImpl() = default;
    ~SharedStateImpl();
    SharedStateImpl(const SharedStateImpl&) = delete;
    SharedStateImpl& operator=(const SharedStateImpl&) = delete;

    // Creates the area `name` ("/" and a name) of `size` user bytes, or attaches to it. An area
    // already larger stays as large. QV_OK or QV_FAILED.
    int Init(std::string name, size_t size);
    // sem_wait and sem_post on the area's semaphore, blocking without a limit; 0 when not mapped.
    int LockState();
    int UnlockState();

    // The start of the mapping (the semaphore), null when not mapped, and the user's data.
    void* GetBase() const { return base_; }
    char* GetData() const { return base_ ? static_cast<char*>(base_) + kHeaderSize : nullptr; }
    size_t GetSize() const { return size_; }

private:
    void Unmap();

    void* base_ = nullptr;
    std::string name_;
    size_t size_ = 0;
};

// Other processes of the device map the same area: the data start 16 bytes in there (glibc's
// sem_t on 32 bits) and 32 bytes in on a 64-bit host.
static_assert(SharedStateImpl::kHeaderSize == (sizeof(void*) == 4 ? 16 : 32),
              "the data of a shared state follow the semaphore's slot");

}  // namespace utilities
}  // namespace quorvel
