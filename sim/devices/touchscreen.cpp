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
#include "device.h"
#include "input_device.h"

namespace sim {

class TouchScreen : public Model {
public:
    explicit TouchScreen(Board& board) : board_(board)
    {
        auto node = std::make_unique<InputDevice>("/dev/input/event1");
        dev_ = node.get();
        board.add_node(std::move(node));
        board.add_control("touch",
                          "touch tap X Y|drag X1 Y1 X2 Y2 N|dropped|unplug  the touch screen (480x272)\n",
                          [this](const std::string&, const std::vector<std::string>& w) { return command(w); });
        board.params().add_readonly("touch.pending", [this] { return std::to_string(dev_->pending()); },
                                    "touch events not read yet");
    }

    void reset() override { dev_->reset(); }

private:
    static constexpr int kWidth = 480;
    static constexpr int kHeight = 272;

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
            dev_->push(EV_SYN, SYN_DROPPED, 0);
            board_.journal("touch", "dropped");
        } else if (w.size() == 2 && w[1] == "unplug") {
            dev_->unplug();
            board_.journal("touch", "unplug");
        } else {
            return usage;
        }
        return "ok\n";
    }

    void frame(int x, int y, bool down)
    {
        if (down)
            dev_->push(EV_ABS, ABS_MT_SLOT, 0);
        dev_->push(EV_ABS, ABS_MT_POSITION_X, x);
        dev_->push(EV_ABS, ABS_MT_POSITION_Y, y);
        dev_->push(EV_SYN, SYN_MT_REPORT, 0);
        if (down)
            dev_->push(EV_KEY, BTN_TOUCH, 1);
        dev_->push(EV_ABS, ABS_X, x);
        dev_->push(EV_ABS, ABS_Y, y);
        dev_->push(EV_SYN, SYN_REPORT, 0);
    }

    void lift()
    {
        dev_->push(EV_SYN, SYN_MT_REPORT, 0);
        dev_->push(EV_KEY, BTN_TOUCH, 0);
        dev_->push(EV_SYN, SYN_REPORT, 0);
    }

    Board& board_;
    InputDevice* dev_;
};

VELASIM_DEVICE(TouchScreen);

} // namespace sim
