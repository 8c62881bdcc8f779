// The services' status file as a service finds it when it publishes: written by other processes,
// perhaps cut off or damaged by one that died while writing. Whatever it holds, the service's
// own record must be published, and every whole record must survive the repair and the
// publication unchanged.

#include <unistd.h>

#include <map>
#include <sstream>
#include <string>

#include "common_utilities/services_download_status.h"
#include "fuzz_support.h"

namespace {

using quorvel::utilities::DownloadStatus;
using quorvel::utilities::ServicesDownloadStatus;

std::map<std::string, std::string> Records(ServicesDownloadStatus& owner) {
    std::map<std::string, std::string> records;
    for (const DownloadStatus& status : owner.GetStatuses()) {
        std::ostringstream form;
        status.WriteToStream(form);
        records[status.service_name()] = form.str();
    }
    return records;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    qvfuzz::WriteFile(ServicesDownloadStatus::kFilePath, data, size);
    ServicesDownloadStatus& owner = ServicesDownloadStatus::GetInstance();
    // The first load repairs a damaged file: a record cut off at the end is dropped from it.
    // The whole records must come through the repair unchanged.
    std::map<std::string, std::string> loaded = Records(owner);
    std::map<std::string, std::string> kept = Records(owner);
    for (const auto& [name, form] : kept)
        QVFUZZ_CHECK(loaded.count(name) == 1 && loaded[name] == form);
    owner.IsDownloading();

    DownloadStatus mine;
    QVFUZZ_CHECK(mine.Init("@fuzz", static_cast<int>(::getpid())) == QV_OK);
    QVFUZZ_CHECK(mine.StartDownload() == QV_OK);

    std::map<std::string, std::string> now = Records(owner);
    QVFUZZ_CHECK(now.count("@fuzz") == 1);
    QVFUZZ_CHECK(owner.IsDownloading());
    for (const auto& [name, form] : kept)
        if (name != "@fuzz") QVFUZZ_CHECK(now.count(name) == 1 && now[name] == form);
    return 0;
}
