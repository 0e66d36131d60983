/* An evdev input device node: native struct input_event records, queued by
 * the model behind it. Reads return whole events only (a shorter buffer is
 * EINVAL) and as many as fit; an empty queue would block; a device that went
 * away (unplug) fails reads with ENODEV once its queue is read. */
#ifndef VELASIM_INPUT_DEVICE_H
#define VELASIM_INPUT_DEVICE_H

#include <deque>
#include <linux/input.h>

#include "board.h"

namespace sim {

class InputDevice : public Node {
public:
    explicit InputDevice(std::string path) : Node(std::move(path), S_IFCHR | 0640) {}

    /* One event, stamped with the board's wall clock. */
    void push(int type, int code, int value);
    size_t pending() const { return queue_.size(); }
    void unplug() { unplugged_ = true; }
    void reset()
    {
        queue_.clear();
        unplugged_ = false;
    }

    int64_t read(OpenFile& of, void* buf, size_t n) override;
    short poll(OpenFile& of) override;
    int64_t write(OpenFile&, const void*, size_t) override { return -EINVAL; }

private:
    std::deque<struct input_event> queue_;
    bool unplugged_ = false;
};

} // namespace sim

#endif
