/* The diagnostic and test modes of the command line: monitors, demos, the
 * EMC test and the framebuffer test image. Each returns 0 or -1. */
#ifndef VELA_TESTMODES_H
#define VELA_TESTMODES_H

int do_eventmonitor(void);
int do_touchmonitor(void);
int do_opto_rs232_test(void);
int do_demo(void);
int do_usbtest(const char* mountpoint);
int do_emctest(void);
int do_fbtest(void);
int do_pmdemo(void);

#endif
