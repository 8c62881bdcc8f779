// A resizable area of POSIX shared memory with a process-shared semaphore as its lock and the
// user size in a header, so that a reader notices when the writer made the area larger or
// smaller (NeedRemap) and maps it again (Remap).
//
// Layout: the semaphore in a slot of sizeof(sem_t) bytes (16 on the device, 32 on a 64-bit host),
// the user size at the last Init as an unsigned 32-bit integer in the machine's order, then the
// user's data: offsets 16 and 20 on the device.
//
// Every Init and Remap sets the semaphore up anew, also when attaching: a process that attaches
// while another holds the lock breaks that lock. The lock is good only between processes that
// have all finished attaching. The first object destroyed removes the name for everyone.
//
// A made-up name is "/" and ten letters drawn with rand(), which the library does not seed: an
// application that wants other names than the last run's seeds it. A made-up name that is
// already taken is never shared: that attempt fails and the next name is tried.
#pragma once

#include <semaphore.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace utilities {

class QV_EXPORT SharedMemorySegmentImpl {
public:
    static constexpr size_t kSizeOffset = sizeof(sem_t);
    static constexpr size_t kHeaderSize = kSizeOffset + sizeof(uint32_t);

    SharedMemorySegmentImpl() = default;
    ~SharedMemorySegmentImpl();
    SharedMemorySegmentImpl(const SharedMemorySegmentImpl&) = delete;
    SharedMemorySegmentImpl& operator=(const SharedMemorySegmentImpl&) = delete;

    // Maps the area `name` with `size` user bytes, creating it if need be, and writes `size` to
    // the header. On a mapped object with another name, that name is removed first and must
    // exist. QV_OK or QV_FAILED.
    int Init(std::string name, size_t size);
    // Makes up a new name (up to five tries) and stores it in `*name`.
    int Init(std::string* name, size_t size);
    // Unmaps, keeping the name.
    void Clear();
    // Another process changed the size in the header.
    bool NeedRemap();
    // Maps again at the size in the header, or at `size` (which the others then see).
    void Remap();
    void Remap(size_t size);
    // sem_wait and sem_post on the area's semaphore; 0 when not mapped.
    int LockState();
    int UnlockState();

    void* GetBase() const { return base_; }
    char* GetData() const { return base_ ? static_cast<char*>(base_) + kHeaderSize : nullptr; }
    size_t GetSize() const { return size_; }
    const std::string& GetName() const { return name_; }

private:
    int Map(const std::string& name, size_t size, bool exclusive);
    uint32_t HeaderSize() const;
    static std::string generateRandomString(int length);

    void* base_ = nullptr;
    size_t size_ = 0;
    std::string name_;
};

// The size at offset 16 and the data at 20 on the device, where every process reads them.
static_assert(SharedMemorySegmentImpl::kSizeOffset == (sizeof(void*) == 4 ? 16 : 32) &&
                  SharedMemorySegmentImpl::kHeaderSize == SharedMemorySegmentImpl::kSizeOffset + 4,
              "the user size follows the semaphore's slot, the data follow the size");

}  // namespace utilities
}  // namespace quorvel
