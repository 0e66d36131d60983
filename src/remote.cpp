#include "remote.h"

#include <stdarg.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "mtrace.h"
#include "sysfs.h"

struct state_s state;
char tbuffer[TBUFFER_SIZE];

/* Free from the start: an event sent before the server has set up its
 * slots (by the charger monitor, say) must not go to descriptor 0. */
static struct client_s clients[REMOTE_CLIENTS] = {{-1, 0, 0, {0, 0}}, {-1, 1, 0, {0, 0}}, {-1, 2, 0, {0, 0}},
                                                  {-1, 3, 0, {0, 0}}, {-1, 4, 0, {0, 0}}};

struct client_s* remote_client(int idx)
{
    return idx >= 0 && idx < REMOTE_CLIENTS ? &clients[idx] : NULL;
}

/* ---- Reply lines ---- */

int sock_puts(int fd, const char* s)
{
    if (fd < 0)
        return -1;
    return (int)write(fd, s, strlen(s));
}

/* One formatted line, one write(). */
static int reply_line(struct client_s* client, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
static int reply_line(struct client_s* client, const char* fmt, ...)
{
    if (client->sock < 0)
        return -1;
    char line[REMOTE_LINE_MAX];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    return sock_puts(client->sock, line);
}

/* "<id> <kind> <text>", traced at level 3 as the caller names it. */
static int text_line(struct client_s* client, int id, const char* kind, const char* text, const char* who)
{
    if (client->sock < 0)
        return -1;
    char line[REMOTE_LINE_MAX];
    int n = snprintf(line, sizeof line, "%d %s %s\n", id, kind, text);
    /* A text too long for the line is cut, but the line still ends. */
    if (n >= (int)sizeof line)
        line[sizeof line - 2] = '\n';
    MTRACE(3, "%s(): %s", who, line);
    return sock_puts(client->sock, line);
}

int remote_error(struct client_s* client, const char* text)
{
    return text_line(client, client->current_id, "error", text, "remote_error");
}

int remote_warn(struct client_s* client, const char* text)
{
    return text_line(client, client->current_id, "warning", text, "remote_warn");
}

int remote_id_error(struct client_s* client, int id, const char* text)
{
    return text_line(client, id, "error", text, "remote_id_error");
}

int remote_ack(struct client_s* client)
{
    return reply_line(client, "%d ack\n", client->current_id);
}

int remote_id_ready(struct client_s* client, int id)
{
    return reply_line(client, "%d ready\n", id);
}

/* "<id> ready <s>.<mmm>": the time since start, milliseconds truncated. */
static int ready_since(struct client_s* client, int id, struct timespec* start)
{
    struct timespec now, delta;
    clock_gettime(CLOCK_MONOTONIC, &now);
    clock_delta(start, &now, &delta);
    return reply_line(client, "%d ready %d.%03d\n", id, (int)delta.tv_sec, (int)(delta.tv_nsec / 1000000));
}

int remote_ready(struct client_s* client)
{
    return ready_since(client, client->current_id, &client->ts_start);
}

int remote_scanmove_ready(struct client_s* client)
{
    return ready_since(client, state.scanmove_id, &state.scanmove_ts_start);
}

int remote_autoinfo_ready(struct client_s* client)
{
    return reply_line(client, "%d ready\n", state.autoinfo_id);
}

int remote_event_to_client(struct client_s* client, const char* text)
{
    if (client == NULL || text == NULL)
        return -EINVAL;
    snprintf(tbuffer, sizeof tbuffer, "0 event %s\n", text);
    if (client->sock == -1)
        return 0;
    MTRACE(5, "remote_event_to_client(): %s", tbuffer);
    sock_puts(client->sock, tbuffer);
    return 0;
}

int remote_event(const char* text)
{
    if (text == NULL)
        return -EINVAL;
    MTRACE(3, "remote_event(): %s", text);
    for (int i = 0; i < REMOTE_CLIENTS; i++)
        remote_event_to_client(&clients[i], text);
    return 0;
}

