#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "mtrace.h"

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

class MTraceTest : public testing::Test {
protected:
    void SetUp() override { _MTrace_SetLevel(MTRACE_DOMAIN, 3); MErrTrace_ClearContext(); }
    void TearDown() override { _MTrace_SetLevel(MTRACE_DOMAIN, 3); MErrTrace_ClearContext(); }
};

std::vector<std::string> lines_of(const std::string& s)
{
    std::vector<std::string> lines;
    size_t start = 0, lf;
    while ((lf = s.find('\n', start)) != std::string::npos) {
        lines.push_back(s.substr(start, lf - start));
        start = lf + 1;
    }
    return lines;
}

TEST_F(MTraceTest, LevelsFilterAndLinesCarryLevelAndLocation)
{
    CaptureStderr();
    MTRACE(4, "hidden %d", 4);
    MTRACE(3, "shown %d\n", 3);
    _MTrace_SetLevel(MTRACE_DOMAIN, 0);
    MTRACE(1, "hidden too");
    MTRACE_ALWAYS("always %s", "there");
    std::vector<std::string> lines = lines_of(GetCapturedStderr());
    ASSERT_EQ(2u, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find("[3] mtrace_test.cpp:"));
    EXPECT_NE(std::string::npos, lines[0].find("shown 3"));
    EXPECT_EQ('3', lines[0].back()); /* the message's own line feed is not doubled */
    EXPECT_NE(std::string::npos, lines[1].find("[A] "));
    EXPECT_NE(std::string::npos, lines[1].find("always there"));
}

TEST_F(MTraceTest, LongAndMultiLineTextsStayOneBoundedLine)
{
    std::string huge(100000, 'x');
    CaptureStderr();
    MTRACE(1, "%s", huge.c_str());
    MTRACE(1, "a\nb\nc");
    MERRLOG("%s", huge.c_str());
    MERRTRACE("%s", huge.c_str());
    std::vector<std::string> lines = lines_of(GetCapturedStderr());
    ASSERT_EQ(3u, lines.size());
    for (const std::string& l : lines)
        EXPECT_LT(l.size(), 1400u);
    EXPECT_NE(std::string::npos, lines[1].find("a b c"));
}

TEST_F(MTraceTest, ErrorTraceIsPendingUntilDumped)
{
    MERRTRACE("first %d", 1);
    CaptureStderr();
    _MErrTrace_DumpContextToMErrLog();
    std::string err = GetCapturedStderr();
    EXPECT_NE(std::string::npos, err.find("[ERR]"));
    EXPECT_NE(std::string::npos, err.find("first 1"));
    EXPECT_EQ(0u, MErrTrace_GetCount());

    for (int i = 0; i < 1000; i++)
        MERRTRACE("flood %d", i); /* nobody clears: the list stays bounded */
    EXPECT_LE(MErrTrace_GetCount(), 64u);
}

} // namespace
