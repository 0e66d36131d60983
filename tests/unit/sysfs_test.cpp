#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "sysfs.h"
#include "tempdir.h"


namespace {

class SysfsTest : public testing::Test {
protected:
    vt::TempDir dir;
    std::string attr = dir.file("value");
};

TEST_F(SysfsTest, WriteValidIntChecksRangeBeforeTouchingTheFile)
{
    vt::write_file(attr, "x");
    EXPECT_EQ(-EINVAL, sysfs_write_valid_int(attr.c_str(), 0, 1, 2));
    EXPECT_EQ(-EINVAL, sysfs_write_valid_int(attr.c_str(), 0, 1, -1));
    EXPECT_EQ("x", vt::read_file(attr));

    EXPECT_EQ(0, sysfs_write_valid_int(attr.c_str(), 7, 7, 7));
    EXPECT_EQ("7", vt::read_file(attr));
    vt::write_file(attr, "");
    EXPECT_EQ(0, sysfs_write_valid_int(attr.c_str(), -10, 10, -5));
    EXPECT_EQ("-5", vt::read_file(attr)); /* no newline */
}

TEST_F(SysfsTest, WriteStringWritesTheBytesOnly)
{
    vt::write_file(attr, "");
    EXPECT_EQ(0, sysfs_write_string(attr.c_str(), "falling"));
    EXPECT_EQ("falling", vt::read_file(attr));
}

TEST_F(SysfsTest, ReadStringCutsAtFirstLineFeedAndAtMaxlen)
{
    char buf[16];
    memset(buf, 'z', sizeof buf);
    vt::write_file(attr, "1\n");
    EXPECT_EQ(0, sysfs_read_string(attr.c_str(), buf, 1));
    EXPECT_STREQ("", buf);
    EXPECT_EQ(0, sysfs_read_string(attr.c_str(), buf, sizeof buf));
    EXPECT_STREQ("1", buf);

    vt::write_file(attr, "a\r\nb\n");
    EXPECT_EQ(0, sysfs_read_string(attr.c_str(), buf, sizeof buf));
    EXPECT_STREQ("a\r", buf);

    vt::write_file(attr, "0123456789abcdefghij");
    EXPECT_EQ(0, sysfs_read_string(attr.c_str(), buf, 8));
    EXPECT_STREQ("0123456", buf);
}

TEST_F(SysfsTest, BlobsReadAtOffsetAndWriteFromTheStart)
{
    vt::write_file(attr, "ABCDEFGH");
    char buf[16] = {};
    int len = 4;
    EXPECT_EQ(0, sysfs_read_blob(attr.c_str(), buf, 2, &len));
    EXPECT_EQ(4, len);
    EXPECT_EQ("CDEF", std::string(buf, 4));

    len = sizeof buf;
    EXPECT_EQ(0, sysfs_read_blob(attr.c_str(), buf, 6, &len));
    EXPECT_EQ(2, len); /* a short read is no error */
    len = sizeof buf;
    EXPECT_EQ(0, sysfs_read_blob(attr.c_str(), buf, 100, &len));
    EXPECT_EQ(0, len);

    char data[] = {'x', 'y'};
    EXPECT_EQ(0, sysfs_write_blob(attr.c_str(), data, 2));
    EXPECT_EQ("xyCDEFGH", vt::read_file(attr)); /* written at offset 0, not truncated */
}

TEST(ClockTest, DeltaBorrowsAndAddCarriesOnce)
{
    struct timespec a = {5, 900000000}, b = {7, 100000000}, d = {};
    EXPECT_EQ(0, clock_delta(&a, &b, &d));
    EXPECT_EQ(1, d.tv_sec);
    EXPECT_EQ(200000000, d.tv_nsec);
    EXPECT_EQ(0, clock_delta(&a, &a, &d));
    EXPECT_EQ(0, d.tv_sec);
    EXPECT_EQ(0, d.tv_nsec);
    EXPECT_EQ(0, clock_delta(&b, &a, &d)); /* stop before start is not refused */
    EXPECT_EQ(-2, d.tv_sec);
    EXPECT_EQ(800000000, d.tv_nsec);

    struct timespec x = {1, 600000000}, y = {2, 700000000};
    EXPECT_EQ(0, clock_add(&x, &y));
    EXPECT_EQ(4, x.tv_sec);
    EXPECT_EQ(300000000, x.tv_nsec);
}

} // namespace
