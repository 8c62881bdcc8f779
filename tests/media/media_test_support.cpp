#include "media_test_support.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "child_process.h"
#include "common_utilities/qv_sqlite.h"
#include "moorglass.h"

namespace mediatest {

using quorvel::utilities::Sqlite;
using quorvel::utilities::Statement;

StderrCapture::StderrCapture() {
    std::fflush(stderr);
    saved_fd_ = ::dup(STDERR_FILENO);
    capture_fd_ = ::memfd_create("stderr-capture", MFD_CLOEXEC);
    ::dup2(capture_fd_, STDERR_FILENO);
}

StderrCapture::~StderrCapture() {
    std::fflush(stderr);
    ::dup2(saved_fd_, STDERR_FILENO);
    ::close(saved_fd_);
    ::close(capture_fd_);
}

std::string StderrCapture::Text() const {
    std::fflush(stderr);
    std::string text;
    char buffer[4096];
    off_t offset = 0;
    for (;;) {
        ssize_t n = ::pread(capture_fd_, buffer, sizeof buffer, offset);
        if (n <= 0) return text;
        text.append(buffer, static_cast<size_t>(n));
        offset += n;
    }
}

std::vector<std::string> StderrCapture::Lines() const {
    std::vector<std::string> lines;
    std::istringstream in(Text());
    std::string line;
    while (std::getline(in, line))
        lines.push_back(line);
    return lines;
}

void WriteFile(const std::string& path, const std::string& content, int mode) {
    mg_buildpath(path.c_str());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    ::chmod(path.c_str(), static_cast<mode_t>(mode));
}

bool Exists(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0;
}

unsigned long Inode(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? static_cast<unsigned long>(st.st_ino) : 0;
}

void MakeScriptsArchive(const std::string& archive,
                        const std::map<std::string, std::string>& scripts) {
    const std::string dir = "/tmp/archive-source";
    std::vector<std::string> command{"tar", "-czf",         archive,    "-C",
                                     dir,   "--files-from", "/dev/null"};
    qvtest::RunProgram({"rm", "-rf", dir});
    ::mkdir(dir.c_str(), 0755);
    for (const auto& [name, text] : scripts) {
        bool program = name.size() > 3 && name.compare(name.size() - 3, 3, ".sh") == 0;
        WriteFile(dir + "/" + name, text, program ? 0755 : 0644);
        command.push_back(name);
    }
    mg_buildpath(archive.c_str());
    auto result = qvtest::RunProgram(command);
    ASSERT_TRUE(result.Succeeded()) << result.Describe();
}

int ReadMarker(const std::string& key) {
    iconfig* cfg = OpenConfig("/mnt/ext1/system/config/global.cfg", 0);
    int value = ReadInt(cfg, key.c_str(), 0);
    CloseConfigNoSave(cfg);
    return value;
}

void SetMarker(const std::string& key, int value) {
    SetGlobal(key, std::to_string(value));
}

void SetGlobal(const std::string& key, const std::string& value) {
    iconfig* cfg = OpenConfig("/mnt/ext1/system/config/global.cfg", 0);
    WriteString(cfg, key.c_str(), value.c_str());
    CloseConfig(cfg);
}

void SetPlayerConfig(const std::string& key, const std::string& value) {
    iconfig* cfg = OpenConfig("/mnt/ext1/system/config/player.cfg", 0);
    WriteString(cfg, key.c_str(), value.c_str());
    CloseConfig(cfg);
}

std::vector<std::string> Query(const std::string& db_path, const std::string& sql) {
    Sqlite db;
    std::vector<std::string> rows;
    if (db.open_no_create(db_path) != 0) return {"<no database>"};
    {
        std::unique_ptr<Statement> st = db.prepare(sql);
        if (!st) {
            rows.push_back("<error>");
        } else {
            while (st->step() == kRow) {
                const char* text = st->column_text(0);
                rows.push_back(text ? text : "NULL");
            }
        }
    }
    db.close();
    return rows;
}

std::string QueryOne(const std::string& db_path, const std::string& sql) {
    auto rows = Query(db_path, sql);
    return rows.empty() ? "<none>" : rows.front();
}

void Exec(const std::string& db_path, const std::string& sql) {
    mg_buildpath(db_path.c_str());
    Sqlite db;
    EXPECT_EQ(0, db.open(db_path));
    EXPECT_EQ(kDone, db.exec(sql)) << sql;
    db.close();
}

}  // namespace mediatest
