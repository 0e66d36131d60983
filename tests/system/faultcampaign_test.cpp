/* Every fault the board can inject, while a client runs the session an
 * operating program runs: battery readings, the meas state, live readings,
 * a short scan, the move home, autoinfo, calibration values, the power
 * states, the backlight. Each row of the table names the fault, the step
 * it hits and what the client must see; after every row the server still
 * answers and has not crashed. */
#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <vector>

#include "boardctl.h"
#include "server.h"

namespace {

struct Row {
    const char* fault;  /* control commands, ';' between them */
    const char* state;  /* where the session stands: "ready" or "meas" */
    const char* step;   /* the request it hits; "idle" is 30 s of housekeeping, "abort:R"
                           sends R and an abort at once, "drop:R" sends R and hangs up */
    const char* expect; /* regex over what the client saw: ids dropped, " | " between lines,
                           " || " between steps; "" is nothing but the ack and ready lines */
};

#define ADC "/sys/bus/iio/devices/iio:device0/in_voltage"
#define GPIO "/sys/class/gpio/"

/* clang-format off */
#define SCAN_DATA "data [A-Za-z0-9+/=]+( \\| data [A-Za-z0-9+/=]+)*"
const Row kTable[] = {
    /* I2C: the charger, NACK and time-out, on reads and writes: the power
     * handler keeps its last state and tries again at the next event */
    {"fault /dev/i2c-0@0x6b read EREMOTEIO always", "ready", "get batt batt_state batt_v", "data 99 4 3.90"},
    {"fault /dev/i2c-0@0x6b read ETIMEDOUT always", "ready", "idle;get batt_state", " \\|\\| data 4"},
    {"fault /dev/i2c-0@0x6b write EREMOTEIO always", "ready", "idle;get batt_state", " \\|\\| data 4"},
    {"fault /dev/i2c-0@0x6b write ETIMEDOUT always", "ready", "get batt_state", "data 4"},
    {"fault /dev/i2c-0@0x6b read EREMOTEIO always", "ready", "autoinfo 100 batt batt_state", "data 99 4( \\| data 99 4)+ \\| error aborted"},
    /* the motor DAC: ten failing attempts take the write's success path, a
     * write that fails outright (no bus) is reported */
    {"fault /dev/i2c-1@0x60 write EREMOTEIO always", "meas", "scan x=0.1", SCAN_DATA},
    {"set drive.position_mm 2;fault /dev/i2c-1@0x60 write ETIMEDOUT always", "meas", "move x=0", "error endswitch timeout"},
    {"fault /dev/i2c-1@0x60 write EAGAIN always", "ready", "set pstate=meas;get pstate", " \\|\\| data 5"},
    {"absent /dev/i2c-1", "meas", "scan x=0.1", "error motor_dac_write failed"},
    {"set drive.position_mm 2;absent /dev/i2c-1", "meas", "move x=0", "error motor_dac_write failed \\| error endswitch timeout \\| error motor_dac_write failed"},
    {"absent /dev/i2c-1", "ready", "set pstate=meas;get pstate", " \\|\\| data 4"},
    /* the digital potentiometer: the same retries; without the bus (above)
     * it fails the way into meas, without a text */
    {"fault /dev/i2c-1@0x2e write EREMOTEIO always", "ready", "set pstate=meas;get pstate", " \\|\\| data 5"},
    {"fault /dev/i2c-1@0x2e write ETIMEDOUT always", "ready", "set pstate=meas;get pstate", " \\|\\| data 5"},
    /* GPIO lines */
    {"fault " GPIO "meas_power/value write EIO always", "ready", "set pstate=meas;get pstate", " \\|\\| data 5"},
    {"fault " GPIO "motor_power/value write EIO always", "meas", "scan x=0.1", SCAN_DATA},
    {"set drive.position_mm 2;fault " GPIO "motor_power/value write EIO always", "meas", "move x=0", ""},
    {"fault " GPIO "vg_anf/value read EIO always", "meas", "move x=0", "error endswitch timeout"},
    {"set drive.position_mm 2;absent " GPIO "vg_anf/value", "meas", "move x=0", ""},
    {"fault " GPIO "chgint/value read EIO always", "ready", "idle;get batt_state", " \\|\\| data 4"},
    {"fault " GPIO "usb_power/value write EIO always", "ready", "set usbhost=1", "error action failed"},
    /* attributes */
    {"fault " ADC "1_raw read EIO always", "ready", "get batt_v batt", "error error"},
    {"fault " ADC "0_raw read EIO always", "ready", "get batt_temp", "error error"},
    {"fault " ADC "1_raw read EIO always", "ready", "idle;get batt", " \\|\\| error error"},
    {"absent " ADC "1_raw", "ready", "get batt_v", "data 3.90"},
    {"fault /sys/class/backlight/tps65217-bl/brightness write EIO always", "ready", "set blight=40", ""},
    {"fault /sys/class/backlight/tps65217-bl/actual_brightness read EIO always", "ready", "get blight", "error error"},
    {"absent /sys/class/backlight/tps65217-bl", "ready", "set blight=40;get blight", " \\|\\| error error"},
    {"fault /sys/devices/system/cpu/cpu0/cpufreq/scaling_min_freq write EIO always", "ready", "set pstate=eco;get pstate", " \\|\\| data 4"},
    {"fault /sys/devices/system/cpu/cpu0/cpufreq/scaling_max_freq write EIO always", "ready", "set pstate=eco;set pstate=ready;get pstate", " \\|\\|  \\|\\| data 4"},
    {"fault /sys/class/rtc/rtc1/device/nvram write EIO always", "ready", "idle;get uptime", " \\|\\| data \\d+\\.\\d{3}"},
    {"fault /sys/class/rtc/rtc1/device/nvram write short always", "ready", "set pstate=eco;get pstate", " \\|\\| data 3"},
    {"fault /sys/class/rtc/rtc1/time read EIO always", "ready", "get hwclock", "error channel not readable"},
    {"absent /dev/ttyO1", "ready", "set opto_rs232=HELLO", ""},
    /* the sine generator */
    {"fault /dev/spidev1.1 ioctl EIO always", "ready", "set pstate=meas;get pstate", " \\|\\| data 5"},
    {"absent /dev/spidev1.1", "ready", "set pstate=meas;get pstate", " \\|\\| data 5"},
    {"fault /dev/spidev1.1 open EIO always", "meas", "set f=20500", "error action failed"},
    /* suspend and its wake-up alarm */
    {"fault /dev/rtc0 ioctl:RTC_WKALM_SET EIO always", "ready", "set pstate=eco;set pstate=suspend;get pstate", " \\|\\|  \\|\\| data 3"},
    {"fault /sys/power/state write EIO always", "ready", "set pstate=eco;set pstate=suspend;get pstate", " \\|\\| event: resumed \\|\\| data 2"},
    /* the PRUs: no subsystem, or firmware that never starts, ignores
     * requests or stops answering. Meas is refused without a working engine;
     * with one that fails later, moves, aborts and lost connections still
     * end cleanly (a move afterwards finds nothing running). */
#define NO_ENGINE_STEPS "set pstate=meas;get pstate;scan x=0.1;move x=0;abort:move x=0;drop:scan x=1;get w;set pstate=ready"
#define NO_ENGINE_SAW "error action failed \\|\\| data 4 \\|\\| error invalid pstate \\|\\| error invalid pstate \\|\\| " \
    "error invalid pstate \\| ready \\|\\|  \\|\\| error invalid pstate \\|\\| "
    {"set drive.position_mm 2;absent /dev/uio0", "ready", NO_ENGINE_STEPS, NO_ENGINE_SAW},
    {"set drive.position_mm 2;fault /dev/uio0 open EIO always", "ready", NO_ENGINE_STEPS, NO_ENGINE_SAW},
    {"set drive.position_mm 2;set pru.fault no-signal", "ready", NO_ENGINE_STEPS, NO_ENGINE_SAW},
#define LATE_STEPS "abort:move x=0;drop:move x=0;move x=0;scan x=0.1;abort:scan x=1;drop:scan x=1;move x=0;set pstate=ready"
#define LATE_SAW(scan, abort_scan) "error aborted \\| ready \\|\\|  \\|\\|  \\|\\| " scan " \\|\\| " abort_scan " \\| ready \\|\\|  \\|\\|  \\|\\| "
    {"set drive.position_mm 2;set pru.fault no-start", "meas", LATE_STEPS, LATE_SAW("", "error aborted")},
    {"set drive.position_mm 2;set pru.fault no-stop", "meas", LATE_STEPS, LATE_SAW("error timeout no data", "error aborted")},
    {"set drive.position_mm 2;set pru.fault stall", "meas", LATE_STEPS, LATE_SAW("error timeout no data", "error aborted")},
    {"set pru.fault stall", "meas", "get w z sin_freq", "data \\d+ -?\\d+\\.\\d{3} \\d+\\.\\d{2}"},
    {"set pru.fault none", "meas", "set w_ov_max=1000;scan x=0.1;set w_ov_max=65535", " \\|\\| error OF PLUS \\|\\| "},
    /* the charger's own faults, with USB power in */
    {"set supply.usb_v 5;set charger.fault thermal", "ready", "idle;get batt_state", ".*event: batt fault.* \\|\\| data 5"},
    {"set supply.usb_v 5;set charger.fault battery", "ready", "idle;get batt_state", ".*event: batt fault.* \\|\\| data 5"},
    {"set supply.usb_v 5;usb-dip 200ms", "ready", "idle;get batt_state", ".* \\|\\| data [12]"},
    {"set supply.usb_v 7", "ready", "idle;get batt_state", ".* \\|\\| data 4"},
    {"set supply.usb_v 5;fault /dev/i2c-0@0x6b write EREMOTEIO always", "ready", "idle;idle;get batt_state", ".* \\|\\| .* \\|\\| data [124]"},
};
#undef SCAN_DATA
#undef NO_ENGINE_STEPS
#undef NO_ENGINE_SAW
#undef LATE_STEPS
#undef LATE_SAW
/* clang-format on */

std::vector<std::string> split(const std::string& s, char sep)
{
    std::vector<std::string> out;
    std::istringstream in(s);
    std::string part;
    while (std::getline(in, part, sep)) {
        if (!part.empty())
            out.push_back(part);
    }
    return out;
}

class FaultCampaign : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(power_up()); }

    /* A new connection, to a server started anew unless it runs. */
    bool power_up(bool start = true)
    {
        client.close();
        if ((start && !server.start()) || !client.connect(server.port()))
            return false;
        client.read_until([](const std::string& l) { return l == "0 event battery good"; }, 2000);
        return true;
    }

    /* "ok", or the board's error. */
    std::string ctl(const std::string& line)
    {
        std::string answer = vt::board_control(server.dir(), line);
        return vt::control_ok(answer) ? "ok" : "error: " + answer;
    }

    /* One request, board time running (warp) until its ready line; what
     * the client saw without the ids, ack and ready lines. An autoinfo is
     * aborted after two reports. */
    std::string exchange(const std::string& command)
    {
        if (command == "idle") {
            std::string seen;
            for (int i = 0; i < 3; i++) {
                ctl("clock advance 10s");
                std::string more = drain(100);
                seen += (seen.empty() || more.empty() ? "" : " | ") + more;
            }
            return seen;
        }
        int id = next_id++;
        ctl("clock mode warp");
        if (command.rfind("drop:", 0) == 0) {
            /* The server takes the request, then finds the connection gone
             * and closes its end; only then does the client come back. */
            client.send(std::to_string(id) + " " + command.substr(5));
            shutdown(client.fd(), SHUT_WR);
            bool back = client.closed_by_peer() && power_up(false);
            ctl("clock mode step");
            return back ? "" : "(no reconnect)";
        }
        if (command.rfind("abort:", 0) == 0) {
            /* Both in one pass of the loop: the abort meets the request just
             * started, before any timer. */
            int abort_id = next_id++;
            client.send_raw(std::to_string(id) + " " + command.substr(6) + "\n" + std::to_string(abort_id) + " abort\n");
            id = abort_id;
        } else {
            client.send(std::to_string(id) + " " + command);
        }
        std::vector<std::string> lines;
        std::string line;
        int reports = 0, abort_id = 0, readies = 0;
        int wanted = command.rfind("autoinfo", 0) == 0 ? 2 : 1;
        /* A deadline for a hang, not a pace: the cores under the sanitizer
         * take a minute for a 15 s end-switch time-out. */
        while (readies < wanted && client.read_line(&line, 90000)) {
            if (vt::is_ready_line(line, id) || (abort_id && vt::is_ready_line(line, abort_id))) {
                readies++;
                continue;
            }
            lines.push_back(line);
            if (line.rfind(std::to_string(id) + " data", 0) == 0 && ++reports == 2 && wanted == 2) {
                abort_id = next_id++;
                client.send(std::to_string(abort_id) + " abort");
            }
        }
        ctl("clock mode step");
        std::string seen;
        bool acked = false;
        for (const std::string& l : lines) {
            std::string rest = l.substr(l.find(' ') + 1);
            /* events before the ack are the last row's stragglers */
            if (rest == "ack")
                acked = true;
            if (rest == "ack" || (l[0] == '0' && !acked))
                continue;
            if (rest.rfind("ready ", 0) == 0)
                rest = "ready"; /* an aborted request's */
            seen += (seen.empty() ? "" : " | ") + (l[0] == '0' ? "event: " + rest.substr(6) : rest);
        }
        if (readies < wanted)
            seen += (seen.empty() ? "" : " | ") + std::string("(no ready)");
        return seen;
    }

    std::string drain(int ms)
    {
        std::string seen, line;
        while (client.read_line(&line, ms))
            seen += (seen.empty() ? "" : " | ") + ("event: " + line.substr(line.find(' ') + 7));
        return seen;
    }

    /* Back to the state a row starts from, without faults. */
    bool settle(const std::string& state)
    {
        for (const char* reset : {"faults-clear", "set pru.fault none", "set pru.error 0", "set charger.fault none",
                                  "set supply.usb_v 0"})
            ctl(reset);
        exchange("abort");
        exchange("set pstate=ready");
        /* the power handler's polls see the supply gone */
        for (int i = 0; i < 2; i++) {
            ctl("clock advance 10s");
            drain(50);
        }
        if (state == "meas")
            return exchange("set pstate=meas").empty() && exchange("move x=0").empty();
        return true;
    }

    /* The faults are the host's and its devices'; the PRU faults act on
     * both engines alike, and the behavioural model keeps the moves and
     * scans of every row quick under the sanitizer and the emulator. */
    vt::ServerUnderTest server{"[pru]\nengine = model\n"};
    vt::LineClient client;
    int next_id = 1;
};

TEST_F(FaultCampaign, TheServerServesOnThroughEveryFault)
{
#ifdef VELA_EMULATOR
    /* Under qemu the walk to meas does not settle on the model, most likely
     * because warp mode runs on between a reply and the switch back to
     * step, and the model's sparse events let it jump far. On the
     * simulated cores, whose 1 ms steps hold it back, it settles; there
     * the campaign takes over a minute, so it runs when asked for
     * (VELASIM_PRU_ENGINE=firmware). */
    const char* engine = getenv("VELASIM_PRU_ENGINE");
    if (engine == nullptr || std::string(engine) != "firmware")
        GTEST_SKIP() << "under the emulator on the simulated cores only";
#endif
    for (const Row& row : kTable) {
        ASSERT_TRUE(settle(row.state)) << row.fault;
        for (const std::string& c : split(row.fault, ';'))
            ASSERT_EQ("ok", ctl(c)) << c;
        std::string seen;
        bool first = true;
        for (const std::string& step : split(row.step, ';')) {
            seen += (first ? "" : " || ") + exchange(step);
            first = false;
        }
        ctl("faults-clear");
        ASSERT_TRUE(server.running()) << row.fault << " crashed the server: " << server.err();
        std::string health = exchange("get pstate");
        EXPECT_TRUE(std::regex_match(health, std::regex("data [1-5]"))) << row.fault << ": " << health;
        EXPECT_TRUE(std::regex_match(seen, std::regex(row.expect))) << row.fault << " / " << row.step << ": " << seen;
    }
}

} // namespace
