/* The battery-backed RTC (rtc1) as sysfs shows it: its time of day, and its
 * RAM as a binary attribute whose content is kept in the sandbox, so that it
 * survives a restart of the simulated instrument. */
#include <cstring>
#include <ctime>
#include <unistd.h>

#include "attr.h"
#include "devices.h"
#include "syscalls.h"

namespace sim {

namespace {

constexpr size_t kNvramSize = 56;

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

    void store(const std::string& data) { write_whole_file(board_.fs_path(path()), data); }

    Board& board_;
};

} // namespace

void add_rtc(Board& board)
{
    Rtc* rtc = board.adopt(std::make_unique<Rtc>());
    board.params().add_int("rtc.offset_s", &rtc->offset_s, "RTC time minus host UTC time, seconds");
    board.add_node(std::make_unique<FuncAttr>(board, "/sys/class/rtc/rtc1/time", 0444,
                                              [rtc] { return rtc->time_text(); }));

    auto nvram = std::make_unique<Nvram>(board);
    Nvram* nv = nvram.get();
    board.add_node(std::move(nvram));
    board.add_model(nv);
    board.params().add({"rtc.nvram", "the RTC's battery-backed RAM (56 bytes, hex)", [nv] { return nv->hex(); },
                        [nv](const std::string& t) { return nv->set_hex(t); }, false});
}

} // namespace sim
