// ICloudApi: the cloud library seen from applications that don't link it.
//
// The cloud service ships its own library, "/zelgrot/lib/libqvcloud_api.so", which not every
// device carries. createCloudApi() loads it on first use and hands out an ICloudApi that forwards
// every call to the object the library made. The library exports two C functions:
//
//     quorvel::utilities::ICloudApi* QVCloud_CreateCloudApi(void);
//     void QVCloud_DestroyCloudApi(quorvel::utilities::ICloudApi* api);
//
// and its object implements this same interface, slot for slot: the order of the virtual
// functions below is the binary contract with it and never changes.
//
// What the results mean (and which AutoAuthParams a cloud library understands) is the cloud
// library's business; this binding only carries them.
#pragma once

#include <map>

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace utilities {

class ICloudApi {
public:
    // Keys of the parameters a store hands to the cloud for signing in without asking the user.
    enum AutoAuthParams : int {
        AutoAuthLogin = 0,
        AutoAuthPassword = 1,
        AutoAuthToken = 2,
        AutoAuthPartner = 3,
    };
    using AutoAuthParamsMap = std::map<AutoAuthParams, std::string>;

    virtual bool IsLoggedIn() = 0;
    virtual void setParamsForAutoAuth(const AutoAuthParamsMap& params) = 0;
    virtual AutoAuthParamsMap getParamsForAutoAuth() = 0;
    // 0 when signed in.
    virtual int startAutoAuth(bool register_if_needed) = 0;
    virtual void logOut() = 0;
    virtual bool haveQVCloud() = 0;
    virtual bool needAutoRegistrationToCloud() = 0;
    virtual bool IsSyncing() = 0;
    // 0 when a synchronisation was started.
    virtual int Syncronize() = 0;
    // 0 when the book was removed from the cloud.
    virtual int deleteFromCloud(const char* path) = 0;
    // The error of the last synchronisation, 0 for none.
    virtual int getSyncError() = 0;
    virtual ~ICloudApi() = default;
};

// The cloud library's object behind an ICloudApi, or null when the library is missing or lacks
// one of its two functions (logged). The caller owns the result and deletes it, which hands the
// object back to the library. The library stays loaded for the life of the process; the first
// call belongs on one thread.
QV_EXPORT ICloudApi* createCloudApi();

}  // namespace utilities
}  // namespace quorvel

// The entry points of the cloud library.
extern "C" {
typedef quorvel::utilities::ICloudApi* (*QVCloud_CreateCloudApi_fn)(void);
typedef void (*QVCloud_DestroyCloudApi_fn)(quorvel::utilities::ICloudApi* api);
}
