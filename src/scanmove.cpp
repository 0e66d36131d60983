/* Scan and move: start, periodic completion, end and abort. */
#include "scanmove.h"

#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include "am335x_adc.h"
#include "aquisition.h"
#include "messages.h"
#include "motorctrl.h"
#include "mtrace.h"
#include "nv.h"
#include "util.h"
#include "velatool.h"

#define SCAN_TICK_MS 100
/* Time allowed for the first samples of a scan, beyond the discarded ones. */
#define SCAN_DATA_WAIT_MS 500
/* Beyond any scan's travel time: keeps the budget within an int. */
#define SKIP_TIME_MAX_MS 1000000000LL

/* The "OF MINUS" warning went out in this scan. */
static int of_min_reported;
/* The samples this scan asked the firmware for. */
static int scan_samples;

/* A monotonic, non-blocking timer armed with first expiry and interval in
 * ms (interval 0: once); -1 if it cannot be made. */
static int scanmove_timer(int first_ms, int interval_ms)
{
    int fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK);
    if (fd < 0)
        return -1;
    struct itimerspec its;
    its.it_value.tv_sec = first_ms / 1000;
    its.it_value.tv_nsec = (long)(first_ms % 1000) * 1000000L;
    its.it_interval.tv_sec = interval_ms / 1000;
    its.it_interval.tv_nsec = (long)(interval_ms % 1000) * 1000000L;
    if (timerfd_settime(fd, 0, &its, NULL) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

static int rearm_once(int fd, int ms)
{
    struct itimerspec its;
    memset(&its, 0, sizeof its);
    its.it_value.tv_sec = ms / 1000;
    its.it_value.tv_nsec = (long)(ms % 1000) * 1000000L;
    return timerfd_settime(fd, 0, &its, NULL);
}

static void idle_aquisition(void)
{
    aquisition_stop(&state.pruss_info);
    aquisition_start(&state.pruss_info, 1, 2000, 0, 65535, 1, 6, state.skip_samples, 0);
}

char* base64_encode(const unsigned char* data, size_t input_length, char* dest, size_t* output_length)
{
    static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    static const int padding[] = {0, 2, 1};

    if (dest == NULL || output_length == NULL)
        return NULL;
    size_t outlen = 4 * ((input_length + 2) / 3);
    if (options.verbose)
        printf("base64_encode(): outlen=%d, *output_length=%d\n", (int)outlen, (int)*output_length);
    if (*output_length < outlen)
        return NULL;
    *output_length = outlen;

    size_t j = 0;
    for (size_t i = 0; i < input_length; i += 3) {
        uint32_t a = data[i];
        uint32_t b = i + 1 < input_length ? data[i + 1] : 0;
        uint32_t c = i + 2 < input_length ? data[i + 2] : 0;
        uint32_t triple = (a << 16) + (b << 8) + c;
        dest[j++] = alphabet[(triple >> 18) & 0x3f];
        dest[j++] = alphabet[(triple >> 12) & 0x3f];
        dest[j++] = alphabet[(triple >> 6) & 0x3f];
        dest[j++] = alphabet[triple & 0x3f];
    }
    for (int k = 0; k < padding[input_length % 3]; k++)
        dest[outlen - 1 - k] = '=';
    return dest;
}

/* What a scan and a move check first. The start time is stored before the
 * checks, so a refused one overwrites the running operation's start. */
static int scanmove_may_start(struct client_s* client)
{
    clock_gettime(CLOCK_MONOTONIC, &state.scanmove_ts_start);
    if (state.pstate != 5) {
        remote_error(client, msg.invalid_pstate);
        return -1;
    }
    if (state.scanmove_client != NULL) {
        remote_error(client, msg.err_command_already_active);
        return -1;
    }
    return 0;
}

/* How long the firmware takes for the samples it discards before the first
 * one it keeps, ms. At the slowest speeds this is longer than the wait for
 * the first data, so both time-outs start after it. */
static int skip_time_ms(int sps)
{
    long long ms = ((long long)state.skip_samples * 1000 + sps - 1) / sps;
    return (int)(ms < SKIP_TIME_MAX_MS ? ms : SKIP_TIME_MAX_MS);
}

int cb_scan(struct client_s* client, int argc, char** argv)
{
    MTRACE(3, "cb_scan()");
    if (scanmove_may_start(client) != 0)
        return -1;
    const char* eq = argc == 2 ? strchr(argv[1], '=') : NULL;
    if (eq == NULL) {
        remote_error(client, msg.syntax_invalid);
        return -1;
    }

    double d_lt;
    int tt_ms;
    int travel;
    if (argv[1][0] == 'x') {
        d_lt = 0.0;
        int bad = util_parse_double(eq + 1, &d_lt);
        MTRACE(4, "cb_scan(): lt=%1.2f", d_lt);
        if (bad || d_lt > 17.5 || d_lt < 0.1) {
            remote_error(client, msg.value_out_of_range);
            return -1;
        }
        tt_ms = (int)(d_lt * 1000 / state.speed);
        travel = 1;
    } else if (strncmp(argv[1], "time", 4) == 0) {
        double d_t = 0.0;
        int bad = util_parse_double(eq + 1, &d_t);
        MTRACE(4, "cb_scan(): t=%1.2f\n", d_t);
        if (bad || d_t > 40.0 || d_t < 0.1) {
            remote_error(client, msg.value_out_of_range);
            return -1;
        }
        tt_ms = (int)(d_t * 1000);
        d_lt = state.speed * d_t;
        travel = 0;
    } else {
        remote_error(client, msg.syntax_invalid);
        return -1;
    }
    MTRACE(4, "cb_scan(): Measure at %1.2fmm/s for %d ms\n", state.speed, tt_ms);

    /* A scan the sample buffer cannot hold is refused before the drive
     * moves. */
    int i_sps = (int)rint(state.speed / 0.0005);
    int i_samples = 0;
    if (aquisition_x_to_samples(&state.pruss_info, d_lt, state.speed, i_sps, &i_samples) != 0) {
        remote_error(client, msg.value_out_of_range);
        return -1;
    }

    if (travel) {
        uint16_t dac = (uint16_t)(unsigned int)(state.x_corr * 890.0 * state.speed + 2082.0);
        MTRACE(4, "cb_scan(): DAC: %04x", dac);
        if (vela_motor_dac_write(dac) != 0) {
            remote_error(client, msg.err_motor_dac_failed);
            return -1;
        }
    }

    MTRACE(4, "cb_scan(): starting aquisition for %d samples with %d samples/s", i_samples, i_sps);
    aquisition_stop(&state.pruss_info);
    aquisition_start(&state.pruss_info, i_samples, i_sps, state.w_ov_min, state.w_ov_max, 1, 6, state.skip_samples,
                     travel);

    state.scan_lastcount = 0;
    of_min_reported = 0;
    scan_samples = i_samples;

    state.fdscanmovetimer = scanmove_timer(SCAN_TICK_MS, SCAN_TICK_MS);
    if (state.fdscanmovetimer < 0) {
        /* Without its timer the scan would never end: undo it. */
        MTRACE(2, "cb_scan(): no scan timer");
        idle_aquisition();
        if (travel)
            vela_motor_dac_write(DAC_STANDSTILL);
        remote_error(client, msg.err_error);
        return -1;
    }
    int skip_ms = skip_time_ms(i_sps);
    state.scantimeout = tt_ms + skip_ms + 1000;
    state.scandatatimeout = skip_ms + SCAN_DATA_WAIT_MS;
    state.scanmove_id = client->current_id;
    state.scanmove_action = 2;
    state.scanmove_client = client;
    MTRACE(4, "cb_scan(): timerfd=%d, settime=%d, clientid=%d", state.fdscanmovetimer, SCAN_TICK_MS,
           state.scanmove_id);
    return 1;
}

/* Sends samples scan_lastcount .. count-1 as data lines, each sample low
 * byte first. Normally one line; more only if a late step has more samples
 * than one reply buffer holds, so that none is lost. */
static void send_samples(struct client_s* client, int count)
{
    static unsigned char bytes[TBUFFER_SIZE];

    while (state.scan_lastcount < count) {
        int pos = snprintf(tbuffer, TBUFFER_SIZE, "%d data ", state.scanmove_id);
        size_t capacity = (size_t)(TBUFFER_SIZE - 3 - pos);
        int fit = (int)(capacity / 4 * 3 / 2) & ~1;
        int n = count - state.scan_lastcount;
        if (n > fit)
            n = fit;
        volatile uint16_t* from = state.pruss_info.p_samples + state.scan_lastcount;
        MTRACE(3, "do_scan(): encoding %d samples @ %p", n, (const void*)from);
        for (int i = 0; i < n; i++) {
            uint16_t s = from[i];
            bytes[2 * i] = (unsigned char)(s & 0xff);
            bytes[2 * i + 1] = (unsigned char)(s >> 8);
        }
        size_t len = capacity;
        base64_encode(bytes, (size_t)n * 2, tbuffer + pos, &len);
        pos += (int)len;
        tbuffer[pos++] = '\n';
        tbuffer[pos] = '\0';
        state.scan_lastcount += n;
        sock_puts(client->sock, tbuffer);
    }
}

int do_scan(void)
{
    struct client_s* client = state.scanmove_client;
    if (client == NULL)
        return -22;

    volatile struct prucomm_s* comm = state.pruss_info.comm;
    /* The state before the count: once the scan's acquisition has finished
     * with all its samples, the last of an odd count is written too. Until
     * then (and for a count left from another acquisition) only whole
     * pairs are taken. */
    int current_state = (int)comm->out_state;
    int current_count = (int)comm->out_count;
    uint32_t error = comm->out_error;
    MTRACE(3,
           "do_scan(): count: %d, last: 0x%04x, min: 0x%04x @ %d, max: 0x%04x @ %d, of_mincount: %d, error: %d, "
           "state: %d",
           current_count, comm->out_lastsample, comm->out_min, comm->out_minpos, comm->out_max, comm->out_maxpos,
           comm->out_of_mincount, error, current_state);
    /* Never past the buffer, whatever the count says. */
    if (current_count < 0 || current_count > state.pruss_info.max_samples)
        current_count = state.pruss_info.max_samples;
    if (current_state != 0 || current_count != scan_samples)
        current_count &= ~1;

    int failed = 0;
    if (error == 2) {
        MTRACE(3, "w_ov_max=%d, invalid sample=%d", state.w_ov_max, comm->debug[1]);
        remote_id_error(client, state.scanmove_id, msg.err_ov_plus);
        failed = 1;
    } else if (error != 0) {
        remote_id_error(client, state.scanmove_id, msg.err_error);
        failed = 1;
    } else {
        state.scantimeout -= SCAN_TICK_MS;
        if (state.scantimeout < 0) {
            remote_id_error(client, state.scanmove_id, msg.err_timeout);
            failed = 1;
        }
        if (state.scandatatimeout < 1) {
            if (current_count == 0) {
                remote_id_error(client, state.scanmove_id, msg.err_nodata_timeout);
                failed = 1;
            }
        } else {
            state.scandatatimeout -= SCAN_TICK_MS;
        }
        if (!of_min_reported && comm->out_of_mincount != 0) {
            of_min_reported = 1;
            /* With the client's latest request id. */
            remote_warn(client, msg.wrn_ov_minus);
        }
        int new_count = current_count - state.scan_lastcount;
        if (new_count <= 0 || failed)
            MTRACE(3, "do_scan(): new_count=%d, error=%d", new_count, failed);
        else
            send_samples(client, current_count);
    }

    if (current_state == 0 || failed)
        scan_ready(client);
    return 0;
}

int scan_ready(struct client_s* client)
{
    MTRACE(3, "scan_ready()");
    if (state.fdscanmovetimer >= 0)
        close(state.fdscanmovetimer);
    state.fdscanmovetimer = -1;
    state.scanmove_client = NULL;

    idle_aquisition();
    if (vela_motor_dac_write(DAC_STANDSTILL) != 0)
        remote_id_error(client, state.scanmove_id, msg.err_motor_dac_failed);
    if (state.scanmove_action == 2) {
        state.meas_cycles++;
        nv_save_now(0);
    }
    remote_scanmove_ready(client);
    return 0;
}

int scan_abort(struct client_s* client)
{
    remote_id_error(client, state.scanmove_id, "aborted");
    return scan_ready(client);
}

int cb_move(struct client_s* client, int argc, char** argv)
{
    MTRACE(3, "cb_move()");
    if (scanmove_may_start(client) != 0)
        return -1;
    if (argc != 2 || strncmp(argv[1], "x=0", 3) != 0) {
        remote_error(client, msg.err_invalid_args_for_move);
        return -1;
    }

    int vganf = 1;
    vela_motor_get_vganf(&vganf);
    MTRACE(3, "cb_move(): vganf=%d", vganf);
    if (vganf == 0) {
        MTRACE(4, "cb_move(): still at endswitch");
        return 0;
    }

    vela_motor_vganf_enable_edgeirq();
    state.fdscanmovetimer = scanmove_timer(1000, 0);
    if (state.fdscanmovetimer < 0) {
        /* Without its timer the move would never be supervised. */
        MTRACE(2, "cb_move(): no move timer");
        vela_motor_vganf_disable_edgeirq();
        remote_error(client, msg.err_error);
        return -1;
    }
    state.movecheckdrive = 1;
    state.scanmove_id = client->current_id;
    state.scanmove_action = 1;
    state.scanmove_client = client;
    MTRACE(4, "cb_move(): timerfd=%d, settime=%d, clientid=%d", state.fdscanmovetimer, 1000, state.scanmove_id);
    MTRACE(3, "cb_move(): goto far end until VG_ANF does low");

    /* Full speed home; a failed write leaves the move supervised as usual. */
    if (vela_motor_dac_write(0) != 0)
        remote_error(client, msg.err_motor_dac_failed);
    return 1;
}

int do_movetimeout(void)
{
    struct client_s* client = state.scanmove_client;
    if (client == NULL)
        return -22;

    if (state.movecheckdrive) {
        MTRACE(3, "do_movetimeout(): check for drive unit via voltage");
        state.movecheckdrive = 0;
        float vplus = 0, vminus = 0;
        am335x_adc_read_single(state.adchnd, 4, &vplus);
        am335x_adc_read_single(state.adchnd, 5, &vminus);
        float vmotor = vplus - vminus;
        MTRACE(3, "do_movetimeout(): vmotor=%1.2f", vmotor);
        if (vmotor <= 0.5f || vmotor >= 4.0f) {
            rearm_once(state.fdscanmovetimer, 14000);
        } else {
            MTRACE(3, "do_movetimeout(): no drive unit\n");
            remote_id_error(client, state.scanmove_id, msg.err_no_driveunit);
            move_ready(client);
        }
    } else {
        /* After a hold-up of the loop the switch's edge may be waiting
         * behind this timer: a probe that is home has not timed out. */
        int vganf = 1;
        if (vela_motor_get_vganf(&vganf) == 0 && vganf == 0) {
            MTRACE(3, "do_movetimeout(): endswitch reached meanwhile");
            move_ready(client);
            return 0;
        }
        MTRACE(3, "do_movetimeout(): TIMEOUT while waiting for VGANF");
        remote_id_error(client, state.scanmove_id, msg.err_endswitch_timeout);
        move_ready(client);
    }
    return 0;
}

int do_endswitch_reached(void)
{
    MTRACE(3, "do_endswitch_reached()");
    if (state.scanmove_client == NULL)
        return -22;
    vela_motor_vganf_disable_edgeirq();
    if (state.scanmove_action == 1)
        move_ready(state.scanmove_client);
    return 0;
}

int move_ready(struct client_s* client)
{
    vela_motor_vganf_disable_edgeirq();
    return scan_ready(client);
}

int move_abort(struct client_s* client)
{
    remote_id_error(client, state.scanmove_id, "aborted");
    return move_ready(client);
}
