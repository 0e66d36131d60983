/* The channel table and the get/set/capabilities commands. */
#ifndef VELA_CHANNELS_H
#define VELA_CHANNELS_H

#include <stdint.h>

#include "remote.h"

/* Access bits of a channel row */
enum {
    CH_READ = 1,
    CH_WRITE = 2,
    CH_MARK = 4, /* carried by the counter and calibration rows; nothing tests it */
};

struct channel_s {
    const char* name;       /* null ends the table */
    const char* minmaxacc;  /* range text shown to clients, or null */
    int32_t flags;
    uint8_t machine_mask;   /* 0: every machine */
    int (*cb_set)(struct client_s* client, const char* value);
    int (*cb_get)(struct client_s* client, char* value);
};

extern const struct channel_s channels[];

/* Room for one get handler's value, terminator included. */
#define CHANNEL_VALUE_MAX 64
/* A get handler's value, never longer than CHANNEL_VALUE_MAX - 1
 * characters; returns the number of characters written. */
int put_value(char* value, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

int cb_get(struct client_s* client, int argc, char** argv);
int cb_set(struct client_s* client, int argc, char** argv);
int cb_capabilities(struct client_s* client, int argc, char** argv);

#endif
