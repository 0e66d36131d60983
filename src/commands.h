/* The command table of the protocol, and the commands machine, autoinfo and
 * abort. */
#ifndef VELA_COMMANDS_H
#define VELA_COMMANDS_H

#include "remote.h"

struct command_s {
    const char* cmd;
    int (*cb_cmd)(struct client_s* client, int argc, char** argv);
};

/* Ends with a row whose handler is null. */
extern const struct command_s commands[];

/* machine: model, hardware revision, serial number and component versions. */
int cb_machine(struct client_s* client, int argc, char** argv);

/* autoinfo <interval_ms> <channel> [<channel> ...]: one "get" of the
 * channels every interval, answered with the autoinfo request's id; 1 when
 * started. One subscription in the whole server. */
int cb_autoinfo(struct client_s* client, int argc, char** argv);
/* On each expiry of state.fdautoinfotimer, after its count has been read. */
int do_autoinfo(void);
/* Ends the subscription: "<id> error aborted" and "<id> ready". */
int autoinfo_abort(struct client_s* client);

/* abort [<id>]: ends the client's own scan, move or autoinfo. */
int cb_abort(struct client_s* client, int argc, char** argv);
/* id -1: everything of the client (also on a closed connection). */
int do_abort(struct client_s* client, int id);

#endif
