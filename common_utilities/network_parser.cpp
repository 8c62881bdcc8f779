#include "common_utilities/network_parser.h"

#include <json-c/json.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "common_utilities/filesystem.h"

namespace quorvel {
namespace system {

using utilities::JsonParser;

std::vector<WifiInfo> NetworkParser::networks_;

namespace {

void PrintEssid(WifiInfo& info) {
    std::snprintf(info.ap.essid, sizeof info.ap.essid, "%s", info.essid.c_str());
}

void AddString(json_object* object, const char* key, const std::string& value) {
    json_object_object_add(object, key, json_object_new_string(value.c_str()));
}

json_object* NewNetworkObject(const WifiInfo& info) {
    json_object* object = json_object_new_object();
    AddString(object, "id", "wifi");
    AddString(object, "cacert", info.cacert);
    AddString(object, "essid", info.essid);
    json_object_object_add(object, "hidden", json_object_new_int(info.hidden));
    json_object_object_add(object, "idle", json_object_new_int(info.idle));
    AddString(object, "key", EncryptString(info.key));
    json_object_object_add(object, "mode", json_object_new_int(info.mode));
    json_object_object_add(object, "security", json_object_new_int(info.security));
    json_object_object_add(object, "wepmode", json_object_new_int(info.wepmode));
    AddString(object, "eaptype", info.eaptype);
    AddString(object, "username", info.username);
    AddString(object, "usercert", info.usercert);
    AddString(object, "password", EncryptString(info.password));
    return object;
}

bool WriteReplacing(const std::string& path, const std::string& text) {
    std::string temporary = path + ".saving";
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        out.write(text.data(), static_cast<std::streamsize>(text.size()));
        out.close();
        if (out.fail()) {
            ::unlink(temporary.c_str());
            return false;
        }
    }
    if (std::rename(temporary.c_str(), path.c_str()) != 0) {
        ::unlink(temporary.c_str());
        return false;
    }
    return true;
}

}  // namespace

std::vector<WifiInfo> NetworkParser::ReadWiFiConfig(const std::string& path) {
    networks_.clear();
    std::string text;
    FileSystem file;
    if (file.ReadFile(path, &text) != 0) {
        QV_LOG_ERROR("Can't read json file %s", path.c_str());
        return networks_;
    }
    JsonParser parser;
    if (parser.Init(text) == QV_OK) parser.ParseArrayConstFunctor(&NetworkParser::ParseWiFiConfig);
    return networks_;
}

int NetworkParser::ParseWiFiConfig(JsonParser& parser) {
    std::string id;
    if (parser.Parse("id", &id) != 0 || id != "wifi") return -1;
    WifiInfo info;
    parser.Parse("cacert", &info.cacert);
    if (parser.Parse("essid", &info.essid) != 0) return -2;
    PrintEssid(info);
    parser.ParseInt("hidden", &info.hidden);
    parser.ParseInt("idle", &info.idle);
    parser.Parse("key", &info.key);
    info.key = DecryptString(info.key);
    parser.ParseInt("mode", &info.mode);
    parser.ParseInt("security", &info.security);
    parser.ParseInt("wepmode", &info.wepmode);
    parser.Parse("eaptype", &info.eaptype);
    parser.Parse("username", &info.username);
    parser.Parse("usercert", &info.usercert);
    parser.Parse("password", &info.password);
    info.password = DecryptString(info.password);
    if (parser.PushKey("network_param") == 0) {
        info.network_param = ParseNetworkParam(parser);
        parser.PopKey();
    }
    PrintEssid(info);
    info.ap.mode = info.mode;
    info.ap.security = info.security;
    info.index = static_cast<int>(networks_.size());
    networks_.push_back(std::move(info));
    return 0;
}

NetworkParam NetworkParser::ParseNetworkParam(JsonParser& parser) {
    NetworkParam param;
    parser.Parse("dns_list", &param.dns_list);
    parser.Parse("ip", &param.ip);
    parser.ParseInt("ipconfig", &param.ipconfig);
    parser.Parse("mask", &param.mask);
    parser.Parse("gateway", &param.gateway);
    if (parser.PushKey("proxy") == 0) {
        param.proxy = ParseProxyParam(parser);
        parser.PopKey();
    }
    return param;
}

ProxyParam NetworkParser::ParseProxyParam(JsonParser& parser) {
    ProxyParam proxy;
    parser.ParseInt("proxyconfig", &proxy.proxyconfig);
    parser.Parse("host", &proxy.host);
    parser.ParseInt("port", &proxy.port);
    parser.Parse("user", &proxy.user);
    parser.Parse("pass", &proxy.pass);
    proxy.pass = DecryptString(proxy.pass);
    return proxy;
}

int NetworkParser::SaveNetworks(const std::vector<WifiInfo>& networks, const std::string& path) {
    json_object* array = json_object_new_array();
    for (const WifiInfo& info : networks) {
        if (!info.essid.empty()) json_object_array_add(array, NewNetworkObject(info));
    }
    std::string text = json_object_to_json_string(array);
    json_object_put(array);
    return WriteReplacing(path, text) ? 0 : -1;
}

}  // namespace system
}  // namespace quorvel
