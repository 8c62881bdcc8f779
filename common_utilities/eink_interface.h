// EinkInterface: where an application hands the library its binding to the panel driver. The
// library only keeps the pointer; what the binding offers is the application's and the
// platform's business.
#pragma once

#include <atomic>

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace utilities {

class EinkPlatformInterface;

class QV_EXPORT EinkInterface {
public:
    static EinkInterface& instance();

    void setPlatformInterface(EinkPlatformInterface* platform) { platform_.store(platform); }
    EinkPlatformInterface* platformInterface() const { return platform_.load(); }

private:
    EinkInterface() = default;
    std::atomic<EinkPlatformInterface*> platform_{nullptr};
};

}  // namespace utilities
}  // namespace quorvel
