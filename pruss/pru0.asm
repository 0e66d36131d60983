// PRU0: the acquisition.
//
// Paces the ADC with the IEP timer, sums 2^in_ovsdepth conversions into one
// sample, filters, checks the limits and stores the samples in the DDR
// buffer, keeping the out_ fields of the communication block current. The
// board's wiring and timing are in pruss/README.md.
//
// Registers, for the whole program:
//   r0..r2    scratch
//   r3        index of the next sample stored (stays 0 for the monitor)
//   r4..r14   the request, latched from in_pextram..in_skip_samples:
//             r4 pextram, r5 flags (the version0 slot), r6 previous raw
//             sample (the in_cmd slot), r7 mode, r8 interval, r9 maxcount,
//             r10 minvalid, r11 maxvalid, r12 filter, r13 ovsdepth,
//             r14 samples still to skip
//   r15       conversions still missing in the current sample
//   r16       sum of the current sample's conversions (2^16 x 0xFFFF fits)
//   r17..r25  image of out_count..out_of_mincount, published in one burst
//   r26..r28  image of debug words 1..3: the sample above in_maxvalid,
//             conversions the ADC did not answer, the longest hit in ns
//   r29       the communication block (shared RAM)

        .equ COMM, 0x10000

        // the communication block, byte offsets
        .equ IN_PEXTRAM, 0
        .equ OUT_VERSION0, 4
        .equ IN_CMD, 8
        .equ OUT_COUNT, 44
        .equ OUT_LASTSAMPLE, 48
        .equ OUT_STATE, 52
        .equ DEBUG1, 84
        .equ REQUEST_BYTES, 44      // in_pextram .. in_skip_samples
        .equ OUT_BYTES, 36          // out_count .. out_of_mincount
        .equ DEBUG_BYTES, 12        // debug words 1..3

        .equ VERSION0, 21

        // out_error
        .equ ERR_OVERFLOW, 2        // a sample above in_maxvalid (debug word 1 holds it)
        .equ ERR_OVSDEPTH, 3        // in_ovsdepth above 16
        .equ ERR_INTERVAL, 4        // in_interval below MIN_INTERVAL or above MAX_INTERVAL
        .equ ERR_PEXTRAM, 5         // in_pextram outside the DDR window
        .equ ERR_COUNT, 6           // the samples would run past the DDR window

        // The worst path of one compare hit takes under 100 cycles (the
        // firmware keeps its worst in debug word 3, in ns) and a conversion
        // 200, read one interval after its CONVST: 300 leaves both room.
        .equ MIN_INTERVAL, 300
        // A stop is seen at the next compare hit and the host gives the
        // firmware 1 ms to go idle, so no interval may be longer.
        .equ MAX_INTERVAL, 200000
        .equ MAX_OVSDEPTH, 16
        // EMIF0's window. The firmware does not know the pool's size (the
        // host does and limits its counts to it); a buffer outside DDR
        // would hang the OCP port or overwrite the PRUs' own memory.
        .equ DDR_START, 0x80000000
        .equ DDR_END, 0xC0000000
        .equ MAX_SAMPLES, 0x20000000

        // flags in r5
        .equ F_HAVE_PREV, 0         // r6 holds the previous raw sample
        .equ F_IN_FLIGHT, 1         // a conversion was started at the last hit

        // pins
        .equ CONVST, 0              // r30
        .equ BUSY, 16               // r31

        // system events and the host interrupt the PRUs see on r31
        .equ EVT_IEP, 7
        .equ EVT_TO_HOST, 19
        .equ EVT_FROM_HOST, 21
        .equ HOST0, 30

        // INTC (c0), CFG (c4), IEP (c26)
        .equ SICR, 0x24
        .equ EISR, 0x28
        .equ CMR1, 0x404
        .equ SYSCFG, 4
        .equ STANDBY_INIT, 4
        .equ IEP_GLOBAL_CFG, 0x00
        .equ IEP_COUNT, 0x0C
        .equ IEP_CMP_CFG, 0x40
        .equ IEP_CMP_STATUS, 0x44
        .equ IEP_CMP0, 0x48
        .equ IEP_STOPPED, 0x550     // increment 5 per cycle: COUNT counts ns
        .equ IEP_RUNNING, 0x551
        .equ IEP_CMP0_RESETS, 0x3   // CMP0 enabled, its hit resets COUNT

        .text
        .origin 0x724
        .entry start
start:
        // The OCP master port, before anything reaches for DDR.
        lbco r0, c4, SYSCFG, 4
        clr r0, r0, STANDBY_INIT
        sbco r0, c4, SYSCFG, 4
        ldi32 r29, COMM
        clr r30, r30, CONVST
        ldi r0, IEP_STOPPED
        sbco r0, c26, IEP_GLOBAL_CFG, 4
        ldi r0, IEP_CMP0_RESETS
        sbco r0, c26, IEP_CMP_CFG, 4
        // The compare shares channel 0 (host 0, r31 bit 30) with the host's
        // start event, so one wbs waits for either.
        ldi r1, CMR1
        lbco r0, c0, r1, 4
        and r0.b3, r0.b3, 0xF0
        sbco r0, c0, r1, 4
        ldi r0, EVT_IEP
        sbco r0, c0, EISR, 4
        sbco r0, c0, SICR, 4
        ldi r0, VERSION0
        sbbo r0, r29, OUT_VERSION0, 4
        ldi r31.b0, 0x20 | (EVT_TO_HOST - 16)

// Idle with the IEP stopped until the host raises its event with in_cmd 1.
main_loop:
        wbs r31, HOST0
        ldi r0, EVT_FROM_HOST
        sbco r0, c0, SICR, 4
        ldi r0, EVT_IEP
        sbco r0, c0, SICR, 4
        lbbo r4, r29, IN_PEXTRAM, REQUEST_BYTES
        qbne main_loop, r6, 1

        // A new acquisition: everything but the last sample starts afresh,
        // so that a reader of out_lastsample never sees a gap at a restart.
        zero &r17, OUT_BYTES
        lbbo r18, r29, OUT_LASTSAMPLE, 4
        ldi r22, 0xFFFF
        zero &r26, DEBUG_BYTES

        ldi r20, ERR_OVSDEPTH
        qblt reject, r13, MAX_OVSDEPTH
        ldi r20, ERR_INTERVAL
        ldi r0, MIN_INTERVAL
        qblt reject, r0, r8
        ldi32 r0, MAX_INTERVAL
        qbgt reject, r0, r8
        ldi r20, ERR_PEXTRAM
        ldi32 r0, DDR_START
        qblt reject, r0, r4
        ldi32 r1, DDR_END
        qbge reject, r1, r4
        // The monitor and a request for no samples both store sample 0.
        ldi r20, ERR_COUNT
        max r0, r9, 1
        ldi32 r2, MAX_SAMPLES
        qbgt reject, r2, r0
        lsl r0, r0, 1
        add r0, r0, r4
        qbgt reject, r1, r0
        ldi r20, 0

        ldi r19, 1
        sbbo r17, r29, OUT_COUNT, OUT_BYTES
        sbbo r26, r29, DEBUG1, DEBUG_BYTES
        ldi r3, 0
        ldi r5, 0
        ldi r16, 0
        ldi r15, 1
        lsl r15, r15, r13

        // A compare every in_interval cycles: CMP0 = (interval - 1) x 5 ns.
        sub r0, r8, 1
        lsl r1, r0, 2
        add r0, r0, r1
        sbco r0, c26, IEP_CMP0, 4
        ldi r0, 1
        sbco r0, c26, IEP_CMP_STATUS, 4
        ldi r0, 0
        sbco r0, c26, IEP_COUNT, 4
        ldi r0, EVT_IEP
        sbco r0, c0, SICR, 4
        ldi r0, IEP_RUNNING
        sbco r0, c26, IEP_GLOBAL_CFG, 4

// One compare hit per conversion.
wait:
        // The compare reset COUNT at this hit: it holds how long the hit's
        // work took, in ns.
        lbco r0, c26, IEP_COUNT, 4
        max r28, r28, r0
        wbs r31, HOST0
        // The result of the conversion started at the last hit, then at once
        // the next CONVST: the conversion instant is the hit plus two cycles.
        mov r1, r31
        set r30, r30, CONVST
        ldi r0, 1
        sbco r0, c26, IEP_CMP_STATUS, 4
        ldi r0, EVT_IEP
        sbco r0, c0, SICR, 4
        // CONVST has been high for 25 ns (at least 20 required).
        clr r30, r30, CONVST
        // A start event while acquiring is not a request; taking it keeps
        // host 0 quiet, so that the next wbs waits for the compare again.
        ldi r0, EVT_FROM_HOST
        sbco r0, c0, SICR, 4
        lbbo r0, r29, IN_CMD, 4
        qbeq stop, r0, 0
        qbbs have_conversion, r5, F_IN_FLIGHT
        set r5, r5, F_IN_FLIGHT
        qba wait
have_conversion:
        // BUSY still high: the ADC did not answer, the conversion is lost.
        qbbc converted, r1, BUSY
        add r27, r27, 1
        qba wait
converted:
        add r16, r16, r1.w0
        sub r15, r15, 1
        qbne wait, r15, 0

        // A whole sample.
        lsr r1, r16, r13
        ldi r16, 0
        ldi r15, 1
        lsl r15, r15, r13
        qbne unfiltered, r12, 1
        // Two taps: the average with the previous raw sample, rounded up.
        mov r2, r1
        qbbc first_raw, r5, F_HAVE_PREV
        add r1, r1, r6
        add r1, r1, 1
        lsr r1, r1, 1
first_raw:
        mov r6, r2
        set r5, r5, F_HAVE_PREV
unfiltered:
        qbeq store, r14, 0
        sub r14, r14, 1
        qba wait

store:
        lsl r0, r3, 1
        sbbo r1, r4, r0, 2
        // DDR writes are posted: reading the sample back waits until it has
        // landed, so that out_count never covers a sample still on its way.
        lbbo r2, r4, r0, 2
        mov r18, r1
        qbge not_max, r1, r21
        mov r21, r1
        mov r23, r3
not_max:
        qble not_min, r1, r22
        mov r22, r1
        mov r24, r3
not_min:
        qble not_below, r1, r10
        add r25, r25, 1
not_below:
        qbne checked, r20, 0
        qbge checked, r1, r11
        ldi r20, ERR_OVERFLOW
        mov r26, r1
checked:
        add r17, r3, 1
        sbbo r17, r29, OUT_COUNT, OUT_BYTES
        sbbo r26, r29, DEBUG1, DEBUG_BYTES
        // The monitor overwrites sample 0 for as long as it runs.
        qbeq wait, r9, 1
        add r3, r3, 1
        qblt wait, r9, r17

// Counted acquisition complete, or stopped by the host: the timer stops
// before out_state says idle, so that a new start finds it quiet.
stop:
        ldi r0, IEP_STOPPED
        sbco r0, c26, IEP_GLOBAL_CFG, 4
        ldi r19, 0
        sbbo r26, r29, DEBUG1, DEBUG_BYTES
        sbbo r19, r29, OUT_STATE, 4
        qba main_loop

// A request the firmware cannot carry out: nothing acquired, the reason in
// out_error, out_state stays 0.
reject:
        sbbo r17, r29, OUT_COUNT, OUT_BYTES
        sbbo r26, r29, DEBUG1, DEBUG_BYTES
        qba main_loop
