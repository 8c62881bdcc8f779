#include "common_utilities/file_type.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace quorvel {
namespace utilities {

namespace {

constexpr const char* kUserTable = "/mnt/ext1/system/config/extensions.cfg";
constexpr const char* kSystemTable = "/zelgrot/config/extensions.cfg";
constexpr int kFieldCount = 5;

}  // namespace

int FileTypeManager::LoadTypesInfo() {
    LoadTypesInfo(kUserTable);
    LoadTypesInfo(kSystemTable);
    return QV_OK;
}

int FileTypeManager::LoadTypesInfo(const std::string& path) {
    FILE* file = std::fopen(path.c_str(), "r");
    if (file == nullptr) {
        QV_LOG(QV_LOG_NOTICE, "not found '%s'", path.c_str());
        return QV_TIMEOUT;
    }
    char line[1024];
    while (std::fgets(line, sizeof line, file) != nullptr)
        ParseExtentionInfo(line);
    std::fclose(file);
    return QV_OK;
}

int FileTypeManager::ParseExtentionInfo(char* line) {
    // strtok_r: a table loaded on one thread must not cut another thread's tokens short.
    char* save = nullptr;
    char* p = strtok_r(line, ":", &save);
    QV_RETURN_IF(!p, QV_FAILED);
    char* fields[kFieldCount];
    for (int i = 0; i < kFieldCount; ++i) {
        if (p == nullptr) return QV_FAILED;
        fields[i] = p;
        p = strtok_r(nullptr, ":", &save);
    }
    FileType type;
    type.extension = fields[0];
    type.program = fields[1];
    type.type = static_cast<int>(std::strtol(fields[2], nullptr, 10));
    type.icon = fields[3];
    type.description = fields[4];
    types_.emplace(type.extension, type);
    return QV_OK;
}

FileType FileTypeManager::GetFileTypeByExt(const std::string& extension) const {
    auto it = types_.find(ToLower(extension));
    return it == types_.end() ? FileType() : it->second;
}

FileType FileTypeManager::GetFileTypeByFilename(const std::string& name) const {
    auto dot = name.rfind('.');
    std::string extension = dot == std::string::npos ? "" : name.substr(dot + 1);
    return GetFileTypeByExt(extension);
}

std::list<std::string> FileTypeManager::GetExtensions() {
    std::list<std::string> extensions;
    for (const auto& entry : types_)
        extensions.push_back(entry.first);
    return extensions;
}

}  // namespace utilities
}  // namespace quorvel
