/* Channel handlers of the measurement chain: the live probe reading and its
 * height, the probe's calibration (two-point and direct), the overflow
 * limits, the acquisition phase, the drive speed and the sine frequency. */
#ifndef VELA_CALIBRATION_H
#define VELA_CALIBRATION_H

#include "remote.h"

/* Get handlers write the value into value and return the character count
 * (0 or below: failed); set handlers return 0, or -1 after an error line. */
int cb_speed_get(struct client_s* client, char* value);
int cb_speed_set(struct client_s* client, const char* value);

int cb_w_get(struct client_s* client, char* value);
int cb_z_get(struct client_s* client, char* value);
int cb_sin_freq_get(struct client_s* client, char* value);

int cb_f_get(struct client_s* client, char* value);
int cb_f_set(struct client_s* client, const char* value);

int cb_x_corr_get(struct client_s* client, char* value);
int cb_x_corr_set(struct client_s* client, const char* value);
int cb_w_offset_get(struct client_s* client, char* value);
int cb_w_offset_set(struct client_s* client, const char* value);
int cb_w_scale_get(struct client_s* client, char* value);
int cb_w_scale_set(struct client_s* client, const char* value);

int cb_w_ov_min_get(struct client_s* client, char* value);
int cb_w_ov_min_set(struct client_s* client, const char* value);
int cb_w_ov_max_get(struct client_s* client, char* value);
int cb_w_ov_max_set(struct client_s* client, const char* value);

/* Two-point calibration: xref1 arms it, xref2 completes or cancels it. */
int cb_w_xref1_set(struct client_s* client, const char* value);
int cb_w_xref2_set(struct client_s* client, const char* value);

int cb_phase_get(struct client_s* client, char* value);
int cb_phase_set(struct client_s* client, const char* value);

#endif
