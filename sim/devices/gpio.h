/* Sysfs GPIO lines (/sys/class/gpio/<name>/{value,edge,direction}) with the
 * kernel's edge semantics: an armed edge on an input line is announced on the
 * value file until it is read again from offset 0. */
#ifndef VELASIM_GPIO_H
#define VELASIM_GPIO_H

#include <functional>
#include <string>

#include "attr.h"

namespace sim {

class GpioLine : public Model {
public:
    /* An input line reads level(); an output line is the int it points at. */
    static GpioLine* input(Board& board, const std::string& name, std::function<int()> level);
    static GpioLine* output(Board& board, const std::string& name, int* value);

    const std::string& name() const { return name_; }
    int level() const { return out_ != nullptr ? (*out_ != 0) : (level_() != 0); }
    const std::string& edge() const { return edge_; }

    void reset() override;
    void advance(ns_t now) override;

private:
    GpioLine(Board& board, std::string name, std::function<int()> input, int* out);
    int store_value(const std::string& text);
    int store_edge(const std::string& text);

    std::string name_;
    std::function<int()> level_;
    int* out_;
    std::string edge_ = "none";
    int last_level_ = 0;
    AttrNode* value_ = nullptr;
};

} // namespace sim

#endif
