/* The CPU's frequency limits (cpufreq policy of cpu0, kHz). The kernel
 * refuses a minimum above the maximum (and a maximum below the minimum)
 * with EINVAL, so the order of two writes matters; values are held within
 * the hardware's range. */
#include <algorithm>

#include "attr.h"
#include "device.h"

namespace sim {

class CpuFreq : public Model {
public:
    explicit CpuFreq(Board& board)
    {
        const std::string dir = "/sys/devices/system/cpu/cpu0/cpufreq";
        board.add_node(std::make_unique<FuncAttr>(
            board, dir + "/scaling_min_freq", 0644, [this] { return std::to_string(min_) + "\n"; },
            [this](const std::string& t) { return store(t, &min_); }));
        board.add_node(std::make_unique<FuncAttr>(
            board, dir + "/scaling_max_freq", 0644, [this] { return std::to_string(max_) + "\n"; },
            [this](const std::string& t) { return store(t, &max_); }));
        board.add_node(std::make_unique<FuncAttr>(board, dir + "/cpuinfo_min_freq", 0444,
                                                  [] { return std::to_string(kLowest) + "\n"; }));
        board.add_node(std::make_unique<FuncAttr>(board, dir + "/cpuinfo_max_freq", 0444,
                                                  [] { return std::to_string(kHighest) + "\n"; }));
        board.add_node(std::make_unique<FuncAttr>(board, dir + "/scaling_available_frequencies", 0444,
                                                  [] { return std::string("300000 600000 720000 800000 1000000 \n"); }));
        board.params().add_int("cpufreq.min_khz", &min_, "scaling_min_freq, kHz", kLowest, kHighest);
        board.params().add_int("cpufreq.max_khz", &max_, "scaling_max_freq, kHz", kLowest, kHighest);
    }

    void reset() override
    {
        min_ = kLowest;
        max_ = kHighest;
    }

private:
    static constexpr int kLowest = 300000;
    static constexpr int kHighest = 1000000;

    int store(const std::string& text, int* limit)
    {
        long v = 0;
        if (!parse_kernel_long(text, &v) || v < 0)
            return -EINVAL;
        int value = static_cast<int>(std::clamp<long>(v, kLowest, kHighest));
        if ((limit == &min_ && value > max_) || (limit == &max_ && value < min_))
            return -EINVAL;
        *limit = value;
        return 0;
    }

    int min_ = kLowest;
    int max_ = kHighest;
};

VELASIM_DEVICE(CpuFreq);

} // namespace sim
