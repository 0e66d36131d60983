#include "motorctrl.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "mtrace.h"
#include "sysfs.h"

static const char dac_bus[] = "/dev/i2c-1";
static const int dac_addr = 0x60;
static const char motor_power_path[] = "/sys/class/gpio/motor_power/value";
static const char vganf_edge_path[] = "/sys/class/gpio/vg_anf/edge";
static const char vganf_value_path[] = "/sys/class/gpio/vg_anf/value";

/* The end switch's value file; the server watches it for the falling edge. */
static int fd_vganf = -1;

int vela_motor_dac_write(uint16_t val)
{
    if (val > 4095)
        return -EINVAL;

    int fd = open(dac_bus, O_RDWR | O_SYNC);
    if (fd < 0) {
        MTRACE(3, "vela_motor_dac_write(): open() failed with errno %d", errno);
        return -1;
    }
    if (ioctl(fd, I2C_SLAVE, dac_addr) < 0) {
        MTRACE(3, "vela_motor_dac_write(): ioctl() failed with errno %d", errno);
        return -1;
    }

    /* Fast write: power-down bits 0, then the 12-bit code. */
    uint8_t data[2] = {(uint8_t)((val >> 8) & 0x0F), (uint8_t)(val & 0xFF)};

    int retries;
    ssize_t ret = vela_i2c_write_retry(fd, data, 2, &retries);
    if (ret >= 0 && ret != 2) {
        MTRACE(3, "vela_motor_dac_write(): write() result(%d) != 2 with errno %d", (int)ret, errno);
        close(fd);
        return -1;
    }
    close(fd);
    if (retries == 0) {
        MTRACE(3, "vela_motor_dac_write(): to many retries");
        return -1;
    }
    usleep(10000); /* DAC output settles */
    MTRACE(3, "vela_motor_dac_write(): success (val=%04x)\n", val);
    return 0;
}

ssize_t vela_i2c_write_retry(int fd, const void* data, size_t len, int* retries)
{
    ssize_t ret = -1;
    int left = 10;
    while (left--) {
        ret = write(fd, data, len);
        if (ret >= 0)
            break;
        usleep(1000);
    }
    *retries = left;
    return ret;
}

int vela_motor_power_ctrl(int on)
{
    return sysfs_write_valid_int(motor_power_path, 0, 1, on);
}

int vela_motor_get_vganf(int* state)
{
    if (state == NULL)
        return -EINVAL;
    if (fd_vganf < 0)
        return -ENODEV;
    char c;
    lseek(fd_vganf, 0, SEEK_SET);
    if (read(fd_vganf, &c, 1) == 1) {
        *state = c == '1' ? 1 : 0;
        MTRACE(5, "vela_motor_get_vganf(): endswitch %s reached", *state ? "NOT" : "");
        return 0;
    }
    MTRACE(3, "vela_motor_get_vganf(): read() failed with errno %d", errno);
    return -1;
}

int vela_motor_vganf_init(void)
{
    MTRACE(4, "vela_motor_vganf_init()");
    int ret = sysfs_write_string(vganf_edge_path, "none");
    MTRACE(4, "vela_motor_vganf_init(): edge -> falling: %d", ret);

    int fd = open(vganf_value_path, O_RDONLY | O_NONBLOCK);
    if (fd < 0) {
        MTRACE(3, "vela_motor_vganf_init(): open failed with errno %d", errno);
        return -1;
    }
    /* Reading once clears the change notification a fresh open reports. */
    char c = 0;
    lseek(fd, 0, SEEK_SET);
    ret = (int)read(fd, &c, 1);
    MTRACE(4, "vela_motor_vganf_init(): initial read: ret=%d, data=%02x", ret, (unsigned char)c);
    fd_vganf = fd;
    return fd;
}

int vela_motor_vganf_close(void)
{
    if (fd_vganf >= 0) {
        close(fd_vganf);
        fd_vganf = -1;
    }
    return 0;
}

int vela_motor_vganf_enable_edgeirq(void)
{
    MTRACE(4, "vela_motor_vganf_enable_edgeirq()");
    int ret = sysfs_write_string(vganf_edge_path, "falling");
    /* The read re-arms the kernel's change notification. */
    int state;
    vela_motor_get_vganf(&state);
    return ret;
}

int vela_motor_vganf_disable_edgeirq(void)
{
    MTRACE(4, "vela_motor_vganf_disable_edgeirq()");
    return sysfs_write_string(vganf_edge_path, "none");
}

int vela_motor_vganf_wait(int timeout)
{
    MTRACE(4, "vela_motor_vganf_wait()");
    if (fd_vganf == -1)
        return -ENODEV;

    struct pollfd pfd = {fd_vganf, POLLPRI, 0};
    int ret = poll(&pfd, 1, timeout);
    int err = errno;
    vela_motor_vganf_disable_edgeirq();

    if (ret < 0) {
        MTRACE(3, "vela_motor_vganf_wait(): poll() failed with errno %d", err);
        return -err;
    }
    if (ret == 0) {
        MTRACE(3, "vela_motor_vganf_wait(): poll() timeout");
        return 1;
    }
    if (pfd.revents & POLLPRI) {
        MTRACE(3, "vela_motor_vganf_wait(): vganf detected");
        return 0;
    }
    return -1;
}
