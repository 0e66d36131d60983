/* The real-time clocks. rtc1, the battery-backed one, as sysfs shows it:
 * its time of day, and its RAM as a binary attribute kept in the sandbox so
 * that it survives a restart of the simulated instrument. rtc0, the
 * processor's, as /dev/rtc0 with the time and wake-up alarm ioctls of the
 * kernel's rtc-dev. Both read the board's wall clock plus rtc.offset_s.
 *
 * The alarm behaves as the kernel's alarm timer: setting one in the past
 * fires it at once; it fires once, then reads back disabled and pending; a
 * firing alarm ends a suspend. */
#include <cstring>
#include <ctime>
#include <linux/rtc.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "attr.h"
#include "device.h"
#include "syscalls.h"

namespace sim {

namespace {

constexpr size_t kNvramSize = 56;

/* A binary sysfs attribute of fixed size: reads and writes at the file
 * position, cut at the end; a write at or past the end fails with EFBIG. */
class Nvram : public Node, public Model {
public:
    Nvram(Board& board) : Node("/sys/class/rtc/rtc1/device/nvram", S_IFREG | 0644), board_(board) {}

    int64_t size() override { return kNvramSize; }

    int64_t read(OpenFile& of, void* buf, size_t n) override
    {
        std::string data = load();
        if (of.pos >= static_cast<int64_t>(kNvramSize))
            return 0;
        size_t count = std::min(n, kNvramSize - static_cast<size_t>(of.pos));
        memcpy(buf, data.data() + of.pos, count);
        of.pos += static_cast<int64_t>(count);
        return static_cast<int64_t>(count);
    }

    int64_t write(OpenFile& of, const void* buf, size_t n) override
    {
        if (of.pos >= static_cast<int64_t>(kNvramSize))
            return -EFBIG;
        size_t count = std::min(n, kNvramSize - static_cast<size_t>(of.pos));
        std::string data = load();
        data.replace(static_cast<size_t>(of.pos), count, static_cast<const char*>(buf), count);
        store(data);
        board_.journal(path(), "write", "@" + std::to_string(of.pos) + " " + hex_bytes(buf, count));
        of.pos += static_cast<int64_t>(count);
        return static_cast<int64_t>(count);
    }

    void create_files(Board&) override
    {
        if (SIM_REAL(access)(board_.fs_path(path()).c_str(), F_OK) != 0)
            store(std::string(kNvramSize, '\0')); /* a battery never changed: all zero */
    }

    std::string hex() { return hex_bytes(load().data(), kNvramSize); }
    bool set_hex(const std::string& text)
    {
        std::string data;
        if (!parse_hex_bytes(text, &data) || data.size() > kNvramSize)
            return false;
        data.resize(kNvramSize, '\0');
        store(data);
        return true;
    }

private:
    std::string load()
    {
        std::string data;
        read_whole_file(board_.fs_path(path()), &data);
        data.resize(kNvramSize, '\0');
        return data;
    }

    void store(const std::string& data) { write_whole_file(board_.fs_path(path()), data, board_.dir()); }

    Board& board_;
};


/* The kernel's rtc_valid_tm(). */
bool valid_rtc_time(const struct rtc_time& tm)
{
    static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (tm.tm_year < 70 || tm.tm_mon < 0 || tm.tm_mon > 11 || tm.tm_mday < 1 || tm.tm_hour < 0 ||
        tm.tm_hour > 23 || tm.tm_min < 0 || tm.tm_min > 59 || tm.tm_sec < 0 || tm.tm_sec > 59)
        return false;
    int year = tm.tm_year + 1900;
    bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return tm.tm_mday <= kDays[tm.tm_mon] + (tm.tm_mon == 1 && leap ? 1 : 0);
}

/* struct rtc_time has struct tm's calendar fields. */
template <class To, class From> To calendar(const From& from)
{
    To to = {};
    to.tm_sec = from.tm_sec;
    to.tm_min = from.tm_min;
    to.tm_hour = from.tm_hour;
    to.tm_mday = from.tm_mday;
    to.tm_mon = from.tm_mon;
    to.tm_year = from.tm_year;
    to.tm_wday = from.tm_wday;
    to.tm_yday = from.tm_yday;
    return to;
}

int64_t rtc_seconds(const struct rtc_time& rt)
{
    struct tm tm = calendar<struct tm>(rt);
    return timegm(&tm);
}

struct rtc_time rtc_fields(int64_t seconds)
{
    time_t t = static_cast<time_t>(seconds);
    struct tm tm;
    gmtime_r(&t, &tm);
    return calendar<struct rtc_time>(tm);
}

std::string rtc_text(const struct rtc_time& rt)
{
    char buf[40];
    snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d", rt.tm_year + 1900, rt.tm_mon + 1, rt.tm_mday,
             rt.tm_hour, rt.tm_min, rt.tm_sec);
    return buf;
}

} // namespace

class Rtc : public Model {
public:
    explicit Rtc(Board& board) : board_(board)
    {
        board.params().add_int("rtc.offset_s", &offset_s_, "RTC time minus the board's wall clock, seconds", -2000000000,
                               2000000000);
        board.params().add_readonly("rtc.alarm", [this] { return alarm_text(); },
                                    "the wake-up alarm of /dev/rtc0: off, or its time, enabled and pending");
        /* The alarm is the chip's, and stays set between two programs. */
        board.params().add_internal(
            "rtc.alarm_saved",
            [this] {
                return std::to_string(alarm_s_) + " " + std::to_string(alarm_set_) + std::to_string(enabled_) +
                       std::to_string(pending_);
            },
            [this](const std::string& t) {
                long long at = 0;
                int set = 0, enabled = 0, pending = 0;
                if (sscanf(t.c_str(), "%lld %1d%1d%1d", &at, &set, &enabled, &pending) != 4)
                    return false;
                alarm_s_ = at;
                alarm_set_ = set != 0;
                enabled_ = enabled != 0;
                pending_ = pending != 0;
                return true;
            });
        board.add_node(std::make_unique<FuncAttr>(board, "/sys/class/rtc/rtc1/time", 0444, [this] {
            struct rtc_time rt = rtc_fields(seconds());
            char buf[16];
            snprintf(buf, sizeof buf, "%02d:%02d:%02d\n", rt.tm_hour, rt.tm_min, rt.tm_sec);
            return std::string(buf);
        }));
        Nvram* nv = board.add_node_model(std::make_unique<Nvram>(board));
        board.params().add({"rtc.nvram", "the RTC's battery-backed RAM (56 bytes, hex)", [nv] { return nv->hex(); },
                            [nv](const std::string& t) { return nv->set_hex(t); }, false});
        board.add_node(std::make_unique<Dev>(*this));
    }

    void reset() override
    {
        offset_s_ = 0;
        alarm_s_ = 0;
        alarm_set_ = enabled_ = pending_ = false;
    }

    void advance(ns_t) override
    {
        if (!enabled_ || seconds() < alarm_s_)
            return;
        enabled_ = false; /* the alarm timer is one-shot */
        pending_ = true;
        board_.journal("/dev/rtc0", "alarm", rtc_text(rtc_fields(alarm_s_)));
        board_.wake("rtc");
    }

    ns_t next_event(ns_t) override
    {
        if (!enabled_)
            return kNever;
        return clock().board_time_of(CLOCK_REALTIME, (alarm_s_ - offset_s_) * kSec);
    }

private:
    /* /dev/rtc0 */
    class Dev : public Node {
    public:
        explicit Dev(Rtc& rtc) : Node("/dev/rtc0", S_IFCHR | 0600), rtc_(rtc) {}
        int ioctl(OpenFile&, unsigned long request, void* arg) override { return rtc_.ioctl(request, arg); }

    private:
        Rtc& rtc_;
    };

    int64_t seconds() const { return clock().realtime() / kSec + offset_s_; }

    std::string alarm_text() const
    {
        if (!alarm_set_)
            return "off";
        return rtc_text(rtc_fields(alarm_s_)) + (enabled_ ? " enabled" : " disabled") + (pending_ ? " pending" : "");
    }

    int ioctl(unsigned long request, void* arg)
    {
        auto* rt = static_cast<struct rtc_time*>(arg);
        auto* wk = static_cast<struct rtc_wkalrm*>(arg);
        switch (request) {
        case RTC_RD_TIME:
            *rt = rtc_fields(seconds());
            return 0;
        case RTC_SET_TIME:
            if (!valid_rtc_time(*rt))
                return journaled("RTC_SET_TIME", rtc_text(*rt), -EINVAL);
            offset_s_ = static_cast<int>(rtc_seconds(*rt) - clock().realtime() / kSec);
            return journaled("RTC_SET_TIME", rtc_text(*rt), 0);
        case RTC_WKALM_SET:
            if (!valid_rtc_time(wk->time))
                return journaled("RTC_WKALM_SET", rtc_text(wk->time), -EINVAL);
            alarm_s_ = rtc_seconds(wk->time);
            alarm_set_ = true;
            enabled_ = wk->enabled != 0;
            pending_ = false;
            return journaled("RTC_WKALM_SET", rtc_text(wk->time) + (enabled_ ? " enabled" : " disabled"), 0);
        case RTC_WKALM_RD:
            memset(wk, 0, sizeof *wk);
            wk->enabled = enabled_;
            wk->pending = pending_;
            wk->time = rtc_fields(alarm_s_);
            return 0;
        case RTC_AIE_ON:
            enabled_ = true;
            pending_ = false;
            return journaled("RTC_AIE_ON", "", 0);
        case RTC_AIE_OFF:
            enabled_ = false;
            return journaled("RTC_AIE_OFF", "", 0);
        default:
            return -ENOTTY;
        }
    }

    int journaled(const char* what, const std::string& details, int res)
    {
        board_.journal("/dev/rtc0", what, details + (res < 0 ? (details.empty() ? "-> " : " -> ") + errno_name(-res) : ""));
        return res;
    }

    Board& board_;
    int offset_s_ = 0;
    int64_t alarm_s_ = 0; /* alarm time, RTC seconds */
    bool alarm_set_ = false;
    bool enabled_ = false;
    bool pending_ = false;
};

VELASIM_DEVICE(Rtc);

} // namespace sim
