// The check macros write the exact lines other tools grep for; their texts come from the source.

#include <gtest/gtest.h>

#include <string>

#include "common_utilities/common_utilities.h"
#include "log_capture.h"

namespace {

using qvtest::LogCapture;
using qvtest::PidLine;

int ReturnIf(const char* value) {
    QV_RETURN_IF(!value, QV_INVAL);
    return QV_OK;
}

int ReturnIfTooLong(const std::string& str) {
    QV_RETURN_IF(str.length() > MAX_INT16, QV_INVAL);
    return QV_OK;
}

int ReturnUnless(int err, int extra) {
    QV_RETURN_UNLESS(0 == err, QV_FAILED, " extra %d", extra);
    return QV_OK;
}

bool voided = false;
void ReturnVoid(int* out) {
    QV_RETURN_VOID_IF(nullptr == out);
    voided = true;
}

int CleanUp(int err) {
    if (QV_CLEANUP_UNLESS(0 == err, "bind failed with [%d]", err)) return QV_FAILED;
    return QV_OK;
}

TEST(CheckMacros, WriteTheExactLinesAndAct) {
    LogCapture capture;
    EXPECT_EQ(ReturnIf("x"), QV_OK);
    EXPECT_EQ(ReturnUnless(0, 1), QV_OK);
    EXPECT_TRUE(capture.Lines().empty());

    EXPECT_EQ(ReturnIf(nullptr), QV_INVAL);
    EXPECT_EQ(ReturnIfTooLong(std::string(32768, 'x')), QV_INVAL);
    EXPECT_EQ(ReturnUnless(3, 9), QV_FAILED);
    ReturnVoid(nullptr);
    EXPECT_FALSE(voided);
    EXPECT_EQ(CleanUp(98), QV_FAILED);
    QV_LOG_FAILED(21, "Can't open database");
    QV_LOG_ERR(5);
    QV_LOG_ERR_TIGHT(6);

    auto lines = capture.Lines();
    ASSERT_EQ(lines.size(), 8u);
    for (const auto& line : lines)
        EXPECT_EQ(line.level, 1);
    EXPECT_EQ(lines[0].message, PidLine("Condition: \"!value\", return(\"QV_INVAL\")]"));
    // A macro in the condition stays as written.
    EXPECT_EQ(lines[1].message,
              PidLine("Condition: \"str.length() > MAX_INT16\", return(\"QV_INVAL\")]"));
    EXPECT_EQ(lines[2].message, PidLine("Condition: \"0 == err\", return(\"QV_FAILED\")] extra 9"));
    EXPECT_EQ(lines[3].message, PidLine("Condition: \"nullptr == out\", return]"));
    EXPECT_EQ(lines[4].message, PidLine("Condition 0 == err failed. bind failed with [98]"));
    EXPECT_EQ(lines[5].message, PidLine("Failed with [21] Can't open database"));
    EXPECT_EQ(lines[6].message, PidLine(" err:[5] "));
    EXPECT_EQ(lines[7].message, PidLine("err:[6] "));

    // File, line and function are those of the code that checked.
    EXPECT_EQ(lines[0].file, "tests/core/check_macros_test.cpp");
    EXPECT_EQ(lines[0].line, 16);
    EXPECT_EQ(lines[0].function, "int {anonymous}::ReturnIf(const char*)");
}

}  // namespace
