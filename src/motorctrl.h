/* Drive unit: motor DAC (speed and direction), motor power, end switch. */
#ifndef VELA_MOTORCTRL_H
#define VELA_MOTORCTRL_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

int vela_motor_dac_write(uint16_t val);
/* The motor DAC's I2C write, also used for the measurement channel's
 * potentiometer: write() failures are retried 1 ms apart, ten attempts in
 * all, any other result ends the loop. Returns the last write()'s result and
 * leaves the counter in *retries: 0 after a success on the tenth attempt, -1
 * after ten failures. Callers take 0 as failure and -1 as success; kept so. */
ssize_t vela_i2c_write_retry(int fd, const void* data, size_t len, int* retries);
int vela_motor_power_ctrl(int on);

/* End switch "vg_anf": level 1 = not at the end switch, 0 = reached. */
int vela_motor_get_vganf(int* state);
int vela_motor_vganf_init(void);
int vela_motor_vganf_close(void);
int vela_motor_vganf_enable_edgeirq(void);
int vela_motor_vganf_disable_edgeirq(void);
int vela_motor_vganf_wait(int timeout);

#endif
