/* /sys/power/state: writing "mem" suspends the board until a wake-up source
 * fires (the RTC alarm, the power button, or "wake" on the control socket);
 * the write returns after the resume, as the kernel's does. */
#include "attr.h"
#include "device.h"

namespace sim {

class PowerState : public Model {
public:
    explicit PowerState(Board& board) { board.add_node(std::make_unique<StateFile>(board)); }

private:
    class StateFile : public AttrNode {
    public:
        explicit StateFile(Board& board) : AttrNode(board, "/sys/power/state", 0644) {}
        std::string show() override { return "freeze mem\n"; }
        /* The journal has the write before the suspend it starts. */
        int64_t write(OpenFile&, const void* buf, size_t n) override
        {
            std::string text(static_cast<const char*>(buf), n);
            bool mem = sysfs_streq(text, "mem");
            board_.journal(path(), "write", quote_text(text) + (mem ? "" : " -> EINVAL"));
            if (!mem)
                return -EINVAL;
            board_.suspend();
            return static_cast<int64_t>(n);
        }
    };
};

VELASIM_DEVICE(PowerState);

} // namespace sim
