#include "input_device.h"

#include <cstring>

namespace sim {

void InputDevice::push(int type, int code, int value)
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

int64_t InputDevice::read(OpenFile&, void* buf, size_t n)
{
    if (n < sizeof(struct input_event))
        return -EINVAL;
    if (queue_.empty())
        return unplugged_ ? -ENODEV : -EAGAIN;
    size_t count = 0;
    while (!queue_.empty() && (count + 1) * sizeof(struct input_event) <= n) {
        memcpy(static_cast<char*>(buf) + count * sizeof(struct input_event), &queue_.front(), sizeof(struct input_event));
        queue_.pop_front();
        count++;
    }
    return static_cast<int64_t>(count * sizeof(struct input_event));
}

short InputDevice::poll(OpenFile&)
{
    if (!queue_.empty())
        return POLLIN | POLLRDNORM;
    return unplugged_ ? POLLHUP | POLLERR : 0;
}

} // namespace sim
