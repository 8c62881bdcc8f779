// Opening, sizing and mapping a POSIX shared memory object, shared by the shared state units
// (not exported).
#pragma once

#include <cstddef>
#include <string>

namespace quorvel {
namespace utilities {

enum class MapStep { kDone, kOpen, kTruncate, kMap };

struct SharedMapping {
    void* base = nullptr;
    size_t old_size = 0;  // the object's size before this call: 0 for its creator
    int error = 0;        // errno of the failed step
};

// Opens (creating, or with `exclusive` only creating) the object `name`, makes it at least
// `total` bytes long and maps `total` bytes of it. An object is never made shorter: processes
// that mapped more of it would get SIGBUS on their next touch past the new end.
MapStep MapSharedObject(const std::string& name, size_t total, bool exclusive,
                        SharedMapping* mapping);

// QV_OK after kDone; otherwise logs the failed step and gives QV_FAILED, having removed the name
// when the object was opened (a half-made object must not be found by the next process).
int CheckMapStep(MapStep step, const SharedMapping& mapping, const std::string& name);

}  // namespace utilities
}  // namespace quorvel
