#include "measurement.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/spi/spidev.h>
#include <math.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "motorctrl.h"
#include "mtrace.h"
#include "sysfs.h"
#include "velatool.h"

static const char meas_power_path[] = "/sys/class/gpio/meas_power/value";
static const char sine_dev[] = "/dev/spidev1.1";
static const uint32_t sine_speed_hz = 5000000;
static const double sine_mclk_hz = 16000000.0;
static const char poti_bus[] = "/dev/i2c-1";
static const int poti_addr = 0x2e;

/* Generator words: bits 15..14 select the register. */
enum {
    SINE_CTRL_B28_RESET = 0x2100, /* 28-bit loads in two writes, output held in reset */
    SINE_CTRL_RUN = 0x2000,       /* reset released: FREQ0, PHASE0, sine */
    SINE_FREQ0 = 0x4000,
    SINE_FREQ1 = 0x8000,
    SINE_FREQ_MASK = 0x3fff,
};

int vela_meas_power_ctrl(int on)
{
    int ret = sysfs_write_valid_int(meas_power_path, 0, 1, on);
    if (ret != 0)
        return ret;
    if (on)
        usleep(10000); /* analog supply settles */
    return 0;
}

int transfer(int fd, uint16_t val)
{
    struct spi_ioc_transfer tr;
    memset(&tr, 0, sizeof tr);
    tr.tx_buf = (uintptr_t)&val; /* the native word: 16 bits per word */
    tr.len = 2;
    tr.speed_hz = sine_speed_hz;
    tr.bits_per_word = 16;
    return ioctl(fd, SPI_IOC_MESSAGE(1), &tr);
}

int vela_sine_setup(void)
{
    return vela_sine_setup_ex(20000.0);
}

int vela_sine_setup_ex(double freq)
{
    /* 2^28 steps per master clock period */
    uint32_t freqreg = (uint32_t)rint(freq * 268435456.0 / sine_mclk_hz);
    return vela_sine_setup_freqreg(freqreg);
}

int vela_sine_setup_freqreg(uint32_t freqreg)
{
    int fd = open(sine_dev, O_RDWR);
    if (fd < 0) {
        perror("open");
        return 1;
    }
    uint8_t mode = SPI_MODE_2;
    if (ioctl(fd, SPI_IOC_WR_MODE, &mode) == -1) {
        perror("open");
        return 1; /* note: fd is left open on this path */
    }

    uint16_t lsb = (uint16_t)(freqreg & SINE_FREQ_MASK);
    uint16_t msb = (uint16_t)((freqreg >> 14) & SINE_FREQ_MASK);
    /* Both registers get the value; the output starts from FREQ0 when the
     * reset is released. */
    transfer(fd, SINE_CTRL_B28_RESET);
    transfer(fd, SINE_FREQ0 | lsb);
    transfer(fd, SINE_FREQ0 | msb);
    transfer(fd, SINE_FREQ1 | lsb);
    transfer(fd, SINE_FREQ1 | msb);
    transfer(fd, SINE_CTRL_RUN);
    close(fd);

    MTRACE(3, "vela_sine_setup_freqreg(0x%08x): success\n", freqreg);
    usleep(100000); /* generator output settles */
    return 0;
}

int vela_meas_poti_write(uint16_t wiperpos)
{
    if (options.verbose)
        printf("vela_meas_poti_write(): wiperpos=0x%03x\n", wiperpos);
    if (wiperpos > 256)
        return -EINVAL;

    int fd = open(poti_bus, O_RDWR | O_SYNC);
    if (fd < 0) {
        perror(poti_bus);
        return -1;
    }
    if (ioctl(fd, I2C_SLAVE, poti_addr) < 0) {
        perror("ioctl(I2C_SLAVE)");
        close(fd);
        return -1;
    }

    /* Write wiper 0: address and command bits 0, then D8 and D7..D0. */
    uint8_t data[2] = {(uint8_t)((wiperpos >> 8) & 0x01), (uint8_t)(wiperpos & 0xff)};

    int retries;
    ssize_t ret = vela_i2c_write_retry(fd, data, 2, &retries);
    if (ret >= 0 && ret != 2) {
        perror("write(..., &data, 2) incomplete");
        close(fd);
        return -1;
    }
    close(fd);
    if (retries == 0) {
        perror("write(..., &data, 2)");
        return -1;
    }
    return 0;
}
