#include "commands.h"

#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>

#include "channels.h"
#include "mtrace.h"
#include "scanmove.h"
#include "util.h"
#include "velatool.h"

const struct command_s commands[] = {
    {"get", cb_get},
    {"set", cb_set},
    {"scan", cb_scan},
    {"move", cb_move},
    {"abort", cb_abort},
    {"machine", cb_machine},
    {"capabilities", cb_capabilities},
    {"autoinfo", cb_autoinfo},
    {NULL, NULL},
};

/* Room for each identity text; the functions write a few dozen characters. */
#define IDENTITY_MAX 128

int cb_machine(struct client_s* client, int argc, char** argv)
{
    (void)argc;
    (void)argv;
    char serialno[IDENTITY_MAX] = "";
    char bootloader[IDENTITY_MAX] = "";
    char bsp[IDENTITY_MAX] = "";
    vela_get_serialno(serialno);
    vela_get_bootloader_version(bootloader);
    vela_get_bsp_version(bsp);

    int id = client->current_id;
    snprintf(tbuffer, sizeof tbuffer,
             "%d data machine \"%s\" \"%s\"\n"
             "%d data serialno \"%s\"\n"
             "%d data component \"bootloader\" \"%s\"\n"
             "%d data component \"bsp\" \"%s\"\n"
             "%d data component \"velatool\" \"%s\"\n",
             id, state.machine, state.hwrev, id, serialno, id, bootloader, id, bsp, id, VELATOOL_VERSION);
    sock_puts(client->sock, tbuffer);
    return 0;
}

int cb_abort(struct client_s* client, int argc, char** argv)
{
    MTRACE(3, "cb_abort()");
    int id = argc == 2 ? atoi(argv[1]) : -1;
    return do_abort(client, id);
}

int do_abort(struct client_s* client, int id)
{
    MTRACE(3, "do_abort(): id=%d", id);
    if (client == NULL)
        return 0;
    if (state.scanmove_client == client && (state.scanmove_id == id || id == -1)) {
        if (state.scanmove_action == 2)
            scan_abort(client);
        else if (state.scanmove_action == 1)
            move_abort(client);
    }
    if (state.autoinfo_client == client && (state.autoinfo_id == id || id == -1))
        autoinfo_abort(client);
    return 0;
}
