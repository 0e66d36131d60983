#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

#include "configtest.h"
#include "nv.h"
#include "sim.h"

using testing::HasSubstr;

namespace {

const char kNvram[] = "/sys/class/rtc/rtc1/device/nvram";

/* The RAM block as hex, the way the board's rtc.nvram value shows it. */
std::string block_hex(nv_state_s nv)
{
    std::string hex;
    const unsigned char* p = reinterpret_cast<const unsigned char*>(&nv);
    char buf[4];
    for (size_t i = 0; i < sizeof nv; i++) {
        snprintf(buf, sizeof buf, i ? " %02x" : "%02x", p[i]);
        hex += buf;
    }
    return hex;
}

nv_state_s block(uint32_t ver, uint32_t uptime, uint32_t meas, uint8_t batts)
{
    nv_state_s nv = {};
    nv.ver = ver;
    nv.uptime = uptime;
    nv.uptime_eco = 7;
    nv.meas_cycles = meas;
    nv.batt_cycles = 3;
    nv.batt_cycle_state = batts;
    EXPECT_EQ(0, nv_update_crc(&nv));
    return nv;
}

class Counters : public vt::ConfigTest {
protected:
    void put_block(const nv_state_s& nv) { ASSERT_TRUE(sim::set("rtc.nvram", block_hex(nv))); }
    /* The first 28 bytes of the RAM as the program would read them. */
    nv_state_s ram()
    {
        nv_state_s nv = {};
        EXPECT_EQ(0, nv_read_nvram(&nv));
        return nv;
    }
    std::string file() const { return vt::read_file(product_file("nv_state.ini")); }
};

TEST_F(Counters, TheCrcCoversEverythingAfterItself)
{
    /* Zlib's CRC-32 of bytes 4..27, as the blocks already in devices hold it. */
    nv_state_s nv = block(1, 100, 5, 2);
    EXPECT_EQ(0x02d1f44eu, nv.crc);
    EXPECT_EQ(1, nv_crc_ok(&nv));
    nv.pad[2] = 1; /* the padding is covered too */
    EXPECT_EQ(0, nv_crc_ok(&nv));
    EXPECT_EQ(0, nv_update_crc(&nv));
    EXPECT_EQ(1, nv_crc_ok(&nv));
}

TEST_F(Counters, AFreshDeviceStartsFromZeroAndWritesBoth)
{
    ASSERT_EQ(0, nv_read());
    EXPECT_EQ(0, state.uptime.tv_sec);
    EXPECT_EQ(0u, state.meas_cycles);
    EXPECT_EQ("", file()); /* created, still empty */
    nv_state_s nv = ram();
    EXPECT_EQ(1u, nv.ver);
    EXPECT_EQ(0u, nv.uptime);
    EXPECT_EQ(1u, vt::entries(kNvram).size());
}

TEST_F(Counters, AValidBlockWinsAndTheFileMirrorsIt)
{
    write_product_file("nv_state.ini", "; service notes\n[uptime]\nready=5\n[extra]\nkeep=1\n");
    put_block(block(1, 3600, 42, 2));
    ASSERT_EQ(0, nv_read());
    EXPECT_EQ(3600, state.uptime.tv_sec);
    EXPECT_EQ(0, state.uptime.tv_nsec);
    EXPECT_EQ(7, state.uptime_eco.tv_sec);
    EXPECT_EQ(42u, state.meas_cycles);
    EXPECT_EQ(3u, state.batt_cycles);
    EXPECT_EQ(2, state.batt_cycle_state);
    EXPECT_EQ("; service notes\n[cyclecounter]\nmeas=42\nbatt=3\nbatts=2\n[extra]\nkeep=1\n[uptime]\nready=3600\neco=7\n",
              file());
    EXPECT_TRUE(vt::entries(kNvram).empty()); /* the block was fine: not rewritten */
}

TEST_F(Counters, AnInvalidBlockFallsBackToTheFileAndIsRebuilt)
{
    write_product_file("nv_state.ini", "[uptime]\nready=900\neco=60\n[cyclecounter]\nmeas=abc\nbatt=4\nbatts=300\n");
    put_block(block(2, 1, 1, 1)); /* right CRC, wrong version */
    nv_state_s probe = {};
    EXPECT_EQ(-EFAULT, nv_read_nvram(&probe));
    ASSERT_EQ(0, nv_read());
    EXPECT_EQ(900, state.uptime.tv_sec);
    EXPECT_EQ(60, state.uptime_eco.tv_sec);
    EXPECT_EQ(0u, state.meas_cycles); /* not a number */
    EXPECT_EQ(4u, state.batt_cycles);
    EXPECT_EQ(44, state.batt_cycle_state); /* 300, low byte */
    nv_state_s nv = ram();
    EXPECT_EQ(1u, nv.ver);
    EXPECT_EQ(900u, nv.uptime);
    EXPECT_EQ(44, nv.batt_cycle_state);

    /* A block that cannot be read, or comes back short, is as bad. */
    sim::fault(kNvram, "read", EIO, 1);
    EXPECT_EQ(-1, nv_read_nvram(&probe));
    sim::fault(kNvram, "read", 0 /* short */, 1);
    EXPECT_EQ(-1, nv_read_nvram(&probe));
}

TEST_F(Counters, AGarbledFileNeverStopsTheCounters)
{
    const std::string garbage = "\x01\x02 not an ini file\n[uptime\n";
    write_product_file("nv_state.ini", garbage);
    put_block(block(1, 77, 8, 0));
    ASSERT_EQ(0, nv_read());
    EXPECT_EQ(77, state.uptime.tv_sec); /* the block wins */
    EXPECT_EQ(garbage, vt::read_file(product_file("nv_state.ini.bad")));
    EXPECT_THAT(file(), HasSubstr("ready=77"));

    /* No block and no readable file: zeros, and the text is kept aside. */
    write_product_file("nv_state.ini", garbage);
    sim::set("rtc.nvram", "00");
    state = state_s{};
    ASSERT_EQ(0, nv_read());
    EXPECT_EQ(0, state.uptime.tv_sec);
    EXPECT_EQ(garbage, vt::read_file(product_file("nv_state.ini.bad")));

    /* Counters read before the bad line stay, and are written anew. */
    const std::string torn = "[uptime]\nready=55\n[uptime\n";
    write_product_file("nv_state.ini", torn);
    sim::set("rtc.nvram", "00");
    state = state_s{};
    ASSERT_EQ(0, nv_read());
    EXPECT_EQ(55, state.uptime.tv_sec);
    EXPECT_EQ(torn, vt::read_file(product_file("nv_state.ini.bad")));
    EXPECT_THAT(file(), HasSubstr("ready=55"));
}

TEST_F(Counters, SavingWritesTheBlockAndTheFileOnlyWhenAsked)
{
    ASSERT_EQ(0, nv_read());
    state.uptime.tv_sec = 123;
    state.uptime.tv_nsec = 999999999; /* only whole seconds are kept */
    state.meas_cycles = 9;
    ASSERT_EQ(0, nv_save_now(0));
    EXPECT_EQ(123u, ram().uptime);
    EXPECT_EQ("", file());
    ASSERT_EQ(0, nv_save_now(1));
    EXPECT_THAT(file(), HasSubstr("ready=123\n"));
    EXPECT_THAT(file(), HasSubstr("meas=9\n"));

    /* A block that cannot be written does not stop the save. */
    sim::fault(kNvram, "write", EIO, 1);
    state.meas_cycles = 10;
    nv_state_s nv = {};
    EXPECT_EQ(-1, nv_write_nvram(&nv));
    EXPECT_EQ(0, nv_save_now(1));
    EXPECT_THAT(file(), HasSubstr("meas=10\n"));
}

/* A mirror the medium cannot give back is not written over: what else it
 * holds is not known. The next save that reads it writes it. */
TEST_F(Counters, AMirrorThatCannotBeReadIsKept)
{
    root_on_board();
    const std::string text = "; service note\n[uptime]\nready=5\n";
    write_product_file("nv_state.ini", text);
    ASSERT_EQ("ok\n", sim::control("fault /var/opt/Orvik/vela/nv_state.ini read EIO always"));
    nv_state_s nv = block(1, 100, 9, 0);
    EXPECT_EQ(-1, nv_write_ini(&nv));
    sim::control("faults-clear");
    EXPECT_EQ(text, file());
    EXPECT_EQ(0, nv_write_ini(&nv));
    EXPECT_THAT(file(), HasSubstr("; service note\n"));
    EXPECT_THAT(file(), HasSubstr("meas=9\n"));
}

} // namespace
