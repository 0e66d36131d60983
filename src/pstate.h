/* Power states (1 off, 2 suspend, 3 eco, 4 ready, 5 meas), the walk between
 * them, the suspend with its RTC wake-ups, and the sleep time. */
#ifndef VELA_PSTATE_H
#define VELA_PSTATE_H

#include "remote.h"

enum {
    PSTATE_OFF = 1,
    PSTATE_SUSPEND = 2,
    PSTATE_ECO = 3,
    PSTATE_READY = 4,
    PSTATE_MEAS = 5,
};

/* Channel pstate: a number 1..5 or a name (off, suspend, eco, ready, meas);
 * the target is reached through the intermediate states. */
int cb_pstate_get(struct client_s* client, char* value);
int cb_pstate_set(struct client_s* client, const char* value);

/* One transition; 0 on success (then state.pstate = new_pstate). */
int pstate_switch(struct client_s* client, int curr_pstate, int new_pstate);

/* Suspends until a wake-up reason is found: the power button, a critical
 * battery or the elapsed sleep time. 0 when awake again, -1 when the RTC
 * alarm could not be armed (the system did not sleep). */
int do_suspend(void);

/* Channel sleep_time: seconds 0..86400, 0 = no limit. */
int cb_sleep_time_get(struct client_s* client, char* value);
int cb_sleep_time_set(struct client_s* client, const char* value);

#endif
