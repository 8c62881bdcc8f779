// UserAgentConfig: the User-Agent text an application sends to a given host, and GenerateUUID.
//
// Templates live in two configuration files of the platform's key=value format:
//
//   "/var/run/device.cfg"     written at start-up by the device's services; one line per host
//                             fragment and client type:
//                                 useragent_<type>_<fragment>=<template>
//                             e.g. "useragent_browser_store.quorvel.com=Quorvel/[fw] ([locale])".
//                             A fragment "default" is the type's fallback for hosts no fragment
//                             names. The file is read as plain lines, not through the platform,
//                             so the template is everything behind the first "=", untrimmed.
//   "/zelgrot/config/device.cfg"
//                             the defaults the firmware ships: "useragent_<type>_default=...",
//                             read through the platform. Used when the file above has neither a
//                             matching fragment nor a "default" line for the type.
//
// A template is plain text with placeholders in square brackets, filled from the running device
// when the object is made:
//   [device_name]    the model number: the first run of digits in the device model
//   [fw]             the firmware version
//   [locale]         the interface language as a layout ("de_DE"), empty when unknown
//   [resolution]     the screen size, "<width>x<height>"
//   [webengine_ver]  the engine version the application passed to the constructor
// Anything else in brackets is left as it stands.
//
// A host gets the template of the first fragment, in ascending byte order of the fragments, that
// occurs anywhere in its name: "api.store.example" with fragments "api" and "store" takes "api".
// An empty fragment therefore matches every host. The class only produces text; the caller puts
// it into the request's header.
//
// No lock: an instance belongs to one thread, and the process-wide language cache is filled
// unprotected on first use.
#pragma once

#include <map>
#include <string>

#include "common_utilities/common_utilities.h"
#include "common_utilities/config.h"

namespace quorvel {
namespace utilities {

class QV_EXPORT UserAgentConfig {
public:
    // `type` names the client in the configuration keys ("browser", "store", ...). The
    // placeholders' values are taken now: a later change of language or screen size isn't seen.
    UserAgentConfig(const std::string& type, const std::string& webengine_version);

    // The filled template for `host`; empty when nothing is configured for the type.
    std::string userAgentForHost(const std::string& host) const;
    // The template for `host`, unfilled.
    std::string getTemplateForHost(const std::string& host) const;
    // `text` with every placeholder replaced by its value.
    std::string SubstituteTemplateParameters(const std::string& text) const;
    // Adds or replaces the template of a host fragment.
    void AddUserAgentConfig(const std::string& host, const std::string& text);

    // "de" -> "de_DE" and so on for the device's 27 interface languages (exact, case-sensitive
    // match); an empty text for any other. "gr" is the device's code for Georgian.
    static std::string languageToLayout(const std::string& language);
    // The "language" of the global settings ("en" when absent), read once per process: a
    // language changed while the process runs isn't noticed.
    static std::string getConfigInterfaceLanguage();
    // The interface language as a layout, as a browser announces it.
    static std::string browserLangString();
    // "<width>x<height>" of the screen.
    static std::string ResolutionScreenString();
    // The first unbroken run of decimal digits in the device model ("740" of "Quorvel 740"),
    // or an empty text.
    static std::string GetModelNumber();

    // Steps of the constructor, in this order. Running one again takes the current values:
    // loadUserAgentConfig adds (and replaces) entries, it never drops any.
    void fillSubstituteParams();
    void loadUserAgentConfig();
    void initDefaultUserAgent();

    // The value of `key` in the configuration file `path`, or `fallback`. The file is opened
    // for this one read and closed unsaved. For std::string and int values.
    template <typename T>
    static T readFromConfig(const std::string& path, const std::string& key, const T& fallback);

private:
    std::map<std::string, std::string> substitutions_;
    std::string type_;
    std::map<std::string, std::string> host_templates_;
    std::string default_template_;
    std::string webengine_version_;
};

namespace user_agent_detail {

// The platform's reads by value type; the text is copied before the handle goes.
inline std::string ReadConfigValue(iconfig* cfg, const std::string& key,
                                   const std::string& fallback) {
    const char* value = ReadString(cfg, key.c_str(), fallback.c_str());
    return value ? std::string(value) : fallback;
}

inline int ReadConfigValue(iconfig* cfg, const std::string& key, int fallback) {
    return ReadInt(cfg, key.c_str(), fallback);
}

}  // namespace user_agent_detail

template <typename T>
T UserAgentConfig::readFromConfig(const std::string& path, const std::string& key,
                                  const T& fallback) {
    // Read-only: the shipped defaults sit on a read-only tree and are never saved.
    CfgWrapper config(path, CfgWrapper::kCloseNoSave);
    if (!config.isOpened()) return fallback;
    return user_agent_detail::ReadConfigValue(config.handle(), key, fallback);
}

// A random (version 4) UUID in its 36-character form: lower-case hexadecimal digits in groups of
// 8, 4, 4, 4 and 12, joined by dashes. Every call draws fresh bytes from the system's entropy,
// so forked processes never repeat each other. Empty (and logged) if the system has none to give.
QV_EXPORT std::string GenerateUUID();

}  // namespace utilities
}  // namespace quorvel
