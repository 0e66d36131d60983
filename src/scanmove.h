/* The server's two long operations: the scan (drive and acquisition, samples
 * streamed as base64 data lines) and the move home to the end switch. Both
 * share the scan/move fields of the state record; one runs at a time. */
#ifndef VELA_SCANMOVE_H
#define VELA_SCANMOVE_H

#include <stddef.h>

#include "remote.h"

/* The motor DAC value at which the drive stands still. */
#define DAC_STANDSTILL 2082

/* Command handlers: 1 when the operation goes on, else finished. */
int cb_scan(struct client_s* client, int argc, char** argv);
int cb_move(struct client_s* client, int argc, char** argv);

/* Completions, called by the main loop: do_scan and do_movetimeout after the
 * scan/move timer's expiry count has been read (scanmove_action 2 and 1),
 * do_endswitch_reached after an edge of the end switch line. */
int do_scan(void);
int do_movetimeout(void);
int do_endswitch_reached(void);

/* Ends of the operations: stop the drive, restart the idle acquisition and
 * send "<id> ready <s>.<ms>"; the aborts send "aborted" first. */
int scan_ready(struct client_s* client);
int scan_abort(struct client_s* client);
int move_ready(struct client_s* client);
int move_abort(struct client_s* client);

/* Standard base64 with padding and no line breaks, without a NUL.
 * *output_length is dest's capacity on entry, the text's length on return;
 * null (nothing written) for a null or too small dest. */
char* base64_encode(const unsigned char* data, size_t input_length, char* dest, size_t* output_length);

#endif
