#include "common_utilities/services/icloudapi.h"

#include <dlfcn.h>

namespace {

using quorvel::utilities::ICloudApi;

constexpr const char* kCloudLibraryPath = "/zelgrot/lib/libqvcloud_api.so";

// Resolved once and kept: the library is never closed, since objects it made may still live.
void* cloud_api_lib_handler = nullptr;
QVCloud_CreateCloudApi_fn create_cloud_api_fn = nullptr;
QVCloud_DestroyCloudApi_fn destroy_cloud_api_fn = nullptr;

}  // namespace

// Forwards to the cloud library's object. The first four calls answer for a missing object; the
// others need one, which a successful createCloudApi always gives.
class CloudApi : public ICloudApi {
public:
    explicit CloudApi(ICloudApi* impl) : impl(impl) {}
    ~CloudApi() override {
        if (impl) destroy_cloud_api_fn(impl);
    }
    CloudApi(const CloudApi&) = delete;
    CloudApi& operator=(const CloudApi&) = delete;

    bool IsLoggedIn() override { return impl ? impl->IsLoggedIn() : false; }
    void setParamsForAutoAuth(const AutoAuthParamsMap& params) override {
        if (impl) impl->setParamsForAutoAuth(params);
    }
    AutoAuthParamsMap getParamsForAutoAuth() override {
        return impl ? impl->getParamsForAutoAuth() : AutoAuthParamsMap();
    }
    int startAutoAuth(bool register_if_needed) override {
        return impl ? impl->startAutoAuth(register_if_needed) : -1;
    }
    void logOut() override { impl->logOut(); }
    bool haveQVCloud() override { return impl->haveQVCloud(); }
    bool needAutoRegistrationToCloud() override { return impl->needAutoRegistrationToCloud(); }
    bool IsSyncing() override { return impl->IsSyncing(); }
    int Syncronize() override { return impl->Syncronize(); }
    int deleteFromCloud(const char* path) override { return impl->deleteFromCloud(path); }
    int getSyncError() override { return impl->getSyncError(); }

private:
    ICloudApi* impl;
};

namespace quorvel {
namespace utilities {

ICloudApi* createCloudApi() {
    // A failed step is tried again at the next call; what was found is kept.
    if (!cloud_api_lib_handler) {
        cloud_api_lib_handler = dlopen(kCloudLibraryPath, RTLD_LAZY);
        QV_RETURN_IF(!cloud_api_lib_handler, nullptr, "Failed to dlopen libqvcloud_api");
    }
    if (!create_cloud_api_fn) {
        create_cloud_api_fn = reinterpret_cast<QVCloud_CreateCloudApi_fn>(
            dlsym(cloud_api_lib_handler, "QVCloud_CreateCloudApi"));
        QV_RETURN_IF(!create_cloud_api_fn, nullptr, "Failed to dlsym QVCloud_CreateCloudApi");
    }
    if (!destroy_cloud_api_fn) {
        destroy_cloud_api_fn = reinterpret_cast<QVCloud_DestroyCloudApi_fn>(
            dlsym(cloud_api_lib_handler, "QVCloud_DestroyCloudApi"));
        QV_RETURN_IF(!destroy_cloud_api_fn, nullptr, "Failed to dlsym QVCloud_DestroyCloudApi");
    }
    return new CloudApi(create_cloud_api_fn());
}

}  // namespace utilities
}  // namespace quorvel
