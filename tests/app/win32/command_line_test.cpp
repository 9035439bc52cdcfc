#include <gtest/gtest.h>

#include "app/win32/command_line.h"

namespace {

TEST(CommandLineNumber, ReadsTheWholeLineAsOneSignedNumber)
{
    const struct {
        const wchar_t *line;
        int64_t number;
    } cases[] = {
        {L"132456", 132456},
        {L"  77", 77},
        {L"-5", -5},
        {L"9223372036854775807", INT64_MAX},
        {L"12abc", 12},
        {L"", 0},
        {L"C:\\Programs\\tkeyagent.exe 1234", 0},
        {L"abc", 0},
    };
    for (const auto &c : cases)
        EXPECT_EQ(command_line_number(c.line), c.number) << std::wstring(c.line).size();
}

}  // namespace
