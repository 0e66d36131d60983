/* The server: connections, the request lines, and the select() loop with its
 * timers and event sources. */
#include <arpa/inet.h>
#include <ctype.h>
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

/* A line longer than the buffer is dropped whole: the slot discards input
 * up to the line's end, so that its tail is never taken for a request. */
static int discarding[REMOTE_CLIENTS];

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
    for (int i = 0; i < REMOTE_CLIENTS; i++) {
        struct client_s* client = remote_client(i);
        if (client->sock != -1)
            continue;
        MTRACE(3, "handle_new_connection(): Connection accepted: FD=%d; Slot=%d", fd, i);
        client->sock = fd;
        client->idx = i;
        discarding[i] = 0;
        int bstate = 0, level = 0;
        vela_batt_state_get(&bstate, &level);
        vela_send_battery_event(client, bstate);
        if (bstate != BATT_STATE_CHARGING_USB)
            vela_send_battery_level_event(client, level);
        return 0;
    }
    MTRACE(3, "handle_new_connection(): No slot left for new client.");
    sock_puts(fd, "ERROR: Sorry, server is too busy.");
    close(fd);
    return -1;
}

static void close_client(struct client_s* client)
{
    close(client->sock);
    client->sock = -1;
}

/* At most this much of an over-long line is skipped per call, so that a
 * client sending one without end never holds the loop from the others. */
#define DISCARD_PER_CALL 65536

/* A read that failed for another reason than "nothing more now": the
 * connection is gone (reset by the peer, say) as surely as a closed one. */
static int connection_lost(ssize_t n)
{
    return n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR);
}

/* Skips the rest of an over-long line, in large reads rather than byte by
 * byte: looks at what has come and takes it up to and including the line
 * end, if there is one. 0 when the connection is gone, else -1 (nothing to
 * run). */
static int discard_line(struct client_s* client)
{
    char buf[4096];
    for (size_t done = 0; done < DISCARD_PER_CALL;) {
        ssize_t n = recv(client->sock, buf, sizeof buf, MSG_PEEK);
        if (n <= 0)
            return connection_lost(n) ? 0 : -1;
        size_t take = (size_t)n;
        int end = 0;
        for (size_t i = 0; i < (size_t)n && !end; i++) {
            if (buf[i] == '\n' || buf[i] == '\r') {
                take = i + 1;
                end = 1;
            }
        }
        ssize_t r = read(client->sock, buf, take);
        if (r <= 0)
            return connection_lost(r) ? 0 : -1;
        if (end) {
            discarding[client->idx] = 0;
            return -1;
        }
        done += (size_t)r;
    }
    return -1;
}

/* Reads one line: 1 with a line, 0 when the connection is gone, -1 while
 * an over-long line is being discarded. */
static int read_line(struct client_s* client, char* line)
{
    if (discarding[client->idx])
        return discard_line(client);
    size_t n = 0;
    for (;;) {
        char c;
        ssize_t r = read(client->sock, &c, 1);
        if (r <= 0) {
            if (connection_lost(r))
                return 0;
            break; /* nothing more now: the request is what came */
        }
        if (c == '\n' || c == '\r')
            break;
        if (n == REMOTE_LINE_MAX - 1) {
            MTRACE(3, "deal_with_data(): error: line longer than %d bytes dropped", REMOTE_LINE_MAX - 1);
            discarding[client->idx] = 1;
            return discard_line(client);
        }
        line[n++] = c;
    }
    line[n] = '\0';
    return 1;
}

/* Splits in place at spaces outside double quotes; the quotes stay in the
 * word. Words past the last slot stay in the last one. */
static int split_words(char* text, char** argv)
{
    int argc = 0;
    char* p = text;
    while (*p != '\0' && argc < REMOTE_WORDS_MAX) {
        argv[argc++] = p;
        int quoted = 0;
        while (*p != '\0' && (quoted || *p != ' ' || argc == REMOTE_WORDS_MAX)) {
            if (*p == '"')
                quoted = !quoted;
            p++;
        }
        if (*p == ' ')
            *p++ = '\0';
    }
    return argc;
}

void deal_with_data(struct client_s* client)
{
    char line[REMOTE_LINE_MAX];
    int got = read_line(client, line);
    if (got == 0) {
        MTRACE(3, "deal_with_data(): Connection lost: sock=%d, idx=%d", client->sock, client->idx);
        close_client(client);
        do_abort(client, -1); /* what this client started must not run on */
        return;
    }
    if (got < 0 || line[0] == '\0')
        return;
    MTRACE(4, "deal_with_data(): [%s]", line);
    if (line[0] == '.') {
        MTRACE(3, "deal_with_data(): Closing connection: FD=%d;  Slot=%d", client->sock, client->idx);
        do_abort(client, -1);
        close_client(client);
        return;
    }
    if (!isdigit((unsigned char)line[0])) {
        MTRACE(3, "deal_with_data(): error: data does not start with digit(s)");
        return;
    }
    char* p = line;
    unsigned id = 0;
    while (isdigit((unsigned char)*p))
        id = id * 10 + (unsigned)(*p++ - '0');
    MTRACE(4, "deal_with_data(): ID=%d", (int)id);
    if (*p != ' ') {
        MTRACE(3, "deal_with_data(): error: no space after id");
        return;
    }
    client->current_id = (int)id;
    char* command = p + 1;
    MTRACE(4, "deal_with_data(): full command=\"%s\"", command);
    remote_ack(client);
    clock_gettime(CLOCK_MONOTONIC, &client->ts_start);

    char* argv[REMOTE_WORDS_MAX];
    int argc = split_words(command, argv);
    if (options.verbose) {
        for (int i = 0; i < argc; i++)
            printf("argv[%d]=%s\n", i, argv[i]);
    }
    int ret = 0;
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
    FD_ZERO(&exceptfds);
    watch(listen_sock, &socks);
    watch(state.fdpmic, &socks);
    watch(state.fdopto, &socks);
    watch(state.fdchg, &exceptfds);
    watch(state.fdvganf, &exceptfds);
    watch(state.fdscanmovetimer, &socks);
    watch(state.fdidletimer, &socks);
    watch(state.fdautoinfotimer, &socks);
    for (int i = 0; i < REMOTE_CLIENTS; i++)
        watch(remote_client(i)->sock, &socks);
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
    for (int i = 0; i < REMOTE_CLIENTS; i++) {
        if (ready(remote_client(i)->sock, &socks))
            deal_with_data(remote_client(i));
    }
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
        struct client_s* client = remote_client(i);
        memset(client, 0, sizeof *client);
        client->sock = -1;
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
        int n = select(highsock + 1, &socks, NULL, &exceptfds, &timeout);
        if (n < 0) {
            perror("select");
            return -1;
        }
        if (n == 0) {
            timeout.tv_sec = 10;
            timeout.tv_usec = 0;
            continue;
        }
        read_socks();
    }
    close_all();
    return 0;
}
