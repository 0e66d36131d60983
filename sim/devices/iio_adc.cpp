/* The processor's internal ADC as the kernel's IIO driver shows it: eight
 * read-only in_voltageN_raw attributes, each a 12-bit code (1.8 V reference)
 * of the board voltage behind the channel's divider, plus a little
 * deterministic noise. The battery, rails and motor terminals come from the
 * supply physics. */
#include <algorithm>
#include <cmath>

#include "attr.h"
#include "device.h"
#include "drive.h"
#include "supply.h"

namespace sim {

namespace {

constexpr int kChannels = 8;
constexpr double kRefV = 1.8;
constexpr int kMaxCode = 4095;

/* Bottom over total resistance of each channel's divider. */
constexpr double kDivider[kChannels] = {
    5100.0 / 11900.0, 330000.0 / 1010000.0, 330000.0 / 1010000.0, 22000.0 / 90000.0,
    22000.0 / 90000.0, 22000.0 / 90000.0,   22000.0 / 90000.0,    22000.0 / 90000.0,
};

uint64_t splitmix64(uint64_t x)
{
    x += 0x9e3779b97f4a7c15ull;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
    return x ^ (x >> 31);
}

} // namespace

class IioAdc : public Model {
public:
    IioAdc(Board& board, Supply& supply, Drive& drive) : supply_(supply), drive_(drive)
    {
        for (int ch = 0; ch < kChannels; ch++) {
            std::string path = "/sys/bus/iio/devices/iio:device0/in_voltage" + std::to_string(ch) + "_raw";
            board.add_node(std::make_unique<FuncAttr>(board, path, 0444,
                                                      [this, ch] { return std::to_string(code(ch)) + "\n"; }));
        }
        board.params().add_int("adc.noise_seed", &seed_, "seed of the ADC's noise", INT32_MIN, INT32_MAX);
        board.params().add_int("adc.noise_codes", &noise_codes_, "ADC noise amplitude, +- codes (0..4095)", 0, 4095);
    }

    void reset() override
    {
        seed_ = 1;
        noise_codes_ = 2;
        draws_ = 0;
    }

private:
    double input_v(int ch) const
    {
        const Supply& s = supply_;
        const Drive& d = drive_;
        switch (ch) {
        case 0: return s.ntc_v();
        case 1: return s.battery_v;
        case 2: return s.system_v();
        case 3: return s.motor_supply_v(d);
        case 4: return s.motor_plus_v(d);
        case 5: return s.motor_minus_v(d);
        case 6: return s.usbhost_v();
        default: return Supply::kNtcRefV;
        }
    }

    /* The same seed gives the same sequence of readings. */
    int noise()
    {
        if (noise_codes_ <= 0)
            return 0;
        uint64_t r = splitmix64(static_cast<uint64_t>(seed_) * 0x100000001b3ull + draws_++);
        return static_cast<int>(r % static_cast<uint64_t>(2 * noise_codes_ + 1)) - noise_codes_;
    }

    int code(int ch)
    {
        long c = std::lround(input_v(ch) * kDivider[ch] / kRefV * 4096.0) + noise();
        return static_cast<int>(std::clamp<long>(c, 0, kMaxCode));
    }

    Supply& supply_;
    Drive& drive_;
    int seed_ = 1;
    int noise_codes_ = 2;
    uint64_t draws_ = 0;
};

VELASIM_DEVICE(IioAdc, Supply, Drive);

} // namespace sim
