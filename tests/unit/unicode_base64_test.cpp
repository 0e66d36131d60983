#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "MUnicode.h"
#include "base64.h"
#include "mtrace.h"

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

TEST(Base64Test, EncodesAndDecodesTheStandardForm)
{
    /* RFC 4648 test vectors */
    const char* const plain[] = {"", "f", "fo", "foo", "foob", "fooba", "foobar"};
    const char* const coded[] = {"", "Zg==", "Zm8=", "Zm9v", "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy"};
    for (size_t i = 0; i < 7; i++) {
        std::string text, data;
        ASSERT_TRUE(MBase64_Encode(plain[i], strlen(plain[i]), &text));
        EXPECT_EQ(coded[i], text);
        ASSERT_TRUE(MBase64_Decode(coded[i], strlen(coded[i]), &data));
        EXPECT_EQ(plain[i], data);
    }

    /* all byte values survive; samples travel low byte first */
    std::string all;
    for (int i = 0; i < 256; i++)
        all += static_cast<char>(i);
    std::string text, back;
    ASSERT_TRUE(MBase64_Encode(all.data(), all.size(), &text));
    EXPECT_EQ(MBase64_EncodedLength(all.size()), text.size());
    ASSERT_TRUE(MBase64_Decode(text.data(), text.size(), &back));
    EXPECT_EQ(all, back);

    /* a buffer that is one too small is left alone */
    char buf[8];
    memset(buf, '!', sizeof buf);
    size_t len = 7;
    EXPECT_FALSE(MBase64_Encode("foobar", 6, buf, &len));
    EXPECT_EQ(7u, len);
    EXPECT_EQ('!', buf[0]);
    len = 8;
    EXPECT_TRUE(MBase64_Encode("foobar", 6, buf, &len));
    EXPECT_EQ(8u, len);
    len = 2;
    EXPECT_FALSE(MBase64_Decode("Zm9v", 4, buf, &len));
}

TEST(Base64Test, DecodeRejectsMalformedText)
{
    const char* const bad[] = {"Zm9", "Zm9v!A==", "Zg=a", "Z===", "=m9v", "Zh==", "Zm9=Zm9v", "Zm 9"};
    for (const char* text : bad) {
        MErrTrace_ClearContext();
        std::string data;
        EXPECT_FALSE(MBase64_Decode(text, strlen(text), &data)) << text;
        EXPECT_TRUE(data.empty());
        EXPECT_EQ(1u, MErrTrace_GetCount()) << text;
    }
    MErrTrace_ClearContext();
}

} // namespace
