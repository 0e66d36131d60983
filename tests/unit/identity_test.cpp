/* The device's identity: straps, boot environment, boot loader image, BSP
 * release and device-tree model, on the simulated board. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "simtest.h"
#include "tempdir.h"
#include "util.h"
#include "velatool.h"

using testing::ElementsAre;

namespace {

class Identity : public vt::SimTest {
protected:

    std::string revision()
    {
        char ver[16];
        memset(ver, 'x', sizeof ver);
        int len = vela_get_hardware_version(ver, sizeof ver);
        EXPECT_EQ(static_cast<int>(strlen(ver)), len);
        return ver;
    }
};

TEST_F(Identity, HardwareRevisionFromTheActiveLowStrapsAndTheEnvironment)
{
    sim::set("identity.hwid0", "0"); /* only bit 0 reads '0': value 1 */
    EXPECT_EQ("B", revision());
    ASSERT_EQ("", sim::reset("[bootenv]\nhwrev_extra = 2\n[identity]\nhwid0 = 0\n"));
    EXPECT_EQ("B.2", revision());
    sim::set("identity.straps", "15");
    EXPECT_EQ("P.2", revision());
    sim::set("identity.straps", "0");
    EXPECT_EQ("A.2", revision());
    /* The environment was asked once; the cache served the rest. */
    EXPECT_EQ(1u, vt::entries("fw_printenv").size());

    sim::control("absent /sys/class/gpio/hwid2/value");
    char ver[16] = "junk";
    EXPECT_EQ(0, vela_get_hardware_version(ver, sizeof ver));
    EXPECT_STREQ("", ver);
}

TEST_F(Identity, EnvironmentLookupKeepsItsQuirks)
{
    /* The cache as fw_printenv would leave it, the last line without its
     * line feed. */
    vt::write_file(sim::sandbox() + "/fs/tmp/environment.txt", "bootdelay=1\nserial#=1234\nnoeol=abcd");
    char value[32];
    ASSERT_EQ(0, util_env_lookup_var("serial", value, sizeof value)); /* a prefix finds serial# */
    EXPECT_STREQ("1234", value);
    ASSERT_EQ(0, util_env_lookup_var("noeol", value, sizeof value));
    EXPECT_STREQ("abc", value); /* the last character goes, line feed or not */
    EXPECT_EQ(-1, util_env_lookup_var("missing", value, sizeof value));
    char sn[33];
    EXPECT_EQ(4, vela_get_serialno(sn));
    EXPECT_STREQ("1234", sn);
    EXPECT_TRUE(vt::entries("system").empty()); /* the cache was there */
}

TEST_F(Identity, AFailingEnvironmentCommandIsAnAccessError)
{
    ASSERT_EQ("", sim::reset("command = 1 /usr/sbin/fw_printenv\n"));
    char value[32];
    EXPECT_EQ(-EACCES, util_env_lookup_var("serial#", value, sizeof value));
    EXPECT_THAT(vt::entries("system"), ElementsAre("system \"/usr/sbin/fw_printenv > /tmp/environment.txt\" 1"));
    char sn[33] = "untouched";
    EXPECT_EQ(0, vela_get_serialno(sn));
    EXPECT_STREQ("untouched", sn);
}

TEST_F(Identity, BootLoaderVersionFromTheImageHeaderInNand)
{
    char dev[32], ver[33];
    ASSERT_EQ(0, util_mtd_lookup_device("NAND.u-boot", dev));
    EXPECT_STREQ("mtd4", dev);
    EXPECT_EQ(13, vela_get_bootloader_version(ver));
    EXPECT_STREQ("2013.10-00042", ver);
    ASSERT_EQ(0, util_mtd_lookup_device("name", dev)); /* the header line matches first */
    EXPECT_STREQ("dev", dev);
    EXPECT_EQ(-1, util_mtd_lookup_device("NAND.nothing", dev));

    /* A partition whose name merely begins with NAND.u-boot, listed first,
     * is the one taken: its erased bytes hold no version. */
    sim::set("mtd.partitions", "NAND.SPL NAND.u-boot-spl-os NAND.u-boot NAND.kernel");
    ASSERT_EQ(0, util_mtd_lookup_device("NAND.u-boot", dev));
    EXPECT_STREQ("mtd1", dev);
    strcpy(ver, "untouched");
    EXPECT_EQ(0, vela_get_bootloader_version(ver));
    EXPECT_STREQ("untouched", ver);

    sim::set("mtd.partitions", "NAND.u-boot");
    sim::set("mtd.uboot_name", "U-Boot-without-a-space");
    EXPECT_EQ(0, vela_get_bootloader_version(ver));
    sim::control("absent /proc/mtd");
    EXPECT_EQ(-1, util_mtd_lookup_device("NAND.u-boot", dev));
}

TEST_F(Identity, BspReleaseAndDeviceTreeModel)
{
    char ver[33], model[16];
    EXPECT_EQ(3, vela_get_bsp_version(ver));
    EXPECT_STREQ("3.0", ver);
    sim::set("identity.bsp_release", "2.1-rc4\tbuilt");
    EXPECT_EQ(7, vela_get_bsp_version(ver)); /* cut at the first unprintable character */
    EXPECT_STREQ("2.1-rc4", ver);

    ASSERT_EQ(0, vela_get_devicetree_model(model, sizeof model));
    EXPECT_STREQ("VELA", model); /* the kernel's file ends in a zero byte */
    EXPECT_EQ(MACHINE_VELA, util_machine2type(model));
    EXPECT_EQ(MACHINE_NOVA, util_machine2type("NOVA"));
    EXPECT_EQ(-1, util_machine2type("vela"));
    EXPECT_EQ(-1, util_machine2type("VELAX"));

    sim::control("absent /etc/bsp-release");
    sim::control("absent /proc/device-tree/model");
    EXPECT_EQ(0, vela_get_bsp_version(ver));
    EXPECT_EQ(-1, vela_get_devicetree_model(model, sizeof model));
}

} // namespace
