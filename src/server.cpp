/* The server: connections, the request lines, and the select() loop with its
 * timers and event sources. */
#include <arpa/inet.h>
#include <ctype.h>
#include <limits.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/input.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "commands.h"
#include "messages.h"
#include "motorctrl.h"
#include "mtrace.h"
#include "nv.h"
#include "opto.h"
#include "power.h"
#include "scanmove.h"
#include "remote.h"
#include "sysfs.h"
#include "util.h"
#include "velatool.h"

/* ---- Connections ---- */

int setnonblocking(int sock)
{
    int flags = fcntl(sock, F_GETFL);
    if (flags < 0) {
        if (options.verbose)
            printf("setnonblocking(): fcntl(F_GETFL) failed (errno=%d)\n", errno);
        return -1;
    }
    if (fcntl(sock, F_SETFL, flags | O_NONBLOCK) < 0) {
        if (options.verbose)
            printf("setnonblocking(): fcntl(F_SETFL) failed (errno=%d)\n", errno);
        return -1;
    }
    return 0;
}

static int listen_sock = -1;

static void close_client(struct client_s* client)
{
    close(client->sock);
    client->sock = -1;
    client->in_len = 0;
    client->in_discard = 0;
    client->in_eof = 0;
    client_drop_output(client);
}

/* Input left unread makes close() reset the connection, and a reset throws
 * away what the socket has not sent yet: the finished line with it. */
static void close_dropped(struct client_s* client)
{
    MTRACE(3, "read_socks(): dropped slot %d closed%s", client->idx,
           client->out_len == 0 ? "" : " before its last line was out");
    char buf[4096];
    for (int i = 0; i < 16 && read(client->sock, buf, sizeof buf) > 0; i++) {
    }
    close_client(client);
}

/* A free slot; else the slot of a dropped client still finishing its last
 * line, which leaves now to make room; else none. */
static struct client_s* free_slot(void)
{
    for (int i = 0; i < REMOTE_CLIENTS; i++) {
        if (remote_client(i)->sock == -1) {
            remote_client(i)->idx = i;
            return remote_client(i);
        }
    }
    for (int i = 0; i < REMOTE_CLIENTS; i++) {
        struct client_s* client = remote_client(i);
        if (client->dropping) {
            close_dropped(client);
            return client;
        }
    }
    return NULL;
}

int handle_new_connection(void)
{
    struct sockaddr_in peer;
    socklen_t len = sizeof peer;
    int fd = accept(listen_sock, (struct sockaddr*)&peer, &len);
    if (fd < 0) {
        perror("accept");
        return -1;
    }
    MTRACE(3, "handle_new_connection(): new connection from %s (FD=%d)", inet_ntoa(peer.sin_addr), fd);
    setnonblocking(fd);
    /* Replies are several small writes (ack, data, ready): without this the
     * second would wait for the client's delayed acknowledgement. */
    int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    /* A fixed kernel buffer: grown by the kernel (to megabytes), it would
     * hold far more of a slow client's replies than the output queue's
     * bound allows, on a board with little memory. */
    int sndbuf = REMOTE_SNDBUF;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf);
    struct client_s* client = free_slot();
    if (client == NULL) {
        MTRACE(3, "handle_new_connection(): No slot left for new client.");
        sock_puts(fd, "ERROR: Sorry, server is too busy.");
        close(fd);
        return -1;
    }
    MTRACE(3, "handle_new_connection(): Connection accepted: FD=%d; Slot=%d", fd, client->idx);
    client->sock = fd;
    int bstate = 0, level = 0;
    vela_batt_state_get(&bstate, &level);
    vela_send_battery_event(client, bstate);
    if (bstate != BATT_STATE_CHARGING_USB)
        vela_send_battery_level_event(client, level);
    return 0;
}

static void lose_client(struct client_s* client)
{
    MTRACE(3, "deal_with_data(): Connection lost: sock=%d, idx=%d", client->sock, client->idx);
    close_client(client);
    do_abort(client, -1); /* what this client started must not run on */
}

/* Where the first line of the input ends; in_len if it has no end yet. */
static size_t line_end(const struct client_s* client)
{
    for (size_t i = 0; i < client->in_len; i++) {
        if (client->in[i] == '\n' || client->in[i] == '\r')
            return i;
    }
    return client->in_len;
}

/* One read() of whatever has come, behind the input not served yet. When
 * the read leaves the socket empty, an unterminated request is complete:
 * it gets a line end of its own. Returns -1 when the connection failed. */
static int fill_input(struct client_s* client)
{
    size_t room = sizeof client->in - client->in_len - 1; /* one for the added line end */
    if (room == 0 || client->in_eof)
        return 0;
    ssize_t n = read(client->sock, client->in + client->in_len, room);
    if (n < 0)
        return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? 0 : -1;
    if (n == 0)
        client->in_eof = 1;
    client->in_len += (size_t)n;
    /* The unterminated tail: a request of its own, unless it belongs to an
     * over-long line, whose rest is dropped up to a real line end. */
    int drained = n == 0 || (size_t)n < room;
    size_t tail = 0;
    while (tail < client->in_len && client->in[client->in_len - 1 - tail] != '\n' &&
           client->in[client->in_len - 1 - tail] != '\r')
        tail++;
    int whole_input = tail == client->in_len; /* no line end in it */
    if (drained && tail > 0 && tail < REMOTE_LINE_MAX && !(client->in_discard && whole_input))
        client->in[client->in_len++] = '\n';
    return 0;
}

static void consume_input(struct client_s* client, size_t n)
{
    client->in_len -= n;
    memmove(client->in, client->in + n, client->in_len);
}

/* The id in front of a request: its digits followed by one space, at most
 * INT_MAX. -1 when there is none (such a line gets no reply). */
static int parse_id(const char* text, const char** command)
{
    if (!isdigit((unsigned char)text[0])) {
        MTRACE(3, "deal_with_data(): error: data does not start with digit(s)");
        return -1;
    }
    long long id = 0;
    const char* p = text;
    while (isdigit((unsigned char)*p)) {
        /* Wrapping would answer under another client request's id, or as
         * an event. */
        if (id <= INT_MAX)
            id = id * 10 + (*p - '0');
        p++;
    }
    MTRACE(4, "deal_with_data(): ID=%lld", id);
    if (id > INT_MAX) {
        MTRACE(3, "deal_with_data(): error: id above %d", INT_MAX);
        return -1;
    }
    if (*p != ' ') {
        MTRACE(3, "deal_with_data(): error: no space after id");
        return -1;
    }
    *command = p + 1;
    return (int)id;
}

/* Takes the next request line out of the input into line: 1 with a line,
 * 0 with nothing to serve, 2 for an over-long line (its start in line, its
 * rest dropped up to its line end, however long that takes). Empty lines
 * are skipped. */
static int next_line(struct client_s* client, char* line)
{
    for (;;) {
        size_t end = line_end(client);
        if (client->in_discard) {
            if (end == client->in_len) {
                client->in_len = 0;
                return 0;
            }
            consume_input(client, end + 1);
            client->in_discard = 0;
            continue;
        }
        if (end >= REMOTE_LINE_MAX) {
            MTRACE(3, "deal_with_data(): error: line longer than %d bytes dropped", REMOTE_LINE_MAX - 1);
            memcpy(line, client->in, REMOTE_LINE_MAX - 1);
            line[REMOTE_LINE_MAX - 1] = '\0';
            client->in_discard = end == client->in_len;
            consume_input(client, client->in_discard ? end : end + 1);
            return 2;
        }
        if (end == client->in_len)
            return 0;
        memcpy(line, client->in, end);
        line[end] = '\0';
        consume_input(client, end + 1);
        if (end > 0)
            return 1;
    }
}

/* Splits in place at spaces outside double quotes; the quotes stay in the
 * word. -1 when there are more words than a request holds. */
static int split_words(char* text, char** argv)
{
    int argc = 0;
    char* p = text;
    while (*p != '\0') {
        if (argc == REMOTE_WORDS_MAX)
            return -1;
        argv[argc++] = p;
        int quoted = 0;
        while (*p != '\0' && (quoted || *p != ' ')) {
            if (*p == '"')
                quoted = !quoted;
            p++;
        }
        if (*p == ' ')
            *p++ = '\0';
    }
    return argc;
}

/* Acknowledges the request and runs it. */
static void run_request(struct client_s* client, char* command, int well_formed)
{
    MTRACE(4, "deal_with_data(): full command=\"%s\"", command);
    remote_ack(client);
    clock_gettime(CLOCK_MONOTONIC, &client->ts_start);

    char* argv[REMOTE_WORDS_MAX];
    int argc = well_formed ? split_words(command, argv) : -1;
    int ret = 0;
    if (argc < 0) {
        /* Folding the rest into the last word, or cutting the line, would
         * apply part of the request. */
        remote_error(client, msg.syntax_invalid);
        remote_ready(client);
        return;
    }
    if (options.verbose) {
        for (int i = 0; i < argc; i++)
            printf("argv[%d]=%s\n", i, argv[i]);
    }
    const struct command_s* row = commands;
    while (row->cb_cmd != NULL && (argc == 0 || strcmp(row->cmd, argv[0]) != 0))
        row++;
    if (row->cb_cmd == NULL)
        remote_error(client, "unknown command");
    else
        ret = row->cb_cmd(client, argc, argv);
    if (ret <= 0)
        remote_ready(client);
}

int client_has_request(const struct client_s* client)
{
    if (client->sock < 0 || client->out_full)
        return 0; /* a client being dropped is served no more */
    if (client->in_eof)
        return 1; /* if only to close it */
    /* a whole line, or the start of one too long to wait for its end */
    return line_end(client) < client->in_len || client->in_len >= REMOTE_LINE_MAX;
}

void deal_with_data(struct client_s* client)
{
    if (!client_has_request(client) && fill_input(client) < 0) {
        lose_client(client);
        return;
    }
    char line[REMOTE_LINE_MAX];
    int got = next_line(client, line);
    if (got == 0) {
        if (client->in_eof)
            lose_client(client);
        return;
    }
    MTRACE(4, "deal_with_data(): [%s]", line);
    if (got == 1 && line[0] == '.') {
        MTRACE(3, "deal_with_data(): Closing connection: FD=%d;  Slot=%d", client->sock, client->idx);
        do_abort(client, -1);
        close_client(client);
        return;
    }
    const char* command = NULL;
    int id = parse_id(line, &command);
    if (id < 0)
        return;
    client->current_id = id;
    run_request(client, line + (command - line), got == 1);
}

/* A break on the line arrives marked as 0xFF 0x00 0x00. */
void handle_opto_rs232(void)
{
    unsigned char buf[32] = {0};
    int n = (int)read(state.fdopto, buf, sizeof buf);
    if (options.verbose) {
        puts("handle_opto_rs232()");
        printf("read result=%d ", n);
        for (int i = 0; i < n && i < 3; i++)
            printf("%02x ", buf[i]);
        printf("\n");
    }
    /* Fewer than three bytes cannot be a marked break (the zeros would be
     * the buffer's own). */
    if (n >= 3 && buf[0] == 0xff && buf[1] == 0x00 && buf[2] == 0x00)
        remote_event(msg.evt_start_via_opto);
}

/* ---- The server ---- */

static const char pmic_device[] = "/dev/input/by-path/platform-44e0b000.i2c-event";
static const char opto_device[] = "/dev/ttyO1";

static fd_set socks;
static fd_set writefds;
static fd_set exceptfds;
static int highsock;

static void watch(int fd, fd_set* set)
{
    if (fd < 0)
        return;
    FD_SET(fd, set);
    if (fd > highsock)
        highsock = fd;
}

static int ready(int fd, fd_set* set)
{
    return fd >= 0 && FD_ISSET(fd, set);
}

void build_select_list(void)
{
    FD_ZERO(&socks);
    FD_ZERO(&writefds);
    FD_ZERO(&exceptfds);
    watch(listen_sock, &socks);
    watch(state.fdpmic, &socks);
    watch(state.fdopto, &socks);
    watch(state.fdchg, &exceptfds);
    watch(state.fdvganf, &exceptfds);
    watch(state.fdscanmovetimer, &socks);
    watch(state.fdidletimer, &socks);
    watch(state.fdautoinfotimer, &socks);
    for (int i = 0; i < REMOTE_CLIENTS; i++) {
        struct client_s* client = remote_client(i);
        if (!client->out_full)
            watch(client->sock, &socks);
        if (client->out_len > 0)
            watch(client->sock, &writefds);
    }
}

/* A client with a request read ahead is served in the next pass without
 * waiting. */
static int requests_pending(void)
{
    for (int i = 0; i < REMOTE_CLIENTS; i++) {
        if (client_has_request(remote_client(i)))
            return 1;
    }
    return 0;
}

/* Replies first, so that queues shrink before new requests add to them;
 * then at most one request of each client, in slot order. */
static void serve_clients(void)
{
    for (int i = 0; i < REMOTE_CLIENTS; i++) {
        struct client_s* client = remote_client(i);
        if (ready(client->sock, &writefds) && client_flush(client) < 0)
            lose_client(client);
    }
    for (int i = 0; i < REMOTE_CLIENTS; i++) {
        struct client_s* client = remote_client(i);
        if (!client->out_full && (ready(client->sock, &socks) || client_has_request(client)))
            deal_with_data(client);
    }
}

/* A client whose unread replies outgrew its queue is dropped: better than
 * a reply with a hole in it. Also for output added by timers and events.
 * What it started is aborted at once, as for a lost connection; the line
 * its socket has begun is finished first, so that it never reads a cut
 * line. Until then it keeps its slot, but only while no new client needs
 * one: a client that never reads again holds nobody up. */
static void drop_overflowed_clients(void)
{
    for (int i = 0; i < REMOTE_CLIENTS; i++) {
        struct client_s* client = remote_client(i);
        if (client->sock < 0 || !client->out_full)
            continue;
        if (!client->dropping) {
            MTRACE(3, "read_socks(): slot %d left more than %d bytes of replies unread: dropped once its last line is out",
                   i, REMOTE_OUT_MAX);
            client->dropping = 1;
            client_keep_started_line(client);
            do_abort(client, -1);
        }
        if (client->out_len == 0)
            close_dropped(client);
    }
}

/* A GPIO line's edge is announced until its value file is read again from
 * the start: reading at the current offset would leave it pending and the
 * loop spinning. */
static void ack_gpio_edge(int fd)
{
    char buf[4];
    lseek(fd, 0, SEEK_SET);
    ssize_t n = read(fd, buf, sizeof buf);
    (void)n;
}

static void drain_timer(int fd)
{
    uint64_t expirations;
    ssize_t n = read(fd, &expirations, sizeof expirations);
    (void)n;
}

void read_socks(void)
{
    if (options.verbose) {
        puts("read_socks()");
        if (state.fdscanmovetimer != -1)
            puts("read_socks(): scan running");
        if (state.fdautoinfotimer != -1)
            puts("read_socks(): autoinfo running");
    }
    if (ready(state.fdscanmovetimer, &socks)) {
        if (options.verbose)
            printf("read_socks(): scantimer expired (action=%d)\n", state.scanmove_action);
        drain_timer(state.fdscanmovetimer);
        if (state.scanmove_action == 2)
            do_scan();
        else if (state.scanmove_action == 1)
            do_movetimeout();
    }
    if (ready(state.fdautoinfotimer, &socks)) {
        if (options.verbose)
            puts("read_socks(): autoinfotimer expired");
        drain_timer(state.fdautoinfotimer);
        do_autoinfo();
    }
    if (ready(state.fdidletimer, &socks)) {
        if (options.verbose)
            puts("read_socks(): idletimer expired");
        drain_timer(state.fdidletimer);
        idle_task();
    }
    if (ready(listen_sock, &socks))
        handle_new_connection();
    serve_clients();
    if (ready(state.fdpmic, &socks))
        handle_pmic();
    if (ready(state.fdopto, &socks))
        handle_opto_rs232();
    if (ready(state.fdchg, &exceptfds)) {
        ack_gpio_edge(state.fdchg);
        vela_power_handler(1);
    }
    if (ready(state.fdvganf, &exceptfds)) {
        ack_gpio_edge(state.fdvganf);
        do_endswitch_reached();
    }
    drop_overflowed_clients();
}

/* The power button reports scan codes: 0x101 pressed, 0x100 released. */
void handle_pmic(void)
{
    MTRACE(4, "handle_pmic()");
    struct input_event ev;
    for (;;) {
        int n = (int)read(state.fdpmic, &ev, sizeof ev);
        MTRACE(5, "handle_pmic(): read: %d", n);
        if (n < 1)
            break;
        if (n != (int)sizeof ev || ev.type != EV_MSC || ev.code != MSC_SCAN)
            continue;
        MTRACE(5, "handle_pmic(): ev.value: 0x%x", (unsigned)ev.value);
        if (ev.value == 0x101) {
            state.start_button_pressed = 1;
            remote_event(msg.evt_start_pressed);
        } else if (ev.value == 0x100) {
            if (state.start_button_pressed)
                remote_event(msg.evt_start_released);
            state.start_button_pressed = 0;
        }
    }
}

/* Adds the time since the interval's start to its counter and starts the
 * next interval. */
static void accumulate(struct timespec* total, struct timespec* since, const char* fmt)
{
    struct timespec now, delta;
    clock_gettime(CLOCK_MONOTONIC, &now);
    clock_delta(since, &now, &delta);
    clock_add(total, &delta);
    MTRACE(4, fmt, (int)total->tv_sec, (int)delta.tv_sec);
    clock_copy(since, &now);
}

int uptime_counter(uint32_t pstate)
{
    if (pstate == 3)
        accumulate(&state.uptime_eco, &state.ts_start_eco, "uptime_counter(): uptime_eco=%d (+%d)");
    else if (pstate == 4 || pstate == 5)
        accumulate(&state.uptime, &state.ts_start_ready, "uptime_counter(): uptime=%d (+%d)");
    return 0;
}

int idle_task(void)
{
    MTRACE(5, "idle_task()");
    vela_power_handler(0);
    uptime_counter(state.pstate);
    nv_save_now(0);
    return 0;
}

int vela_query_platform(void)
{
    char model[32];
    if (vela_get_devicetree_model(model, sizeof model) < 0)
        return -1;
    MTRACE(4, "dt_model=[%s]\n", model);
    const char* machine = strstr(model, "VELA") != NULL ? "VELAL" : "VELA";
    /* The configured model, up to 16 bytes, replaces the default. */
    char configured[256];
    if (MIniData_GetStringEntry(state.h_ini, "general", "machine", configured, sizeof configured)) {
        size_t len = strnlen(configured, sizeof state.machine - 1);
        memcpy(state.machine, configured, len);
        state.machine[len] = '\0';
    } else {
        snprintf(state.machine, sizeof state.machine, "%s", machine);
        MIniData_SetStringEntry(state.h_ini, "general", "machine", state.machine);
        util_ini_save();
    }
    state.machine_type = util_machine2type(state.machine);
    return state.machine_type < 0 ? -1 : 0;
}

/* First expiry after 100 ms, so that the battery state is known at once. */
static int start_idle_timer(void)
{
    state.fdidletimer = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK);
    struct itimerspec its = {{10, 0}, {0, 100000000}};
    int ret = timerfd_settime(state.fdidletimer, 0, &its, NULL);
    MTRACE(3, "remotecontrol(): idletime: timerfd_settime(fd=%d) returned %d", state.fdidletimer, ret);
    return ret;
}

static int open_listener(int port)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        perror("socket");
        return -1;
    }
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setnonblocking(fd);
    struct sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    addr.sin_port = htons((uint16_t)port);
    if (bind(fd, (struct sockaddr*)&addr, sizeof addr) < 0) {
        perror("bind");
        close(fd);
        exit(1);
    }
    listen(fd, 5);
    return fd;
}

static void close_all(void)
{
    MTRACE(4, "remotecontrol(): closing all sockets");
    for (int i = 0; i < REMOTE_CLIENTS; i++) {
        if (remote_client(i)->sock != -1)
            close_client(remote_client(i));
    }
    am335x_adc_close(state.adchnd);
    close(state.fdpmic);
    opto_rs232_close(state.fdopto);
    vela_power_close();
    vela_motor_vganf_close();
    MIniData_Destroy(state.h_ini);
    state.h_ini = NULL;
    if (state.fdidletimer != -1)
        close(state.fdidletimer);
    nv_save_now(1);
}

int remotecontrol(int port)
{
    /* A client that goes away while a reply is written must not take the
     * server with it: the write fails with EPIPE instead. */
    signal(SIGPIPE, SIG_IGN);

    nv_read();
    if (util_ini_open() != 0)
        return -1;
    if (vela_query_platform() != 0)
        return -1;
    int ret = am335x_adc_init(&state.adchnd);
    if (ret != 0) {
        MERRLOG("am335x_adc_init failed (result=%d)", ret);
        return -1;
    }
    state.fdpmic = open(pmic_device, O_RDONLY | O_NONBLOCK);
    if (state.fdpmic < 0) {
        MERRLOG("open %s failed", pmic_device);
        return -1;
    }
    state.fdopto = opto_rs232_open(opto_device);
    if (state.fdopto < 0) {
        MERRLOG("open %s failed", opto_device);
        return -1;
    }
    state.fdchg = vela_power_init();
    if (state.fdchg < 0) {
        perror("open");
        return -1;
    }
    state.fdvganf = vela_motor_vganf_init();
    if (state.fdvganf < 0) {
        perror("open");
        return -1;
    }
    start_idle_timer();
    util_ini_read();

    state.w_ov_min = 0;
    state.w_ov_max = 65535;
    state.phase = 8;
    state.speed = 0.5;
    state.pstate = 4;
    clock_gettime(CLOCK_MONOTONIC, &state.ts_start_ready);
    state.fdscanmovetimer = -1;
    state.fdautoinfotimer = -1;
    vela_get_hardware_version(state.hwrev, sizeof state.hwrev);

    listen_sock = open_listener(port);
    if (listen_sock < 0)
        return -1;
    highsock = listen_sock;
    for (int i = 0; i < REMOTE_CLIENTS; i++) {
        client_drop_output(remote_client(i));
        *remote_client(i) = client_s{};
    }
    struct timeval timeout = {10, 0};
    if (vela_cpufreq_set(1) != 0)
        MTRACE(2, "Switching to high cpu frequency mode failed");

    /* Ready has the drive stopped and unpowered; a server that died during
     * a move would otherwise leave it running against its end stop. */
    vela_motor_dac_write(DAC_STANDSTILL);
    vela_motor_power_ctrl(0);

    state.run = 1;
    while (state.run) {
        build_select_list();
        int pending = requests_pending();
        struct timeval at_once = {0, 0};
        int n = select(highsock + 1, &socks, &writefds, &exceptfds, pending ? &at_once : &timeout);
        if (n < 0) {
            perror("select");
            return -1;
        }
        if (n == 0 && !pending) {
            timeout.tv_sec = 10;
            timeout.tv_usec = 0;
            continue;
        }
        read_socks();
    }
    close_all();
    return 0;
}
