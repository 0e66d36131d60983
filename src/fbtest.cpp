/* The framebuffer test image: seven horizontal RGB565 bands, each showing
 * one colour channel bit by bit or as a ramp, and a black/white band. */
#include <fcntl.h>
#include <linux/fb.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "testmodes.h"

static uint16_t fbtest_pixel(int band, int x, int width)
{
    switch (band) {
    case 0: /* red bits one by one */
        return (uint16_t)((0x8000 >> (x * 6 / width)) & 0xF800);
    case 1: /* red ramp */
        return (uint16_t)((x * 32 / width) << 11);
    case 2: /* green bits one by one */
        return (uint16_t)((0x400 >> (x * 7 / width)) & 0x07E0);
    case 3: /* green ramp */
        return (uint16_t)((x * 64 / width) << 5);
    case 4: /* blue bits one by one */
        return (uint16_t)(0x10 >> (x * 6 / width));
    case 5: /* blue ramp */
        return (uint16_t)(x * 32 / width);
    default: /* black left, white right */
        return x < width / 2 ? 0x0000 : 0xFFFF;
    }
}

int do_fbtest(void)
{
    int fd = open("/dev/fb0", O_RDWR | O_SYNC);
    if (fd < 0) {
        perror("open()");
        return -1;
    }
    struct fb_var_screeninfo vinfo;
    if (ioctl(fd, FBIOGET_VSCREENINFO, &vinfo) == -1) {
        perror("error reading vinfo");
        close(fd);
        return -1;
    }
    printf("framebuffer info: %dx%d, %dbpp\n", (int)vinfo.xres, (int)vinfo.yres, (int)vinfo.bits_per_pixel);

    int width = (int)vinfo.xres;
    int height = (int)vinfo.yres;
    size_t size = (size_t)vinfo.xres * vinfo.yres * vinfo.bits_per_pixel / 8;
    void* map = mmap(NULL, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (map == MAP_FAILED) {
        perror("mmap()");
        close(fd);
        return -1;
    }

    uint16_t* fb = (uint16_t*)map;
    for (int band = 0; band < 7; band++) {
        for (int y = height * band / 7; y < height * (band + 1) / 7; y++) {
            for (int x = 0; x < width; x++)
                fb[(size_t)y * width + x] = fbtest_pixel(band, x, width);
        }
    }

    munmap(map, size);
    close(fd);
    return 0;
}
