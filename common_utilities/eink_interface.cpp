#include "common_utilities/eink_interface.h"

namespace quorvel {
namespace utilities {

EinkInterface& EinkInterface::instance() {
    static EinkInterface interface;
    return interface;
}

}  // namespace utilities
}  // namespace quorvel
