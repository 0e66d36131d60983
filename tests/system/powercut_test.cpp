/* Power cuts while the server saves what it must not lose: the
 * configuration (temporary file, fsync, rename, folder sync) and the
 * operating counters (the 28-byte block in the RTC's NVRAM and its INI
 * mirror). The board cuts the power at the N-th step of a save, or after K
 * bytes of the block write; the next power-up must find the old or the new
 * values, whole, and every file in place. The counts of cut points tried are
 * printed at the end of each test. */
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>
#include <zlib.h>

#include "MIniData.h"
#include "boardctl.h"
#include "server.h"

namespace {

const char kFolder[] = "/var/opt/Orvik/vela";
const char kNvram[] = "/sys/class/rtc/rtc1/device/nvram";

/* The counters as the block holds them (uptime, eco, meas, batt, batts);
 * valid only with a good CRC and version 1. */
struct Counters {
    bool valid = false;
    std::array<uint32_t, 5> v{};
    bool operator==(const Counters&) const = default;
    std::string text() const
    {
        std::string t = valid ? "" : "invalid ";
        for (uint32_t x : v)
            t += std::to_string(x) + "/";
        return t;
    }
};

Counters decode_block(const std::string& hex)
{
    std::istringstream in(hex);
    std::vector<uint8_t> b;
    unsigned x;
    while (b.size() < 28 && in >> std::hex >> x)
        b.push_back(static_cast<uint8_t>(x));
    Counters c;
    if (b.size() < 28)
        return c;
    auto u32 = [&](size_t at) {
        return b[at] | b[at + 1] << 8 | b[at + 2] << 16 | static_cast<uint32_t>(b[at + 3]) << 24;
    };
    c.valid = u32(0) == crc32(0, b.data() + 4, 24) && u32(4) == 1;
    c.v = {u32(8), u32(12), u32(16), u32(20), b[24]};
    return c;
}

class PowerCut : public testing::Test {
protected:
    void SetUp() override
    {
        server.set_config_root("/var/opt");
        server.carry_on();
        ASSERT_TRUE(power_up());
    }

    bool power_up()
    {
        client.close();
        if (!server.start() || !client.connect(server.port()))
            return false;
        /* the greeting: the battery's state, then its level */
        client.read_until([](const std::string& l) { return l.rfind("0 event battery ", 0) == 0; });
        return true;
    }

    /* A request's replies without the ack and ready lines; "closed" when
     * the server went away before its ready line. */
    std::string ask(const std::string& command)
    {
        int id = next_id++;
        std::vector<std::string> lines = client.request(id, command);
        if (lines.empty() || !vt::is_ready_line(lines.back(), id))
            return "closed";
        std::string out;
        for (const std::string& l : lines) {
            std::string rest = l.substr(l.find(' ') + 1);
            if (rest != "ack" && !vt::is_ready_line(l, id))
                out += (out.empty() ? "" : "\n") + rest;
        }
        return out;
    }

    /* The power went at the armed step: the server died by SIGKILL. */
    bool was_cut()
    {
        return client.closed_by_peer() && server.wait_exit() == 128 + 9;
    }

    bool ctl_ok(const std::string& line) { return vt::control_ok(vt::board_control(server.dir(), line)); }

    Counters block() { return decode_block(vt::board_control(server.dir(), "get rtc.nvram")); }

    std::string file(const std::string& name) const
    {
        return vt::read_file(server.dir() + "/fs" + kFolder + "/" + name);
    }

    /* Files in the folder other than the program's own. */
    int strangers() const
    {
        int n = 0;
        for (const auto& e : std::filesystem::directory_iterator(server.dir() + "/fs" + kFolder)) {
            std::string name = e.path().filename();
            n += name != "velatool.ini" && name != "nv_state.ini";
        }
        return n;
    }

    /* The counters of the INI mirror, as the block would hold them. */
    Counters mirror()
    {
        const char* keys[][2] = {
            {"uptime", "ready"}, {"uptime", "eco"}, {"cyclecounter", "meas"}, {"cyclecounter", "batt"}, {"cyclecounter", "batts"}};
        MIniData ini(0);
        Counters c;
        c.valid = ini.Open((server.dir() + "/fs" + kFolder + "/nv_state.ini").c_str());
        for (size_t i = 0; i < c.v.size(); i++) {
            long v = 0;
            c.valid = c.valid && ini.GetLongEntry(keys[i][0], keys[i][1], &v);
            c.v[i] = static_cast<uint32_t>(v);
        }
        return c;
    }

    vt::ServerUnderTest server;
    vt::LineClient client;
    int next_id = 1;
};

const char kCalibrationA[] = "x_corr=0.9 w_offset=31000 w_scale=0.00001 f=19500";
const char kValuesA[] = "data 0.900000000 31000 0.000010000 19500";
const char kCalibrationB[] = "x_corr=1.1 w_offset=32000 w_scale=0.00002 f=20500";
const char kValuesB[] = "data 1.100000000 32000 0.000020000 20500";
const char kGetCalibration[] = "get x_corr w_offset w_scale f";

/* Every open, write, fsync and rename of a calibration save, the folder's
 * sync included: a cut leaves the old or the new calibration, never a mix,
 * never the defaults, never no file. The same steps failing with an errno
 * (a full or failing flash) cost nothing either: the server keeps the new
 * values and serves on. */
TEST_F(PowerCut, CalibrationSaveCutAtEveryStep)
{
    int cuts = 0, failures = 0, old_found = 0, new_found = 0, leftovers = 0;
    for (const char* op : {"open", "write", "fsync", "rename"}) {
        int steps = 0;
        for (;; steps++) {
            ASSERT_EQ("", ask(std::string("set ") + kCalibrationA));
            ASSERT_TRUE(ctl_ok(std::string("fault ") + kFolder + " " + op + " cut after " + std::to_string(steps)));
            if (ask(std::string("set ") + kCalibrationB) != "closed") {
                ASSERT_TRUE(ctl_ok("faults-clear"));
                break; /* the save has no more steps of this kind */
            }
            ASSERT_TRUE(was_cut()) << op << " " << steps;
            cuts++;
            leftovers += strangers();
            ASSERT_TRUE(power_up()) << server.err();
            EXPECT_EQ(0, strangers()) << op << " #" << steps; /* the start removed what the cut left */
            std::string values = ask(kGetCalibration);
            EXPECT_TRUE(values == kValuesA || values == kValuesB) << op << " #" << steps << ": " << values;
            (values == kValuesA ? old_found : new_found)++;
            EXPECT_NE(std::string::npos, file("velatool.ini").find("[channel]")) << op << " #" << steps;
        }
        EXPECT_GT(steps, 0) << "no " << op << " in a save";

        for (int n = 0; n < steps; n++) {
            for (const char* err : {"EIO", "ENOSPC", "short"}) {
                if (std::string(err) != "EIO" && std::string(op) != "write")
                    continue;
                ASSERT_EQ("", ask(std::string("set ") + kCalibrationA));
                ASSERT_TRUE(ctl_ok(std::string("fault ") + kFolder + " " + op + " " + err + " after " + std::to_string(n)));
                EXPECT_EQ("", ask(std::string("set ") + kCalibrationB)) << op << " " << err;
                EXPECT_EQ(kValuesB, ask(kGetCalibration)) << op << " " << err;
                ASSERT_TRUE(ctl_ok("faults-clear"));
                /* the change stays pending: the next set of anything saves it */
                ASSERT_EQ("", ask("set tracelevel=3"));
                EXPECT_NE(std::string::npos, file("velatool.ini").find("w_offset=32000")) << op << " " << err;
                failures++;
            }
        }
        /* A failed save is made good by the next one. */
        ASSERT_EQ("", ask(std::string("set ") + kCalibrationB));
        ASSERT_EQ(kValuesB, ask(kGetCalibration));
    }
    server.stop();
    ASSERT_TRUE(power_up());
    EXPECT_EQ(kValuesB, ask(kGetCalibration));
    printf("calibration save: %d power cuts (%d found the old values, %d the new, %d left a temporary file), "
           "%d failed steps\n",
           cuts, old_found, new_found, leftovers, failures);
    EXPECT_GE(cuts, 6);
    EXPECT_GT(old_found, 0); /* cut before the rename */
    EXPECT_GT(new_found, 0); /* cut at the folder's sync */
}

/* The counters: the block write cut after each of 0..28 bytes, and every
 * step of the mirror's save when the power state changes. The next start
 * finds the old counters or the new, the block valid again and the mirror
 * agreeing with it. */
TEST_F(PowerCut, CounterSaveCutAtEveryByteAndStep)
{
    int cuts = 0, old_found = 0, new_found = 0, folder_synced = 0;
    auto check_after_cut = [&](const Counters& before, const std::string& where) {
        ASSERT_TRUE(was_cut()) << where;
        cuts++;
        ASSERT_TRUE(power_up()) << server.err();
        Counters now = block();
        EXPECT_TRUE(now.valid) << where;
        /* the old counters or the new: no count went back */
        for (size_t i = 0; i < 4; i++)
            EXPECT_GE(now.v[i], before.v[i]) << where << ": " << now.text() << " after " << before.text();
        (now == before ? old_found : new_found)++;
        Counters m = mirror();
        m.valid = now.valid;
        EXPECT_EQ(now.text(), m.text()) << where << ": the mirror";
    };

    for (int k = 0; k <= 28; k++) {
        ASSERT_TRUE(server.advance("37s"));
        ASSERT_EQ("", ask("set pstate=eco")); /* block and mirror alike */
        ASSERT_EQ("", ask("set pstate=ready"));
        Counters before = block();
        ASSERT_TRUE(before.valid);
        ASSERT_EQ(before.text(), mirror().text());
        ASSERT_TRUE(ctl_ok(std::string("fault ") + kNvram + " write cut:" + std::to_string(k)));
        ASSERT_TRUE(server.advance("10s")); /* the idle timer saves the block */
        check_after_cut(before, "block cut after " + std::to_string(k) + " bytes");
        if (HasFatalFailure())
            return;
    }

    for (const char* op : {"open", "write", "fsync", "rename"}) {
        for (int n = 0;; n++) {
            ASSERT_TRUE(server.advance("53s"));
            Counters before = block();
            ASSERT_TRUE(ctl_ok(std::string("fault ") + kFolder + " " + op + " cut after " + std::to_string(n)));
            if (ask("set pstate=eco") != "closed") {
                ASSERT_TRUE(ctl_ok("faults-clear"));
                ASSERT_EQ("", ask("set pstate=ready"));
                EXPECT_GT(n, 0) << "no " << op << " in a save";
                break;
            }
            folder_synced += !vt::grep(server.journal(), std::string(kFolder) + " cut fsync").empty();
            check_after_cut(before, std::string("mirror ") + op + " #" + std::to_string(n));
            if (HasFatalFailure())
                return;
        }
    }
    printf("counter save: %d power cuts (%d found the old counters, %d the new)\n", cuts, old_found, new_found);
    EXPECT_GE(cuts, 29 + 5);
    EXPECT_GT(folder_synced, 0); /* the mirror's new name is made durable */
    EXPECT_GT(old_found, 0); /* a torn block falls back to the mirror */
    EXPECT_GT(new_found, 0); /* the whole block got through */
}

} // namespace
