/* The measurement channel's digital potentiometer at 0x2e on /dev/i2c-1
 * (257 taps, one volatile wiper). */
#include "device.h"
#include "i2c.h"
#include "meas_channel.h"

#include <algorithm>
#include <cerrno>

namespace sim {

/* A Model only so that the board owns it; its state is meas.poti. */
class DigiPot : public I2cChip, public Model {
public:
    DigiPot(Board&, MeasChannel& meas, I2c& i2c) : meas_(meas) { i2c.bus(1).attach(0x2e, this); }
    int write(const uint8_t* data, size_t n) override;
    int read(uint8_t* data, size_t n) override;

private:
    MeasChannel& meas_;
};

namespace {

constexpr int kFullScale = 0x100;

} // namespace

/* Write commands of two bytes each, "AD3..AD0 C1 C0 D9 D8" and "D7..D0";
 * only wiper 0 (address 0, command 00) is taken, anything else is not
 * acknowledged. Data above full scale sets full scale. A lone command byte
 * without its data changes nothing. */
int DigiPot::write(const uint8_t* d, size_t n)
{
    for (size_t i = 0; i + 1 < n; i += 2) {
        if ((d[i] & 0xfc) != 0)
            return -EREMOTEIO;
        meas_.poti = std::min(((d[i] & 0x03) << 8) | d[i + 1], kFullScale);
    }
    return 0;
}

/* Reads give the wiper as a 16-bit value, high byte first. */
int DigiPot::read(uint8_t* d, size_t n)
{
    for (size_t i = 0; i < n; i++)
        d[i] = static_cast<uint8_t>(i % 2 == 0 ? meas_.poti >> 8 : meas_.poti & 0xff);
    return 0;
}

VELASIM_DEVICE(DigiPot, MeasChannel, I2c);

} // namespace sim
