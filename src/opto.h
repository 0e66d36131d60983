/* The optically isolated RS-232 service port: 4800 baud, 7 data bits, 2 stop
 * bits, no parity; a line break arrives as the bytes 0xFF 0x00 0x00. */
#ifndef VELA_OPTO_H
#define VELA_OPTO_H

/* Returns the open port, or -1. */
int opto_rs232_open(const char* devname);
/* Restores the settings found at open and closes; nothing for fd < 0. */
void opto_rs232_close(int fd);

#endif
