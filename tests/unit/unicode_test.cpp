#include <gtest/gtest.h>

#include <string>

#include "MUnicode.h"

namespace {

TEST(UnicodeTest, LongerMarksWinOverTheirPrefixes)
{
    struct Case {
        std::string text;
        MUnicode_BomType type;
    } cases[] = {
        {"", MUNICODE_BOM_TYPE_NONE},
        {"[a]", MUNICODE_BOM_TYPE_NONE},
        {"\xEF\xBB\xBF[a]", MUNICODE_BOM_TYPE_UTF8},
        {"\xEF\xBB", MUNICODE_BOM_TYPE_NONE}, /* cut mark */
        {"\xFE\xFF", MUNICODE_BOM_TYPE_UTF16_BE},
        {std::string("\xFF\xFE[\0", 4), MUNICODE_BOM_TYPE_UTF16_LE},
        {std::string("\xFF\xFE\0", 3), MUNICODE_BOM_TYPE_UTF16_LE},
        {std::string("\xFF\xFE\0\0", 4), MUNICODE_BOM_TYPE_UTF32_LE},
        {std::string("\0\0\xFE\xFF", 4), MUNICODE_BOM_TYPE_UTF32_BE},
        {std::string("\0\0\xFE", 3), MUNICODE_BOM_TYPE_NONE},
    };
    for (const Case& c : cases)
        EXPECT_EQ(c.type, MUnicode_GetBomType(c.text.data(), c.text.size())) << testing::PrintToString(c.text);
    /* the length bounds the look, not the terminator */
    EXPECT_EQ(MUNICODE_BOM_TYPE_NONE, MUnicode_GetBomType("\xEF\xBB\xBF", 2));
    EXPECT_EQ(MUNICODE_BOM_TYPE_NONE, MUnicode_GetBomType(nullptr, 4));
    EXPECT_EQ(3u, MUnicode_GetBomLength(MUNICODE_BOM_TYPE_UTF8));
    EXPECT_EQ(4u, MUnicode_GetBomLength(MUNICODE_BOM_TYPE_UTF32_LE));
}

} // namespace
