/* The motor's 12-bit I2C DAC at 0x60 on /dev/i2c-1 (fast-write and
 * register-write commands); its output register sets the drive's speed. */
#include "device.h"
#include "drive.h"
#include "i2c.h"

#include <cstring>

namespace sim {

class MotorDac : public I2cChip, public Model {
public:
    MotorDac(Board& board, Drive& drive, I2c& i2c);
    int write(const uint8_t* data, size_t n) override;
    int read(uint8_t* data, size_t n) override;
    void reset() override;

private:
    Drive& drive_;
    int eeprom_ = 2082;
    int eeprom_pd_ = 0;
};


MotorDac::MotorDac(Board& board, Drive& drive, I2c& i2c) : drive_(drive)
{
    board.params().add_int("motor.dac_eeprom", &eeprom_, "DAC code loaded at power-on (0..4095)", 0, 4095);
    board.params().add_int("motor.dac_eeprom_pd", &eeprom_pd_, "DAC power-down bits loaded at power-on (0..3)", 0, 3);
    i2c.bus(1).attach(0x60, this);
}

void MotorDac::reset()
{
    eeprom_ = drive_.standstill_dac;
    eeprom_pd_ = 0;
}

/* Fast write: pairs of "0 0 PD1 PD0 D11..D8", "D7..D0". Register write
 * (0x40) and register+EEPROM write (0x60): command, D11..D4, D3..D0 << 4. */
int MotorDac::write(const uint8_t* d, size_t n)
{
    if (n >= 2 && (d[0] & 0xc0) == 0) {
        for (size_t i = 0; i + 1 < n; i += 2) {
            drive_.dac = ((d[i] & 0x0f) << 8) | d[i + 1];
            drive_.dac_pd = (d[i] >> 4) & 3;
        }
    } else if (n >= 3 && ((d[0] & 0xe0) == 0x40 || (d[0] & 0xe0) == 0x60)) {
        drive_.dac = (d[1] << 4) | (d[2] >> 4);
        drive_.dac_pd = (d[0] >> 1) & 3;
        if ((d[0] & 0xe0) == 0x60) {
            eeprom_ = drive_.dac;
            eeprom_pd_ = drive_.dac_pd;
        }
    }
    return 0;
}

int MotorDac::read(uint8_t* d, size_t n)
{
    uint8_t reg[5] = {
        static_cast<uint8_t>(0xc0 | (drive_.dac_pd << 1)), /* ready, powered on */
        static_cast<uint8_t>(drive_.dac >> 4),
        static_cast<uint8_t>((drive_.dac & 0x0f) << 4),
        static_cast<uint8_t>((eeprom_pd_ << 5) | (eeprom_ >> 8)),
        static_cast<uint8_t>(eeprom_ & 0xff),
    };
    for (size_t i = 0; i < n; i++)
        d[i] = reg[i % 5];
    return 0;
}

VELASIM_DEVICE(MotorDac, Drive, I2c);

} // namespace sim
