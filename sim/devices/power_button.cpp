/* The power-management chip's input device: the power (START) button, and
 * the chip's power-source events, as native struct input_event records. A
 * press is the scan code 0x101, a release 0x100 (EV_MSC/MSC_SCAN), each
 * followed by the key and a SYN_REPORT as an input driver reports them; the
 * control face injects any other scan value (0x201/0x200 cradle power,
 * 0x301/0x300 USB power). A press wakes a suspended board. */
#include "device.h"
#include "input_device.h"

namespace sim {

class PowerButton : public Model {
public:
    explicit PowerButton(Board& board) : board_(board)
    {
        auto node = std::make_unique<InputDevice>("/dev/input/by-path/platform-44e0b000.i2c-event");
        dev_ = node.get();
        board.add_node(std::move(node));
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
        board.params().add_readonly("button.pending", [this] { return std::to_string(dev_->pending()); },
                                    "input events not read yet");
    }

    void reset() override { dev_->reset(); }

private:
    static constexpr int kPress = 0x101;
    static constexpr int kRelease = 0x100;

    void report(int scan)
    {
        dev_->push(EV_MSC, MSC_SCAN, scan);
        if (scan == kPress || scan == kRelease)
            dev_->push(EV_KEY, KEY_POWER, scan == kPress ? 1 : 0);
        dev_->push(EV_SYN, SYN_REPORT, 0);
        char text[16];
        snprintf(text, sizeof text, "0x%x", scan);
        board_.journal("pmic", "event", text);
        if (scan == kPress)
            board_.wake("button");
    }

    Board& board_;
    InputDevice* dev_;
};

VELASIM_DEVICE(PowerButton);

} // namespace sim
