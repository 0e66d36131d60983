/* I2C character devices (/dev/i2c-N) and the chips on them. */
#ifndef VELASIM_I2C_H
#define VELASIM_I2C_H

#include <map>
#include <stdint.h>
#include <string>

#include "board.h"

namespace sim {

/* The bus face of a chip: one transfer in either direction. */
class I2cChip {
public:
    virtual ~I2cChip() = default;
    /* 0 or -errno (the chip NACKs). */
    virtual int write(const uint8_t* data, size_t n) = 0;
    virtual int read(uint8_t* data, size_t n) = 0;
};

class I2cBus : public Node {
public:
    I2cBus(Board& board, std::string path) : Node(std::move(path), S_IFCHR | 0660), board_(board) {}

    /* A chip at addr; its read and write can be made to fail. */
    void attach(int addr, I2cChip* chip);
    /* Journal and fault name of a chip: "/dev/i2c-1@0x60". */
    std::string chip_name(int addr) const;

    int open(OpenFile& of) override;
    int64_t read(OpenFile& of, void* buf, size_t n) override;
    int64_t write(OpenFile& of, const void* buf, size_t n) override;
    int ioctl(OpenFile& of, unsigned long request, void* arg) override;

private:
    int64_t transfer(int addr, bool is_read, uint8_t* data, size_t n);

    Board& board_;
    std::map<int, I2cChip*> chips_;
};

/* The processor's I2C controllers as i2c-dev shows them: /dev/i2c-0 (the
 * charger) and /dev/i2c-1 (motor DAC, potentiometer). */
class I2c : public Model {
public:
    explicit I2c(Board& board);
    I2cBus& bus(int n) { return *buses_[n]; }

private:
    I2cBus* buses_[2];
};

} // namespace sim

#endif
