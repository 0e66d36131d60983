/* Periodic channel reports: one subscription in the whole server, a stored
 * "get" vector read on each expiry of its timer. */
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "channels.h"
#include "commands.h"
#include "messages.h"
#include "mtrace.h"

#define AUTOINFO_INTERVAL_MIN 50 /* ms */

/* Element 0 of the stored vector stands for the command word. */
static char no_command[] = "";

static void free_channels(void)
{
    for (int i = 1; i < state.ai_cnt && i < REMOTE_AI_CHANNELS; i++) {
        free(state.ai_channel[i]);
        state.ai_channel[i] = NULL;
    }
    state.ai_cnt = 0;
}

int cb_autoinfo(struct client_s* client, int argc, char** argv)
{
    if (state.autoinfo_client != NULL) {
        remote_error(client, msg.err_command_already_active);
        return -1;
    }
    if (argc < 3) {
        remote_error(client, msg.err_no_axis_specified);
        return -1;
    }
    int interval_ms = atoi(argv[1]);
    if (interval_ms < AUTOINFO_INTERVAL_MIN || argc - 2 > REMOTE_AI_CHANNELS - 1) {
        remote_error(client, msg.value_out_of_range);
        return -1;
    }

    state.ai_cnt = 0;
    state.ai_channel[0] = no_command;
    for (int i = 2; i < argc; i++) {
        state.ai_channel[i - 1] = strdup(argv[i]);
        state.ai_cnt = i;
        if (state.ai_channel[i - 1] == NULL) {
            free_channels();
            remote_error(client, msg.err_action_failed);
            return -1;
        }
    }
    state.ai_cnt = argc - 1;

    int fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK);
    struct itimerspec its;
    its.it_value.tv_sec = interval_ms / 1000;
    its.it_value.tv_nsec = (long)(interval_ms % 1000) * 1000000L;
    its.it_interval = its.it_value;
    if (fd < 0 || timerfd_settime(fd, 0, &its, NULL) != 0) {
        MTRACE(2, "cb_autoinfo(): autoinfo timer failed");
        if (fd >= 0)
            close(fd);
        free_channels();
        remote_error(client, msg.err_action_failed);
        return -1;
    }
    state.fdautoinfotimer = fd;
    state.autoinfo_client = client;
    state.autoinfo_id = client->current_id;
    return 1;
}

int do_autoinfo(void)
{
    struct client_s* client = state.autoinfo_client;
    if (client == NULL)
        return 0;
    int current_id = client->current_id;
    client->current_id = state.autoinfo_id;
    cb_get(client, state.ai_cnt, state.ai_channel);
    client->current_id = current_id;
    return 0;
}

int autoinfo_abort(struct client_s* client)
{
    remote_id_error(client, state.autoinfo_id, "aborted");
    if (state.fdautoinfotimer >= 0)
        close(state.fdautoinfotimer);
    state.fdautoinfotimer = -1;
    state.autoinfo_client = NULL;
    free_channels();
    remote_id_ready(client, state.autoinfo_id);
    return 0;
}
