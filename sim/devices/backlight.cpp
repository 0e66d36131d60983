/* The display backlight of the TPS65217 power-management chip, as its
 * backlight class device shows it: brightness 0..max_brightness (100),
 * anything above refused with EINVAL, actual_brightness following. */
#include "attr.h"
#include "device.h"

namespace sim {

class Backlight : public Model {
public:
    explicit Backlight(Board& board)
    {
        const std::string dir = "/sys/class/backlight/tps65217-bl";
        board.add_node(std::make_unique<FuncAttr>(
            board, dir + "/brightness", 0644, [this] { return std::to_string(brightness_) + "\n"; },
            [this](const std::string& t) {
                long v = 0;
                if (!parse_kernel_long(t, &v) || v < 0 || v > kMax)
                    return -EINVAL;
                brightness_ = static_cast<int>(v);
                return 0;
            }));
        board.add_node(std::make_unique<FuncAttr>(board, dir + "/actual_brightness", 0444,
                                                  [this] { return std::to_string(brightness_) + "\n"; }));
        board.add_node(std::make_unique<FuncAttr>(board, dir + "/max_brightness", 0444,
                                                  [] { return std::to_string(kMax) + "\n"; }));
        board.params().add_int("backlight.brightness", &brightness_, "display backlight 0..100", 0, kMax);
    }

    void reset() override { brightness_ = 80; }

private:
    static constexpr int kMax = 100;
    int brightness_ = 80;
};

VELASIM_DEVICE(Backlight);

} // namespace sim
