#include "gpio.h"

namespace sim {

GpioLine* GpioLine::input(Board& board, const std::string& name, int level)
{
    return board.adopt(std::unique_ptr<GpioLine>(new GpioLine(board, name, level, nullptr)));
}

GpioLine* GpioLine::output(Board& board, const std::string& name, int* value)
{
    return board.adopt(std::unique_ptr<GpioLine>(new GpioLine(board, name, 0, value)));
}

GpioLine::GpioLine(Board& board, std::string name, int level, int* out)
    : name_(std::move(name)), level_(level != 0), out_(out)
{
    std::string dir = "/sys/class/gpio/" + name_;
    auto value = std::make_unique<FuncAttr>(
        board, dir + "/value", 0644, [this] { return std::string(this->level() ? "1\n" : "0\n"); },
        [this](const std::string& t) { return store_value(t); });
    value_ = value.get();
    board.add_node(std::move(value));
    board.add_node(std::make_unique<FuncAttr>(
        board, dir + "/edge", 0644, [this] { return edge_ + "\n"; },
        [this](const std::string& t) { return store_edge(t); }));
    board.add_node(std::make_unique<FuncAttr>(board, dir + "/direction", 0444,
                                              [this] { return std::string(out_ ? "out\n" : "in\n"); }));
    board.params().add({"gpio." + name_ + ".edge", "edge setting of the line: none, rising, falling or both",
                        [this] { return edge_; },
                        [this](const std::string& t) { return store_edge(t) == 0; }, true});
    board.params().add_readonly("gpio." + name_ + ".value", [this] { return std::to_string(this->level()); },
                                "level of the line");
}

/* Edges are only seen on input lines, and only while armed. */
void GpioLine::drive(int level)
{
    int l = level != 0;
    if (out_ != nullptr || l == level_)
        return;
    bool rising = l > level_;
    level_ = l;
    if (edge_ == "both" || (rising && edge_ == "rising") || (!rising && edge_ == "falling"))
        value_->notify();
}

int GpioLine::store_value(const std::string& text)
{
    if (out_ == nullptr)
        return -EPERM;
    long v = 0;
    if (!parse_kernel_long(text, &v))
        return -EINVAL;
    *out_ = v != 0;
    return 0;
}

int GpioLine::store_edge(const std::string& text)
{
    for (const char* e : {"none", "rising", "falling", "both"}) {
        if (sysfs_streq(text, e)) {
            edge_ = e;
            return 0;
        }
    }
    return -EINVAL;
}

} // namespace sim
