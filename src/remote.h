/* The remote-control server: its state record, the client slots, the reply
 * and event lines of the protocol, and the main loop. */
#ifndef VELA_REMOTE_H
#define VELA_REMOTE_H

#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include "MIniData.h"
#include "am335x_adc.h"
#include "aquisition.h"

#define REMOTE_CLIENTS 5
#define REMOTE_LINE_MAX 256   /* one request line, terminator included */
#define REMOTE_WORDS_MAX 20   /* words of one request */
#define REMOTE_AI_CHANNELS 17 /* the stored autoinfo get vector */
#define TBUFFER_SIZE 4096
#define REMOTE_IN_SIZE 4096          /* input read ahead of the request served */
#define REMOTE_OUT_MAX (256 * 1024)  /* replies a client may leave unread */
#define REMOTE_SNDBUF (32 * 1024)    /* a client socket's kernel send buffer */

struct client_s {
    int sock = -1;                 /* -1: the slot is free */
    int idx = 0;                   /* 0..4 */
    int current_id = 0;            /* id of the request most recently received */
    struct timespec ts_start = {}; /* when that request was acknowledged (monotonic) */
    /* Input read but not served yet; in_discard: dropping the rest of an
     * over-long line; in_eof: the peer has closed its side. */
    char in[REMOTE_IN_SIZE] = {};
    size_t in_len = 0;
    int in_discard = 0;
    int in_eof = 0;
    /* Lines the socket has not taken yet, out[out_head..out_head +
     * out_len): whole ones, but for the rest of a line whose start the
     * socket has (out_midline). out_full: a line did not fit, the client is
     * to be dropped; dropping: it is, and leaves once the socket has the
     * rest of that line, or when a new client needs the slot. */
    char* out = nullptr;
    size_t out_head = 0;
    size_t out_len = 0;
    size_t out_cap = 0;
    int out_midline = 0;
    int out_full = 0;
    int dropping = 0;
};

struct state_s {
    int run;
    MINIDATA_HANDLE h_ini;               /* the open configuration document */
    int machine_type;                    /* bit of the machine model, negative if unknown */
    char machine[16];                    /* machine model */
    char hwrev[16];                      /* hardware revision */
    double x_corr;                       /* drive length correction, 0.7..1.3 */
    uint16_t w_offset;                   /* calibration offset, raw counts */
    double w_scale;                      /* calibration scale */
    double vbatt_crit_threshold;         /* volts */
    double vbatt_low_threshold;
    double vbatt_hysteresis;
    double vbatt_cycle_low_threshold;
    double vbatt_cycle_high_threshold;
    double vbatt_almost_full_threshold;
    struct timespec uptime;              /* time in ready and meas */
    struct timespec uptime_eco;          /* time in eco */
    uint32_t meas_cycles;
    uint32_t batt_cycles;
    uint8_t batt_cycle_state;
    uint32_t pstate;                     /* 1 off, 2 suspend, 3 eco, 4 ready, 5 meas */
    uint32_t sleep_time;                 /* seconds, 0 = no limit */
    uint16_t w_ov_min;                   /* overflow limits of raw samples */
    uint16_t w_ov_max;
    int phase;                           /* 0..31, for the acquisition engine */
    uint32_t skip_samples;               /* samples the acquisition discards at the start */
    double speed;                        /* drive speed setting 0.1..1.0 */
    int ini_changed;                     /* configuration changed, to be saved */
    int scan_lastcount;                  /* samples of the running scan already sent */
    struct pruss_info_s pruss_info;
    int fdscanmovetimer;                 /* -1 when no scan or move runs */
    struct client_s* scanmove_client;
    int scanmove_id;
    struct timespec scanmove_ts_start;
    int scantimeout;                     /* ms */
    int scandatatimeout;                 /* ms */
    int movecheckdrive;
    int scanmove_action;                 /* 1 move, 2 scan */
    int fdautoinfotimer;                 /* -1 when no autoinfo runs */
    struct client_s* autoinfo_client;
    int autoinfo_id;
    int ai_cnt;
    char* ai_channel[REMOTE_AI_CHANNELS];
    struct timespec ts_start_ready;
    struct timespec ts_start_eco;
    int fdidletimer;
    int fdopto;
    int fdpmic;
    int fdchg;
    int fdvganf;
    adchnd_t adchnd;
    int remotetest;
    int suspend_interval_time;           /* seconds, at least 10 */
    int start_button_pressed;
    uint16_t wref1;                      /* raw value at the first calibration reference */
    double xref1;                        /* position of the first calibration reference */
    double f;                            /* sine generator frequency, Hz */
};

extern struct state_s state;
/* The client slot idx (0..4), or null. */
struct client_s* remote_client(int idx);
/* Shared by the event lines and the handlers' replies. */
extern char tbuffer[TBUFFER_SIZE];

/* Reply lines. A line goes to the client's output queue behind what its
 * socket has not taken yet, whole or not at all; -1 without sending for a
 * free slot. sock_puts on a descriptor that is no client's writes directly. */
int sock_puts(int fd, const char* s);
int client_puts(struct client_s* client, const char* s, size_t len);
/* Writes what the socket takes of the queue; -1 when the connection failed. */
int client_flush(struct client_s* client);
/* Forgets queued output and frees the queue (the slot is closed). */
void client_drop_output(struct client_s* client);
/* Keeps of the queue only the rest of the line the socket has begun. */
void client_keep_started_line(struct client_s* client);
int remote_error(struct client_s* client, const char* text);
int remote_warn(struct client_s* client, const char* text);
int remote_id_error(struct client_s* client, int id, const char* text);
int remote_ack(struct client_s* client);
int remote_id_ready(struct client_s* client, int id);
int remote_ready(struct client_s* client);
int remote_scanmove_ready(struct client_s* client);
int remote_autoinfo_ready(struct client_s* client);

/* Events: "0 event <text>" to one client, or to all. */
int remote_event_to_client(struct client_s* client, const char* text);
int remote_event(const char* text);

/* Connections */
int setnonblocking(int sock);
int handle_new_connection(void);
/* Serves at most one request of the client, reading once if none is
 * waiting in its input. */
void deal_with_data(struct client_s* client);
/* Does the client's input hold a request (or its end) to serve now? */
int client_has_request(const struct client_s* client);
void handle_opto_rs232(void);

/* The server */
int remotecontrol(int port);
void build_select_list(void);
void read_socks(void);
void handle_pmic(void);
int uptime_counter(uint32_t pstate);
int idle_task(void);
int vela_query_platform(void);

#endif
