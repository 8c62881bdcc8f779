// The cloud binding: a device without the cloud library, a library that lacks an entry point,
// an object the library refused to make, and calls reaching the library's object. Every test
// case is a process of its own, so each starts with the binding unloaded.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>

#include "auth_test_support.h"
#include "common_utilities/services/icloudapi.h"
#include "log_capture.h"

namespace {

using quorvel::utilities::createCloudApi;
using quorvel::utilities::ICloudApi;
using qvtest::LogCapture;
using qvtest::PidLine;

constexpr const char* kLibrary = "/zelgrot/lib/libqvcloud_api.so";

std::unique_ptr<ICloudApi> Create() {
    return std::unique_ptr<ICloudApi>(createCloudApi());
}

void InstallVariant(const std::string& variant) {
    std::filesystem::copy_file(std::string(QV_BUILD_LIB_DIR) + "/" + variant + "/libqvcloud_api.so",
                               kLibrary, std::filesystem::copy_options::overwrite_existing);
}

TEST(CloudApi, MissingLibraryIsLoggedAndTriedAgain) {
    const std::string aside = "/zelgrot/lib/aside.so";
    std::filesystem::rename(kLibrary, aside);
    LogCapture log;
    EXPECT_EQ(Create(), nullptr);
    EXPECT_EQ(Create(), nullptr);
    const std::string line = PidLine(
        "Condition: \"!cloud_api_lib_handler\", return(\"nullptr\")]Failed to dlopen "
        "libqvcloud_api");
    EXPECT_EQ(log.Messages(1), (std::vector<std::string>{line, line}));

    // Installed later (an update), the next call finds it.
    std::filesystem::rename(aside, kLibrary);
    EXPECT_NE(Create(), nullptr);
}

// A library that lacks one of its two functions gives no object, and the line names the function.
void ExpectRefused(const std::string& variant, const std::string& line) {
    InstallVariant(variant);
    LogCapture log;
    EXPECT_EQ(Create(), nullptr);
    EXPECT_TRUE(log.Has(1, PidLine(line)));
}

TEST(CloudApi, LibraryWithoutTheCreateFunction) {
    ExpectRefused("cloud-no-create",
                  "Condition: \"!create_cloud_api_fn\", return(\"nullptr\")]Failed to dlsym "
                  "QVCloud_CreateCloudApi");
}

TEST(CloudApi, LibraryWithoutTheDestroyFunction) {
    ExpectRefused("cloud-no-destroy",
                  "Condition: \"!destroy_cloud_api_fn\", return(\"nullptr\")]Failed to dlsym "
                  "QVCloud_DestroyCloudApi");
}

TEST(CloudApi, NoObjectFromTheLibrary) {
    authtest::WriteKey(authtest::kCloudSession, "refuse_create", "1");
    auto cloud = Create();
    ASSERT_NE(cloud, nullptr);
    EXPECT_FALSE(cloud->IsLoggedIn());
    EXPECT_TRUE(cloud->getParamsForAutoAuth().empty());
    EXPECT_EQ(cloud->startAutoAuth(true), -1);
    cloud->setParamsForAutoAuth({{ICloudApi::AutoAuthLogin, "x"}});  // goes nowhere
    cloud.reset();                                                   // nothing to hand back
    EXPECT_EQ(authtest::ReadKey(authtest::kCloudSession, "param.0"), "");
}

TEST(CloudApi, CallsReachTheLibrarysObject) {
    auto cloud = Create();
    ASSERT_NE(cloud, nullptr);
    EXPECT_TRUE(cloud->haveQVCloud());
    EXPECT_TRUE(cloud->needAutoRegistrationToCloud());
    EXPECT_EQ(cloud->startAutoAuth(true), -1);  // nobody to sign in yet
    EXPECT_EQ(cloud->Syncronize(), -1);
    EXPECT_EQ(cloud->getSyncError(), 1);

    cloud->setParamsForAutoAuth(
        {{ICloudApi::AutoAuthLogin, "reader"}, {ICloudApi::AutoAuthToken, "t1"}});
    EXPECT_EQ(cloud->getParamsForAutoAuth(),
              (ICloudApi::AutoAuthParamsMap{{ICloudApi::AutoAuthLogin, "reader"},
                                            {ICloudApi::AutoAuthToken, "t1"}}));
    EXPECT_EQ(cloud->startAutoAuth(false), 0);
    // The session belongs to the device: a second binding object sees it.
    EXPECT_TRUE(Create()->IsLoggedIn());
    EXPECT_EQ(cloud->Syncronize(), 0);
    EXPECT_EQ(cloud->getSyncError(), 0);
    EXPECT_FALSE(cloud->IsSyncing());
    EXPECT_EQ(cloud->deleteFromCloud("/mnt/ext1/book.epub"), 0);
    EXPECT_EQ(cloud->deleteFromCloud(nullptr), -1);
    cloud->logOut();
    EXPECT_FALSE(cloud->IsLoggedIn());
    EXPECT_EQ(cloud->deleteFromCloud("/mnt/ext1/book.epub"), -1);
}

}  // namespace
