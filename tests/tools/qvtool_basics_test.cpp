// qvtool as a person uses it: exit codes, one-line errors, and output worth reading.

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "child_process.h"

namespace {

using qvtest::Qvtool;

using qvtest::ChildResult;

int Lines(const std::string& text) {
    int lines = 0;
    for (char c : text)
        lines += c == '\n';
    return lines;
}

TEST(QvtoolFrame, HelpUsageAndUnknownCommands) {
    auto overview = Qvtool({"--help"});
    EXPECT_EQ(overview.exit_code, 0);
    for (const char* command : {"sql", "hex", "unhex", "base64", "unbase64", "version"}) {
        EXPECT_NE(overview.output.find("  " + std::string(command) + " "), std::string::npos)
            << command;
    }
    EXPECT_EQ(Qvtool({}).exit_code, 2);
    auto unknown = Qvtool({"frobnicate"});
    EXPECT_EQ(unknown.exit_code, 2);
    EXPECT_EQ(Lines(unknown.output), 1) << unknown.output;

    auto help = Qvtool({"sql", "--help"});
    EXPECT_EQ(help.exit_code, 0);
    EXPECT_NE(help.output.find("usage: qvtool sql"), std::string::npos);
    auto extra = Qvtool({"hex", "surplus"});
    EXPECT_EQ(extra.exit_code, 2);
    EXPECT_NE(extra.output.find("unexpected argument surplus"), std::string::npos);
    EXPECT_EQ(Qvtool({"sql", "--no-such-option", "db", "select 1"}).exit_code, 2);

    auto version = Qvtool({"version"});
    EXPECT_EQ(version.exit_code, 0);
    EXPECT_NE(version.output.find("qvtool 1."), std::string::npos);
}

TEST(QvtoolCodecs, RoundTripEveryByteAndRefuseGarbage) {
    std::string all_bytes;
    for (int i = 0; i < 256; ++i)
        all_bytes += static_cast<char>(i);

    auto hex = Qvtool({"hex"}, all_bytes);
    ASSERT_EQ(hex.exit_code, 0);
    EXPECT_EQ(hex.output.substr(0, 8), "00010203");
    EXPECT_EQ(Qvtool({"unhex"}, hex.output).output, all_bytes);
    EXPECT_EQ(Qvtool({"unhex"}, "4A 4b\n0a").output, "JK\n");  // blanks and case don't matter

    auto base64 = Qvtool({"base64"}, all_bytes);
    ASSERT_EQ(base64.exit_code, 0);
    EXPECT_EQ(Qvtool({"unbase64"}, base64.output).output, all_bytes);
    EXPECT_EQ(Qvtool({"base64"}, "foobar").output, "Zm9vYmFy\n");
    EXPECT_EQ(Qvtool({"unbase64"}, "Zm9v\nYmE=\n").output, "fooba");

    for (auto bad :
         {Qvtool({"unhex"}, "12zz"), Qvtool({"unhex"}, "123"), Qvtool({"unbase64"}, "Zm9v*YmE=")}) {
        EXPECT_EQ(bad.exit_code, 1) << bad.output;
        EXPECT_EQ(Lines(bad.output), 1) << bad.output;
        EXPECT_EQ(bad.output.rfind("qvtool: un", 0), 0u) << bad.output;
    }
}

TEST(QvtoolSql, RunsStatementsAndPrintsTables) {
    const std::string db = "/mnt/ext1/tool.db";
    auto missing = Qvtool({"sql", db, "SELECT 1"});
    EXPECT_EQ(missing.exit_code, 3);
    EXPECT_EQ(Lines(missing.output), 1) << missing.output;

    // Semicolons inside strings, comments and a trigger body don't split statements.
    auto create = Qvtool({"sql", "--create", db,
                          "CREATE TABLE t (id INTEGER PRIMARY KEY, name TEXT, data BLOB);\n"
                          "-- a comment; with a semicolon\n"
                          "CREATE TRIGGER up AFTER INSERT ON t BEGIN\n"
                          "  UPDATE t SET name = name || ';' WHERE id = new.id; END;\n"
                          "INSERT INTO t (name, data) VALUES ('a;b', x'00ff'), ('Ünï', NULL);"});
    ASSERT_EQ(create.exit_code, 0) << create.output;
    EXPECT_EQ(create.output, "");

    auto query = Qvtool({"sql", db, "SELECT id, name, data FROM t ORDER BY id"});
    ASSERT_EQ(query.exit_code, 0) << query.output;
    EXPECT_EQ(query.output,
              "id  name  data\n"
              "--  ----  -------\n"
              " 1  a;b;  x'00ff'\n"
              " 2  Ünï;  NULL\n"
              "(2 rows)\n");

    auto from_input = Qvtool({"sql", db, "-"}, "SELECT count(*) AS n FROM t;");
    EXPECT_NE(from_input.output.find("(1 row)"), std::string::npos) << from_input.output;

    auto bad = Qvtool({"sql", db, "SELECT x FROM nowhere"});
    EXPECT_EQ(bad.exit_code, 1);
    EXPECT_EQ(bad.output, "qvtool: sql: no such table: nowhere\n");

    // A file that is no database fails cleanly, and stays as it was.
    std::ofstream("/mnt/ext1/notes.txt") << "just some text, long enough to be no header at all";
    auto not_db = Qvtool({"sql", "/mnt/ext1/notes.txt", "SELECT * FROM sqlite_master"});
    EXPECT_EQ(not_db.exit_code, 1) << not_db.output;
    EXPECT_EQ(not_db.output, "qvtool: sql: file is not a database\n");
}

}  // namespace
