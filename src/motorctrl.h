/* Drive unit: motor DAC (speed and direction), motor power, end switch. */
#ifndef VELA_MOTORCTRL_H
#define VELA_MOTORCTRL_H

#include <stdint.h>

int vela_motor_dac_write(uint16_t val);
int vela_motor_power_ctrl(int on);

/* End switch "vg_anf": level 1 = not at the end switch, 0 = reached. */
int vela_motor_get_vganf(int* state);
int vela_motor_vganf_init(void);
int vela_motor_vganf_close(void);
int vela_motor_vganf_enable_edgeirq(void);
int vela_motor_vganf_disable_edgeirq(void);
int vela_motor_vganf_wait(int timeout);

#endif
