/* The battery-backed RTC (rtc1) as sysfs shows it. */
#include <ctime>

#include "attr.h"
#include "devices.h"

namespace sim {

namespace {

class Rtc : public Model {
public:
    int offset_s = 0; /* the RTC's time minus the host's UTC time */
    void reset() override { offset_s = 0; }
    std::string time_text() const
    {
        time_t t = time(nullptr) + offset_s;
        struct tm tm;
        gmtime_r(&t, &tm);
        char buf[16];
        snprintf(buf, sizeof buf, "%02d:%02d:%02d\n", tm.tm_hour, tm.tm_min, tm.tm_sec);
        return buf;
    }
};

} // namespace

void add_rtc(Board& board)
{
    Rtc* rtc = board.adopt(std::make_unique<Rtc>());
    board.params().add_int("rtc.offset_s", &rtc->offset_s, "RTC time minus host UTC time, seconds");
    board.add_node(std::make_unique<FuncAttr>(board, "/sys/class/rtc/rtc1/time", 0444,
                                              [rtc] { return rtc->time_text(); }));
}

} // namespace sim
