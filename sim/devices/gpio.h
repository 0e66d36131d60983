/* Sysfs GPIO lines (/sys/class/gpio/<name>/{value,edge,direction}) with the
 * kernel's edge semantics: an armed edge on an input line is announced on the
 * value file until it is read again from offset 0. An input line is driven
 * by the model behind it, which reports every change as it happens, so that
 * a pulse shorter than the gap between two calls is still seen. */
#ifndef VELASIM_GPIO_H
#define VELASIM_GPIO_H

#include <string>

#include "attr.h"

namespace sim {

class GpioLine : public Model {
public:
    /* An input line reads what its model drove last; an output line is the
     * int it points at. */
    static GpioLine* input(Board& board, const std::string& name, int level = 0);
    static GpioLine* output(Board& board, const std::string& name, int* value);

    const std::string& name() const { return name_; }
    int level() const { return out_ != nullptr ? (*out_ != 0) : level_; }
    const std::string& edge() const { return edge_; }
    /* The model changes an input line's level. */
    void drive(int level);

    void reset() override { edge_ = "none"; }

private:
    GpioLine(Board& board, std::string name, int level, int* out);
    int store_value(const std::string& text);
    int store_edge(const std::string& text);

    std::string name_;
    int level_;
    int* out_;
    std::string edge_ = "none";
    AttrNode* value_ = nullptr;
};

} // namespace sim

#endif
