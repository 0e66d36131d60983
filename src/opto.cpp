#include "opto.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

static struct termios saved_settings;

int opto_rs232_open(const char* devname)
{
    int fd = open(devname, O_RDWR | O_NOCTTY);
    if (fd < 0) {
        perror("open");
        return -1;
    }
    tcgetattr(fd, &saved_settings);

    struct termios tio;
    memset(&tio, 0, sizeof tio);
    /* No PARENB: parity is neither generated nor checked. */
    tio.c_cflag = CS7 | CSTOPB | CREAD | CLOCAL;
    cfsetispeed(&tio, B4800);
    cfsetospeed(&tio, B4800);
    /* A break is marked in the data as 0xFF 0x00 0x00. */
    tio.c_iflag = PARMRK | INPCK;
    tio.c_oflag = 0;
    tio.c_lflag = 0;
    tio.c_cc[VMIN] = 1;
    tio.c_cc[VTIME] = 0;
    tcsetattr(fd, TCSANOW, &tio);
    return fd;
}

void opto_rs232_close(int fd)
{
    if (fd < 0)
        return;
    tcsetattr(fd, TCSANOW, &saved_settings);
    close(fd);
}
