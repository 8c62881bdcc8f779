// A configuration file as the device holds it, written by anyone (another application, an older
// firmware, a user with a text editor), read through the configuration cache the way
// applications read it, changed in one key and saved. Whatever the file held, every other key
// must read the same after the save, and the key written must read as written.

#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <map>
#include <string>

#include "common_utilities/config.h"
#include "fuzz_support.h"

namespace {

using quorvel::system::config::Conf;
using quorvel::system::config::Config;

const std::string kFile = "/mnt/ext1/system/config/fuzz.cfg";

// What a file can store under a key: the platform refuses the others, as applications know.
bool Storable(const std::string& key) {
    return !key.empty() && key.find_first_of("=\r\n") == std::string::npos &&
           !std::isspace(static_cast<unsigned char>(key.front())) &&
           !std::isspace(static_cast<unsigned char>(key.back()));
}

void ReadEveryWay(Config& cfg, const std::map<std::string, std::string>& all) {
    int left = 32;
    for (const auto& [key, value] : all) {
        if (left-- == 0) break;
        cfg.ReadInt(kFile, key, 0);
        cfg.ReadSecret(kFile, key, "");
        cfg.ReadAllStrings(kFile, key);
        (void)value;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    std::string key = input.ConsumeRandomLengthString(64);
    std::string value = input.ConsumeRandomLengthString(256);
    bool secret = input.ConsumeBool();
    ::unlink((kFile + ".saving").c_str());
    qvfuzz::WriteFile(kFile, input.ConsumeRemainingBytesAsString());

    Config& cfg = Config::GetInstance();
    std::map<std::string, std::string> before = cfg.ReadAllStrings(kFile, "");
    ReadEveryWay(cfg, before);
    {
        Conf conf(kFile);
        conf.ReadTime(key, 7);
    }  // closes the file, saved

    // Keys and values reach the platform as C strings.
    key = key.c_str();
    value = value.c_str();
    if (secret)
        cfg.WriteSecret(kFile, key, value, false);
    else
        cfg.WriteString(kFile, key, value, false);
    cfg.CloseConfig(kFile, true);

    std::map<std::string, std::string> after = cfg.ReadAllStrings(kFile, "");
    for (const auto& [k, v] : before) {
        if (k == key) continue;
        auto found = after.find(k);
        QVFUZZ_CHECK(found != after.end() && found->second == v);
    }
    if (Storable(key))
        QVFUZZ_CHECK((secret ? cfg.ReadSecret(kFile, key, "\x01")
                             : cfg.ReadString(kFile, key, "\x01")) == value);
    cfg.CloseConfig(kFile, false);
    return 0;
}
