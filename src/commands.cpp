#include "commands.h"

#include <stddef.h>

#include "channels.h"

const struct command_s commands[] = {
    {"get", cb_get},
    {"set", cb_set},
    {"capabilities", cb_capabilities},
    {NULL, NULL},
};
