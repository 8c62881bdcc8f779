// libqvcloud_api.so for the host: the cloud service's library as a device that carries it has
// one. The session lives in "/mnt/ext1/system/config/qvcloud.cfg", so that every process of the
// device sees one cloud account, as the real service's would:
//
//     user, token         who is signed in (empty: nobody)
//     param.<n>           the parameters a store handed over for signing in (AutoAuthParams n)
//     have_cloud          whether the device offers the cloud at all (default 1)
//     auto_registration   whether the store's account signs in to the cloud (default 1)
//     refuse_create       when 1, QVCloud_CreateCloudApi gives no object
//     last_sync, last_deleted, sync_error   what the last calls did
//
// QVCLOUD_WITHOUT_CREATE / QVCLOUD_WITHOUT_DESTROY build variants that lack an entry point, as a
// damaged or outdated library would.

#include <ctime>
#include <string>

#include "common_utilities/services/icloudapi.h"

namespace {

using quorvel::utilities::ICloudApi;

constexpr const char* kSessionFile = "/mnt/ext1/system/config/qvcloud.cfg";

// One open-read-close per call: another process may have signed in or out meanwhile.
class Session {
public:
    Session() : config_(OpenConfig(kSessionFile, 0)) {}
    ~Session() {
        if (config_ && dirty_)
            CloseConfig(config_);
        else if (config_)
            CloseConfigNoSave(config_);
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    std::string Get(const std::string& key, const char* fallback = "") const {
        return ReadString(config_, key.c_str(), fallback);
    }
    bool Flag(const std::string& key, bool fallback) const {
        return ReadInt(config_, key.c_str(), fallback ? 1 : 0) != 0;
    }
    void Set(const std::string& key, const std::string& value) {
        WriteString(config_, key.c_str(), value.c_str());
        dirty_ = true;
    }
    void Remove(const std::string& key) {
        DeleteString(config_, key.c_str());
        dirty_ = true;
    }

private:
    iconfig* config_;
    bool dirty_ = false;
};

std::string ParamKey(int param) {
    return "param." + std::to_string(param);
}

constexpr int kParams[] = {ICloudApi::AutoAuthLogin, ICloudApi::AutoAuthPassword,
                           ICloudApi::AutoAuthToken, ICloudApi::AutoAuthPartner};

class HostCloudApi : public ICloudApi {
public:
    bool IsLoggedIn() override { return !Session().Get("user").empty(); }

    void setParamsForAutoAuth(const AutoAuthParamsMap& params) override {
        Session session;
        for (int param : kParams)
            session.Remove(ParamKey(param));
        for (const auto& [key, value] : params)
            session.Set(ParamKey(key), value);
    }

    AutoAuthParamsMap getParamsForAutoAuth() override {
        Session session;
        AutoAuthParamsMap params;
        for (int param : kParams) {
            std::string value = session.Get(ParamKey(param));
            if (!value.empty()) params[static_cast<AutoAuthParams>(param)] = value;
        }
        return params;
    }

    // Signs in with the login the store handed over; without one there is nobody to sign in.
    int startAutoAuth(bool /*register_if_needed*/) override {
        Session session;
        if (!session.Flag("have_cloud", true)) return -1;
        std::string login = session.Get(ParamKey(AutoAuthLogin));
        if (login.empty()) return -1;
        session.Set("user", login);
        session.Set("token", "cloud-" + login);
        return 0;
    }

    void logOut() override {
        Session session;
        session.Remove("user");
        session.Remove("token");
        for (int param : kParams)
            session.Remove(ParamKey(param));
    }

    bool haveQVCloud() override { return Session().Flag("have_cloud", true); }
    bool needAutoRegistrationToCloud() override {
        return Session().Flag("auto_registration", true);
    }
    bool IsSyncing() override { return false; }  // the host's cloud answers at once

    int Syncronize() override {
        Session session;
        if (session.Get("user").empty()) {
            session.Set("sync_error", "1");
            return -1;
        }
        session.Set("sync_error", "0");
        session.Set("last_sync", std::to_string(std::time(nullptr)));
        return 0;
    }

    int deleteFromCloud(const char* path) override {
        Session session;
        if (path == nullptr || *path == '\0' || session.Get("user").empty()) return -1;
        session.Set("last_deleted", path);
        return 0;
    }

    int getSyncError() override { return Session().Flag("sync_error", false) ? 1 : 0; }
};

}  // namespace

extern "C" {

#ifndef QVCLOUD_WITHOUT_CREATE
__attribute__((visibility("default"))) ICloudApi* QVCloud_CreateCloudApi(void) {
    if (Session().Flag("refuse_create", false)) return nullptr;
    return new HostCloudApi();
}
#endif

#ifndef QVCLOUD_WITHOUT_DESTROY
__attribute__((visibility("default"))) void QVCloud_DestroyCloudApi(ICloudApi* api) {
    delete api;
}
#endif

}  // extern "C"
