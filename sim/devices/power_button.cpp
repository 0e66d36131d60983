/* The power-management chip's input device: the power (START) button, and
 * the chip's power-source events, as native struct input_event records. A
 * press is the scan code 0x101, a release 0x100 (EV_MSC/MSC_SCAN), each
 * followed by the key and a SYN_REPORT as an input driver reports them; the
 * control face injects any other scan value (0x201/0x200 cradle power,
 * 0x301/0x300 USB power). A press wakes a suspended board. */
#include <cstring>
#include <deque>
#include <linux/input.h>

#include "device.h"

namespace sim {

class PowerButton : public Model {
public:
    explicit PowerButton(Board& board) : board_(board)
    {
        board.add_node(std::make_unique<EventNode>(*this));
        board.add_control("button", "button press|release        the START button (a press ends a suspend)\n",
                          [this](const std::string&, const std::vector<std::string>& w) {
                              if (w.size() != 2 || (w[1] != "press" && w[1] != "release"))
                                  return std::string("error: usage: button press|release\n");
                              report(w[1] == "press" ? kPress : kRelease);
                              return std::string("ok\n");
                          });
        board.add_control("pmic", "pmic VALUE                   a scan value of the power chip's input device (0x301)\n",
                          [this](const std::string&, const std::vector<std::string>& w) {
                              char* end = nullptr;
                              long v = w.size() == 2 ? strtol(w[1].c_str(), &end, 0) : -1;
                              if (w.size() != 2 || *end != '\0' || v < 0 || v > 0xffff)
                                  return std::string("error: usage: pmic VALUE (0..0xffff)\n");
                              report(static_cast<int>(v));
                              return std::string("ok\n");
                          });
        board.params().add_readonly("button.pending", [this] { return std::to_string(queue_.size()); },
                                    "input events not read yet");
    }

    void reset() override { queue_.clear(); }

private:
    static constexpr int kPress = 0x101;
    static constexpr int kRelease = 0x100;

    /* evdev: whole events only (a shorter buffer is EINVAL), as many as
     * fit; nothing queued would block. */
    class EventNode : public Node {
    public:
        explicit EventNode(PowerButton& b) : Node("/dev/input/by-path/platform-44e0b000.i2c-event", S_IFCHR | 0640), b_(b) {}
        int64_t read(OpenFile&, void* buf, size_t n) override
        {
            if (n < sizeof(struct input_event))
                return -EINVAL;
            if (b_.queue_.empty())
                return -EAGAIN;
            size_t count = 0;
            while (!b_.queue_.empty() && (count + 1) * sizeof(struct input_event) <= n) {
                memcpy(static_cast<char*>(buf) + count * sizeof(struct input_event), &b_.queue_.front(),
                       sizeof(struct input_event));
                b_.queue_.pop_front();
                count++;
            }
            return static_cast<int64_t>(count * sizeof(struct input_event));
        }
        short poll(OpenFile&) override { return b_.queue_.empty() ? 0 : POLLIN | POLLRDNORM; }
        int64_t write(OpenFile&, const void*, size_t) override { return -EINVAL; }

    private:
        PowerButton& b_;
    };

    void push(int type, int code, int value)
    {
        struct input_event ev;
        memset(&ev, 0, sizeof ev);
        ns_t t = clock().realtime();
        ev.input_event_sec = static_cast<decltype(ev.input_event_sec)>(t / kSec);
        ev.input_event_usec = static_cast<decltype(ev.input_event_usec)>((t % kSec) / 1000);
        ev.type = static_cast<uint16_t>(type);
        ev.code = static_cast<uint16_t>(code);
        ev.value = value;
        queue_.push_back(ev);
    }

    void report(int scan)
    {
        push(EV_MSC, MSC_SCAN, scan);
        if (scan == kPress || scan == kRelease)
            push(EV_KEY, KEY_POWER, scan == kPress ? 1 : 0);
        push(EV_SYN, SYN_REPORT, 0);
        char text[16];
        snprintf(text, sizeof text, "0x%x", scan);
        board_.journal("pmic", "event", text);
        if (scan == kPress)
            board_.wake("button");
    }

    Board& board_;
    std::deque<struct input_event> queue_;
};

VELASIM_DEVICE(PowerButton);

} // namespace sim
