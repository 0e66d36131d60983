/* The input-device monitors and the opto port loop test: each prints what it
 * sees, a line at a time, flushed so that a pipe shows it at once. */
#include "testmodes.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/input.h>
#include <linux/serial.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "opto.h"

namespace {

const char* const kPmicEvents = "/dev/input/by-path/platform-44e0b000.i2c-event";
const char* const kTouchEvents = "/dev/input/event1";
const char* const kOptoPort = "/dev/ttyO1";

/* Release quadrants of this display. */
const int kSplitX = 241;
const int kSplitY = 137;

/* One whole event, or false with errno set (a short read counts as EIO). */
bool read_event(int fd, struct input_event* ev)
{
    ssize_t n = read(fd, ev, sizeof *ev);
    if (n == static_cast<ssize_t>(sizeof *ev))
        return true;
    if (n >= 0)
        errno = EIO;
    return false;
}

const char* pmic_text(int value)
{
    switch (value) {
    case 0x100: return "START released";
    case 0x101: return "START pressed";
    case 0x200: return "Cradle power disconnected";
    case 0x201: return "Cradle power connected";
    case 0x300: return "USB power disconnected";
    case 0x301: return "USB power connected";
    default: return "unknown";
    }
}

} // namespace

int do_eventmonitor(void)
{
    int fd = open(kPmicEvents, O_RDONLY);
    if (fd < 0) {
        perror("open");
        return -1;
    }
    struct input_event ev;
    while (read_event(fd, &ev)) {
        if (ev.type == EV_MSC && ev.code == MSC_SCAN) {
            printf("%6d.%06d: %s\n", static_cast<int>(ev.input_event_sec), static_cast<int>(ev.input_event_usec),
                   pmic_text(ev.value));
            fflush(stdout);
        }
    }
    perror("read");
    close(fd);
    return -1;
}

int do_touchmonitor(void)
{
    int fd = open(kTouchEvents, O_RDONLY);
    if (fd < 0) {
        perror("open");
        return -1;
    }
    printf("TIMESTAMP        : COUNT  TYPE CODE VALUE\n");
    fflush(stdout);

    int presses = 0, releases = 0, unknown = 0, mt_reports = 0, reports = 0, dropped = 0, abs_events = 0;
    int last_x = -1, last_y = -1;
    int rel_right = 0, rel_left = 0, rel_bottom = 0, rel_top = 0;
    struct input_event ev;
    for (int count = 0; read_event(fd, &ev); count++) {
        if (ev.type == EV_KEY) {
            if (ev.code == BTN_TOUCH && ev.value == 1) {
                presses++;
            } else if (ev.code == BTN_TOUCH && ev.value == 0) {
                releases++;
                if (last_x >= kSplitX)
                    rel_right++;
                else
                    rel_left++;
                if (last_y >= kSplitY)
                    rel_bottom++;
                else
                    rel_top++;
            } else {
                unknown++;
            }
        } else if (ev.type == EV_SYN) {
            if (ev.code == SYN_MT_REPORT)
                mt_reports++;
            else if (ev.code == SYN_REPORT)
                reports++;
            else if (ev.code == SYN_DROPPED)
                dropped++;
        } else if (ev.type == EV_ABS) {
            abs_events++;
            if (ev.code == ABS_MT_POSITION_X)
                last_x = ev.value;
            else if (ev.code == ABS_MT_POSITION_Y)
                last_y = ev.value;
        }
        printf("%6d.%06d: %6d %04x %04x %08x ", static_cast<int>(ev.input_event_sec),
               static_cast<int>(ev.input_event_usec), count, ev.type, ev.code, static_cast<unsigned>(ev.value));
        printf("%d %d %d %d %d %d %d %d/%d %d %d %d %d\n", presses, releases, unknown, mt_reports, reports, dropped,
               abs_events, last_x, last_y, rel_right, rel_left, rel_bottom, rel_top);
        fflush(stdout);
    }
    perror("read");
    close(fd);
    return -1;
}

int do_opto_rs232_test(void)
{
    int fd = opto_rs232_open(kOptoPort);
    if (fd < 0)
        return -1;
    printf("Using %s: 4800 baud, 7E2\n", kOptoPort);
    printf("Press CTRL-C to abort.\n");
    printf("Press button on Opto-RS232 cable to generate break.\n");
    fflush(stdout);

    for (int n = 0;;) {
        unsigned char buf[32];
        int got = static_cast<int>(read(fd, buf, sizeof buf));
        printf("read result=%d ", got);
        for (int i = 0; i < got && i < 3; i++)
            printf("%02x ", buf[i]);
        if (got >= 0)
            printf("\n");
        fflush(stdout);

        struct serial_icounter_struct ic = {};
        int res = ioctl(fd, TIOCGICOUNT, &ic);
        printf("ioctl(TIOCGICOUNT) result=%d\n", res);
        if (res >= 0)
            printf("rx=%d, tx=%d, parity=%d, brk=%d\n", ic.rx, ic.tx, ic.parity, ic.brk);
        fflush(stdout);

        char text[24];
        int len = snprintf(text, sizeof text, "%d.%03d\r", n, n);
        printf("write result=%d\n", static_cast<int>(write(fd, text, static_cast<size_t>(len))));
        fflush(stdout);
        if (++n == 1000)
            n = 0;
    }
}
