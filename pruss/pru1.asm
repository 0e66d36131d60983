// PRU1: the excitation's period and the demodulator's reference.
//
// Times the comparator's rising edges with the core's cycle counter,
// publishes the period in out_periodtime (ns, averaged over 32 periods) and
// drives the reference pin in_delay/32 of a period behind each rising edge.
// The board's wiring is in pruss/README.md.
//
// Registers:
//   r0..r2    scratch
//   r3.w2     return address (call/ret)
//   r10       the period in cycles (0 until the first window is measured)
//   r11       rising edges still to come in the current window
//   r12       in_delay as applied (0..31)
//   r13       delay to the first reference edge, in loop counts
//   r14       half a period, in loop counts
//   r15       1 when the counter was read at the current window's first edge
//   r16       that reading
//   r28       this core's control registers
//   r29       the communication block (shared RAM)

        .equ COMM, 0x10000
        .equ CONTROL, 0x24000       // PRU1's control block
        .equ CTRL_CYCLE, 0x0C
        .equ COUNTER_ENABLE, 3

        .equ DEBUG0, 80
        .equ OUT_VERSION1, 112
        .equ IN_DELAY, 116
        .equ OUT_PERIODTIME, 120

        .equ VERSION1, 12
        .equ WINDOW, 32             // periods per measurement (a power of two)
        .equ WINDOW_SHIFT, 5

        .equ COMPARATOR, 0          // r31
        .equ REFERENCE, 0           // r30

        .equ SYSCFG, 4
        .equ STANDBY_INIT, 4

        .text
        .origin 0x220
        .entry start
start:
        lbco r0, c4, SYSCFG, 4
        clr r0, r0, STANDBY_INIT
        sbco r0, c4, SYSCFG, 4
        ldi32 r29, COMM
        ldi32 r28, CONTROL
        clr r30, r30, REFERENCE
        ldi r0, VERSION1
        sbbo r0, r29, OUT_VERSION1, 4
        call restart_counter
        ldi r10, 0
        ldi r11, 1

// Once per period of the excitation, from its rising edge.
edge:
        wbc r31, COMPARATOR
        wbs r31, COMPARATOR
        sub r11, r11, 1
        qbne reference, r11, 0

        // End of a window. The counter stops at 0xFFFFFFFF (after 21 s):
        // past half of that it restarts from 0, and the window after a
        // restart is not measured (its start is not an edge).
        lbbo r1, r28, CTRL_CYCLE, 4
        sub r2, r1, r16
        mov r16, r1
        ldi r11, WINDOW
        qbeq window_start, r15, 0
        lsr r10, r2, WINDOW_SHIFT
        // ns = cycles x 5 / 32, rounded
        lsl r0, r2, 2
        add r0, r0, r2
        add r0, r0, WINDOW / 2
        lsr r0, r0, WINDOW_SHIFT
        sbbo r0, r29, OUT_PERIODTIME, 4
        qbbc reference, r1, 31
        call restart_counter
        qba reference
window_start:
        ldi r15, 1

reference:
        qbeq edge, r10, 0
        lbbo r12, r29, IN_DELAY, 4
        and r12, r12, 31
        sbbo r12, r29, DEBUG0, 4
        // (in_delay mod 16) x period / 32, in cycles, then in loop counts of
        // two cycles; half a period likewise.
        and r0, r12, 15
        ldi r13, 0
        qbbc bit1, r0, 0
        add r13, r13, r10
bit1:
        lsl r1, r10, 1
        qbbc bit2, r0, 1
        add r13, r13, r1
bit2:
        lsl r1, r10, 2
        qbbc bit3, r0, 2
        add r13, r13, r1
bit3:
        lsl r1, r10, 3
        qbbc scaled, r0, 3
        add r13, r13, r1
scaled:
        lsr r13, r13, WINDOW_SHIFT + 1
        lsr r14, r10, 2
        // Delays of 16/32 and more are the inverted wave 16/32 earlier: the
        // same signal, and both of its edges fall before the next rising
        // edge of the comparator.
        qbbs inverted, r12, 4
        mov r0, r13
        call delay
        set r30, r30, REFERENCE
        mov r0, r14
        call delay
        clr r30, r30, REFERENCE
        qba edge
inverted:
        mov r0, r13
        call delay
        clr r30, r30, REFERENCE
        mov r0, r14
        call delay
        set r30, r30, REFERENCE
        qba edge

// r0 loop counts of two cycles. The loop takes a 16-bit count: longer
// delays (periods above 0.65 ms, excitations below ~800 Hz) are cut short.
delay:
        ldi r1, 0xFFFF
        min r0, r0, r1
        loop delay_end, r0.w0
        nop
        nop
delay_end:
        ret

// The cycle counter from 0; the next window is not measured.
restart_counter:
        lbbo r0, r28, 0, 4
        clr r0, r0, COUNTER_ENABLE
        sbbo r0, r28, 0, 4
        ldi r1, 0
        sbbo r1, r28, CTRL_CYCLE, 4
        set r0, r0, COUNTER_ENABLE
        sbbo r0, r28, 0, 4
        ldi r15, 0
        ldi r16, 0
        ret
