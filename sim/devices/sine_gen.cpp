/* The measurement channel's DDS sine generator (16 MHz master clock, 28-bit
 * frequency registers, 16-bit words) behind /dev/spidev1.1. */
#include "device.h"
#include "meas_channel.h"
#include "spidev.h"

#include <linux/spi/spidev.h>

namespace sim {

/* Powered by the channel supply: without it the chip forgets everything and
 * comes back held in reset. Keeps meas.sine_hz current. */
class SineGenerator : public SpiChip, public Model {
public:
    SineGenerator(Board& board, MeasChannel& meas);
    void transfer(uint32_t mode, unsigned bits, const std::vector<uint32_t>& words) override;
    void reset() override;
    void advance(ns_t now) override;

private:
    void word(uint16_t w);
    void load_freq(int reg, int value14);
    double output_hz() const;

    MeasChannel& meas_;
    int control_ = 0;
    int freq_[2] = {0, 0};
    int lsb_[2] = {0, 0};           /* B28: low half waiting for its high half */
    bool half_[2] = {false, false}; /* B28: next write is the high half */
};

namespace {

constexpr double kMclkHz = 16e6;
constexpr double kSteps = 268435456.0; /* 2^28 */

/* Control register bits */
constexpr int kB28 = 1 << 13;
constexpr int kHlb = 1 << 12;
constexpr int kFselect = 1 << 11;
constexpr int kReset = 1 << 8;
constexpr int kSleep1 = 1 << 7;
constexpr int kSleep12 = 1 << 6;
constexpr int kOpbiten = 1 << 5;
constexpr int kModeTriangle = 1 << 1;

constexpr int kMask14 = 0x3fff;

} // namespace

SineGenerator::SineGenerator(Board& board, MeasChannel& meas) : meas_(meas)
{
    Params& p = board.params();
    p.add_int("sine.control", &control_, "generator control register (14 bits)", 0, 0x3fff);
    p.add_int("sine.freq0", &freq_[0], "generator frequency register 0 (28 bits)", 0, 0xfffffff);
    p.add_int("sine.freq1", &freq_[1], "generator frequency register 1 (28 bits)", 0, 0xfffffff);
    board.add_node_model(std::make_unique<SpiDev>(board, "/dev/spidev1.1", this));
}

void SineGenerator::reset()
{
    control_ = kReset;
    freq_[0] = freq_[1] = 0;
    lsb_[0] = lsb_[1] = 0;
    half_[0] = half_[1] = false;
    meas_.sine_hz = 0;
}

void SineGenerator::advance(ns_t)
{
    if (!meas_.power)
        reset();
    meas_.sine_hz = output_hz();
}

/* The chip samples on the falling clock edge with its frame sync low: it
 * understands mode 2 only. Each 16 bits clocked in while selected make a
 * word, whatever the controller's word size; a rest is dropped. */
void SineGenerator::transfer(uint32_t mode, unsigned bits, const std::vector<uint32_t>& words)
{
    if (!meas_.power || mode != SPI_MODE_2)
        return;
    uint32_t frame = 0;
    int count = 0;
    for (uint32_t w : words) {
        for (int b = static_cast<int>(bits) - 1; b >= 0; b--) {
            frame = (frame << 1) | ((w >> b) & 1);
            if (++count == 16) {
                word(static_cast<uint16_t>(frame));
                frame = 0;
                count = 0;
            }
        }
    }
    meas_.sine_hz = output_hz();
}

void SineGenerator::word(uint16_t w)
{
    switch (w >> 14) {
    case 0:
        control_ = w & kMask14;
        half_[0] = half_[1] = false;
        break;
    case 1:
        load_freq(0, w & kMask14);
        break;
    case 2:
        load_freq(1, w & kMask14);
        break;
    default:
        break; /* phase registers: no effect on the frequency */
    }
}

/* B28: two consecutive writes, low half first, the register changes with the
 * second. Otherwise HLB picks the half that one write replaces. */
void SineGenerator::load_freq(int reg, int value14)
{
    if (control_ & kB28) {
        if (!half_[reg]) {
            lsb_[reg] = value14;
            half_[reg] = true;
        } else {
            freq_[reg] = (value14 << 14) | lsb_[reg];
            half_[reg] = false;
        }
    } else if (control_ & kHlb) {
        freq_[reg] = (value14 << 14) | (freq_[reg] & kMask14);
    } else {
        freq_[reg] = (freq_[reg] & ~kMask14) | value14;
    }
}

/* A sine only: held in reset, asleep, or putting out a square or triangle
 * wave counts as no excitation. */
double SineGenerator::output_hz() const
{
    if (!meas_.power || (control_ & (kReset | kSleep1 | kSleep12 | kOpbiten | kModeTriangle)))
        return 0.0;
    return kMclkHz * freq_[(control_ & kFselect) ? 1 : 0] / kSteps;
}

VELASIM_DEVICE(SineGenerator, MeasChannel);

} // namespace sim
