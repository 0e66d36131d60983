/* The green run LED of the LED class: its trigger file lists the triggers
 * with the active one in brackets; a write takes one of them. */
#include "attr.h"
#include "device.h"

namespace sim {

namespace {

const char* const kTriggers[] = {"none", "nand-disk", "mmc0", "timer", "oneshot", "heartbeat", "default-on"};

} // namespace

class RunLed : public Model {
public:
    explicit RunLed(Board& board)
    {
        board.add_node(std::make_unique<FuncAttr>(
            board, "/sys/devices/leds.4/leds/vela:green:run/trigger", 0644,
            [this] {
                std::string list;
                for (const char* t : kTriggers)
                    list += (list.empty() ? "" : " ") + (trigger_ == t ? "[" + std::string(t) + "]" : std::string(t));
                return list + "\n";
            },
            [this](const std::string& text) { return select(text) ? 0 : -EINVAL; }));
        board.params().add({"led.trigger", "trigger of the run LED (none, timer, default-on, heartbeat, ...)",
                            [this] { return trigger_; }, [this](const std::string& t) { return select(t); }, true});
    }

    void reset() override { trigger_ = "heartbeat"; }

private:
    bool select(const std::string& text)
    {
        for (const char* t : kTriggers) {
            if (sysfs_streq(text, t)) {
                trigger_ = t;
                return true;
            }
        }
        return false;
    }

    std::string trigger_ = "heartbeat";
};

VELASIM_DEVICE(RunLed);

} // namespace sim
