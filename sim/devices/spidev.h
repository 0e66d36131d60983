/* SPI character devices (/dev/spidevB.C) with the chip behind them. */
#ifndef VELASIM_SPIDEV_H
#define VELASIM_SPIDEV_H

#include <stdint.h>
#include <string>
#include <vector>

#include "board.h"

namespace sim {

/* The bus face of a chip: what it sees of one transfer with its chip select
 * asserted. SPI has no acknowledge, so a chip cannot refuse. */
class SpiChip {
public:
    virtual ~SpiChip() = default;
    /* words: bits wide each, in the order sent, most significant bit first;
     * mode: the SPI_* mode bits the controller used. */
    virtual void transfer(uint32_t mode, unsigned bits, const std::vector<uint32_t>& words) = 0;
};

/* spidev on the AM335x McSPI controller: mode, word size and speed belong to
 * the device (not the open file) and keep their values until changed;
 * SPI_IOC_MESSAGE(N), read and write transfer through the chip. What comes
 * back is 0: none of our chips drives MISO. */
class SpiDev : public Node, public Model {
public:
    SpiDev(Board& board, std::string path, SpiChip* chip);

    int64_t read(OpenFile& of, void* buf, size_t n) override;
    int64_t write(OpenFile& of, const void* buf, size_t n) override;
    int ioctl(OpenFile& of, unsigned long request, void* arg) override;
    void reset() override;

private:
    int setting(const char* what, uint32_t value, bool ok);
    int message(unsigned long request, void* arg);
    int64_t half_duplex(const uint8_t* tx, uint8_t* rx, size_t n);
    int64_t transfer(const uint8_t* tx, uint8_t* rx, uint32_t len, unsigned bits);

    Board& board_;
    SpiChip* chip_;
    int mode_ = 0;
    int bits_ = 8;
    int speed_hz_ = 0;
};

} // namespace sim

#endif
