/* Measurement front end: channel power, the sine generator that excites the
 * probe (SPI), and the channel's digital potentiometer (I2C). */
#ifndef VELA_MEASUREMENT_H
#define VELA_MEASUREMENT_H

#include <stdint.h>

int vela_meas_power_ctrl(int on);
/* One 16-bit word to the generator; the ioctl's result. */
int transfer(int fd, uint16_t val);
/* The fixed 20 kHz set-up. */
int vela_sine_setup(void);
int vela_sine_setup_ex(double freq);
/* 0, or +1 when the SPI device cannot be opened or set up. */
int vela_sine_setup_freqreg(uint32_t freqreg);
/* Wiper 0..256 (0x100 = full scale). */
int vela_meas_poti_write(uint16_t wiperpos);

#endif
