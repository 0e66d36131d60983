/* The command table of the protocol. */
#ifndef VELA_COMMANDS_H
#define VELA_COMMANDS_H

#include "remote.h"

struct command_s {
    const char* cmd;
    int (*cb_cmd)(struct client_s* client, int argc, char** argv);
};

/* Ends with a row whose handler is null. */
extern const struct command_s commands[];

#endif
