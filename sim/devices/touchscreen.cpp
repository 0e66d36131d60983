/* The touch screen's input device /dev/input/event1: native struct
 * input_event records as a multi-touch (type A) driver reports a single
 * contact, in display coordinates (480 x 272). A frame is
 *
 *     [ABS_MT_SLOT 0]  ABS_MT_POSITION_X  ABS_MT_POSITION_Y  SYN_MT_REPORT
 *     [BTN_TOUCH 1]    ABS_X  ABS_Y  SYN_REPORT
 *
 * (the bracketed ones at touch-down only); a lift is SYN_MT_REPORT,
 * BTN_TOUCH 0 and SYN_REPORT. The control face taps, drags, inserts a
 * SYN_DROPPED as evdev does when its buffer overflows, and unplugs the
 * device: queued events are still read, then reads fail with ENODEV. */
#include <cstring>
#include <deque>
#include <linux/input.h>

#include "device.h"

namespace sim {

class TouchScreen : public Model {
public:
    explicit TouchScreen(Board& board) : board_(board)
    {
        board.add_node(std::make_unique<EventNode>(*this));
        board.add_control("touch",
                          "touch tap X Y|drag X1 Y1 X2 Y2 N|dropped|unplug  the touch screen (480x272)\n",
                          [this](const std::string&, const std::vector<std::string>& w) { return command(w); });
        board.params().add_readonly("touch.pending", [this] { return std::to_string(queue_.size()); },
                                    "touch events not read yet");
    }

    void reset() override
    {
        queue_.clear();
        unplugged_ = false;
    }

private:
    static constexpr int kWidth = 480;
    static constexpr int kHeight = 272;

    class EventNode : public Node {
    public:
        explicit EventNode(TouchScreen& t) : Node("/dev/input/event1", S_IFCHR | 0640), t_(t) {}
        int64_t read(OpenFile&, void* buf, size_t n) override
        {
            if (n < sizeof(struct input_event))
                return -EINVAL;
            if (t_.queue_.empty())
                return t_.unplugged_ ? -ENODEV : -EAGAIN;
            size_t count = 0;
            while (!t_.queue_.empty() && (count + 1) * sizeof(struct input_event) <= n) {
                memcpy(static_cast<char*>(buf) + count * sizeof(struct input_event), &t_.queue_.front(),
                       sizeof(struct input_event));
                t_.queue_.pop_front();
                count++;
            }
            return static_cast<int64_t>(count * sizeof(struct input_event));
        }
        short poll(OpenFile&) override
        {
            if (!t_.queue_.empty())
                return POLLIN | POLLRDNORM;
            return t_.unplugged_ ? POLLHUP | POLLERR : 0;
        }
        int64_t write(OpenFile&, const void*, size_t) override { return -EINVAL; }

    private:
        TouchScreen& t_;
    };

    static bool number(const std::string& s, int max, int* v)
    {
        char* end = nullptr;
        long l = strtol(s.c_str(), &end, 10);
        if (s.empty() || *end != '\0' || l < 0 || l > max)
            return false;
        *v = static_cast<int>(l);
        return true;
    }

    std::string command(const std::vector<std::string>& w)
    {
        static const std::string usage =
            "error: usage: touch tap X Y | drag X1 Y1 X2 Y2 STEPS | dropped | unplug (X 0..479, Y 0..271, STEPS 1..1000)\n";
        int x1, y1, x2, y2, steps;
        if (w.size() == 4 && w[1] == "tap" && number(w[2], kWidth - 1, &x1) && number(w[3], kHeight - 1, &y1)) {
            frame(x1, y1, true);
            lift();
            board_.journal("touch", "tap", w[2] + " " + w[3]);
        } else if (w.size() == 7 && w[1] == "drag" && number(w[2], kWidth - 1, &x1) &&
                   number(w[3], kHeight - 1, &y1) && number(w[4], kWidth - 1, &x2) &&
                   number(w[5], kHeight - 1, &y2) && number(w[6], 1000, &steps) && steps > 0) {
            for (int i = 0; i <= steps; i++)
                frame(x1 + (x2 - x1) * i / steps, y1 + (y2 - y1) * i / steps, i == 0);
            lift();
            board_.journal("touch", "drag", w[2] + " " + w[3] + " " + w[4] + " " + w[5] + " " + w[6]);
        } else if (w.size() == 2 && w[1] == "dropped") {
            push(EV_SYN, SYN_DROPPED, 0);
            board_.journal("touch", "dropped");
        } else if (w.size() == 2 && w[1] == "unplug") {
            unplugged_ = true;
            board_.journal("touch", "unplug");
        } else {
            return usage;
        }
        return "ok\n";
    }

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

    void frame(int x, int y, bool down)
    {
        if (down)
            push(EV_ABS, ABS_MT_SLOT, 0);
        push(EV_ABS, ABS_MT_POSITION_X, x);
        push(EV_ABS, ABS_MT_POSITION_Y, y);
        push(EV_SYN, SYN_MT_REPORT, 0);
        if (down)
            push(EV_KEY, BTN_TOUCH, 1);
        push(EV_ABS, ABS_X, x);
        push(EV_ABS, ABS_Y, y);
        push(EV_SYN, SYN_REPORT, 0);
    }

    void lift()
    {
        push(EV_SYN, SYN_MT_REPORT, 0);
        push(EV_KEY, BTN_TOUCH, 0);
        push(EV_SYN, SYN_REPORT, 0);
    }

    Board& board_;
    std::deque<struct input_event> queue_;
    bool unplugged_ = false;
};

VELASIM_DEVICE(TouchScreen);

} // namespace sim
