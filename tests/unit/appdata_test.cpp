#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "common_app_data.h"
#include "mtrace.h"
#include "tempdir.h"

namespace {

/* The program asks for its folder in a buffer of its own: a name that does
 * not fit with its terminator is refused and the buffer is left alone. */
TEST(AppData, TheFolderIsCopiedOnlyWithItsTerminator)
{
    vt::TempDir dir;
    const char* old = getenv("ORVIK_CONFIGPATH");
    std::string saved = old != nullptr ? old : "";
    setenv("ORVIK_CONFIGPATH", dir.path().c_str(), 1);
    MErrTrace_ClearContext();

    /* root + "/Orvik/" + product + "/" is exactly 255 characters */
    std::string product(255 - dir.path().size() - 8, 'p');
    char buf[300];
    memset(buf, '!', sizeof buf);
    ASSERT_TRUE(GetCommonAppDataFolderProduct(buf, 256, "Orvik", product.c_str(), false));
    EXPECT_EQ(dir.path() + "/Orvik/" + product + "/", buf);

    product += 'p';
    memset(buf, '!', sizeof buf);
    EXPECT_FALSE(GetCommonAppDataFolderProduct(buf, 256, "Orvik", product.c_str(), false));
    EXPECT_EQ('!', buf[0]);

    if (old != nullptr)
        setenv("ORVIK_CONFIGPATH", saved.c_str(), 1);
    else
        unsetenv("ORVIK_CONFIGPATH");
    MErrTrace_ClearContext();
}

} // namespace
