// qvtool version: what this tool, the library and the platform under it are.

#include <iostream>

#include "boardprofile.h"
#include "cli.h"

namespace qvtool {
namespace {

int RunVersion(Args& args) {
    args.Done();
    std::cout << "qvtool " << QV_VERSION << " (libcommon_utilities " << QV_VERSION << ")\n"
              << "platform: host stand-in of libmoorglass and libboardprofile\n"
              << "device model: " << GetDeviceModel() << "\n"
              << "software version: " << GetSoftwareVersion() << "\n";
    return kOk;
}

const bool registered = Register({"version", "versions of the tool, library and platform",
                                  "usage: qvtool version\n"
                                  "Prints the versions of qvtool, the library and the platform.\n",
                                  RunVersion});

}  // namespace
}  // namespace qvtool
