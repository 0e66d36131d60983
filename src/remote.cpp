#include "remote.h"

#include <stdarg.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "mtrace.h"
#include "sysfs.h"

struct state_s state;
char tbuffer[TBUFFER_SIZE];

/* Free from the start: an event sent before the server has set up its
 * slots (by the charger monitor, say) must not go to descriptor 0. */
static struct client_s clients[REMOTE_CLIENTS];

struct client_s* remote_client(int idx)
{
    return idx >= 0 && idx < REMOTE_CLIENTS ? &clients[idx] : NULL;
}

/* ---- Output queues ---- */

/* A slow reader must never see a line cut in two, nor lose one silently:
 * what its socket does not take waits in its queue, and the main loop
 * writes it when the socket can take more. A client that lets the queue
 * grow past REMOTE_OUT_MAX is dropped instead (out_full). */

/* Writes from s what the client's socket takes now: the count, or -1 when
 * the connection failed (the rest is then of no use). */
static ssize_t write_some(struct client_s* client, const char* s, size_t len)
{
    size_t done = 0;
    while (done < len) {
        ssize_t n = write(client->sock, s + done, len - done);
        if (n > 0) {
            done += (size_t)n;
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            break;
        return -1;
    }
    if (done > 0)
        client->out_midline = s[done - 1] != '\n';
    return (ssize_t)done;
}

/* Room for len more bytes behind the queue, within REMOTE_OUT_MAX. */
static int reserve(struct client_s* client, size_t len)
{
    if (client->out_len + len > REMOTE_OUT_MAX)
        return -1;
    if (client->out_head > 0) {
        memmove(client->out, client->out + client->out_head, client->out_len);
        client->out_head = 0;
    }
    if (client->out_len + len <= client->out_cap)
        return 0;
    size_t cap = client->out_cap ? client->out_cap : 4096;
    while (cap < client->out_len + len)
        cap *= 2;
    if (cap > REMOTE_OUT_MAX)
        cap = REMOTE_OUT_MAX;
    char* grown = (char*)realloc(client->out, cap);
    if (grown == NULL)
        return -1;
    client->out = grown;
    client->out_cap = cap;
    return 0;
}

int client_puts(struct client_s* client, const char* s, size_t len)
{
    if (client->sock < 0)
        return -1;
    if (client->out_full)
        return -1;
    size_t done = 0;
    if (client->out_len == 0) {
        ssize_t n = write_some(client, s, len);
        if (n < 0)
            return -1; /* the reader finds the connection gone */
        done = (size_t)n;
    }
    if (done == len)
        return (int)len;
    if (reserve(client, len - done) < 0) {
        MTRACE(2, "client_puts(): output of slot %d exceeds %d bytes unread: dropping the client", client->idx,
               REMOTE_OUT_MAX);
        client->out_full = 1;
        return -1;
    }
    memcpy(client->out + client->out_head + client->out_len, s + done, len - done);
    client->out_len += len - done;
    return (int)len;
}

int client_flush(struct client_s* client)
{
    if (client->sock < 0 || client->out_len == 0)
        return 0;
    ssize_t n = write_some(client, client->out + client->out_head, client->out_len);
    if (n < 0)
        return -1;
    client->out_head += (size_t)n;
    client->out_len -= (size_t)n;
    if (client->out_len == 0)
        client->out_head = 0;
    return 0;
}

void client_drop_output(struct client_s* client)
{
    free(client->out);
    client->out = NULL;
    client->out_head = client->out_len = client->out_cap = 0;
    client->out_midline = client->out_full = client->dropping = 0;
}

void client_keep_started_line(struct client_s* client)
{
    const char* rest = client->out + client->out_head;
    const char* end = client->out_midline && client->out_len > 0 ? (const char*)memchr(rest, '\n', client->out_len) : NULL;
    client->out_len = end != NULL ? (size_t)(end - rest) + 1 : 0;
}

/* ---- Reply lines ---- */

int sock_puts(int fd, const char* s)
{
    if (fd < 0)
        return -1;
    for (int i = 0; i < REMOTE_CLIENTS; i++) {
        if (clients[i].sock == fd)
            return client_puts(&clients[i], s, strlen(s));
    }
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
    int n = vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    return client_puts(client, line, n < (int)sizeof line ? (size_t)n : sizeof line - 1);
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
    return client_puts(client, line, strlen(line));
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
    client_puts(client, tbuffer, strlen(tbuffer));
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

